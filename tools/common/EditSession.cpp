#include "common/EditSession.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>

#include <SegmentationCore/SegmentationCore.h>

namespace {

// Labels of the caller's marker image.
constexpr int kUnknown = 0, kBackground = 1, kObject = 2, kBackgroundEst = 3, kObjectEst = 4;
// Edit kinds.
constexpr int kLoopAdd = 0, kLoopRemove = 1, kStrokeAdd = 2, kStrokeRemove = 3;
// The engine writes only 0 and 255 into a mask: a first byte left at this
// value means no mask came back (a cancelled or timed-out request).
constexpr unsigned char kNoMask = 7;

std::vector<cv::Point> pointsOf(const Edit& e) {
  std::vector<cv::Point> points;
  for (size_t i = 0; i + 1 < e.values.size(); i += 2) points.emplace_back(e.values[i], e.values[i + 1]);
  return points;
}

}  // namespace

std::vector<unsigned int> toArgb(const cv::Mat& bgr) {
  std::vector<unsigned int> argb(bgr.total());
  for (int y = 0; y < bgr.rows; ++y) {
    const cv::Vec3b* row = bgr.ptr<cv::Vec3b>(y);
    for (int x = 0; x < bgr.cols; ++x)
      argb[static_cast<size_t>(y) * bgr.cols + x] =
          0xFF000000u | (unsigned(row[x][2]) << 16) | (unsigned(row[x][1]) << 8) | row[x][0];
  }
  return argb;
}

cv::Mat fromArgb(const std::vector<unsigned int>& argb, int width, int height) {
  cv::Mat bgr(height, width, CV_8UC3);
  for (int y = 0; y < height; ++y) {
    cv::Vec3b* row = bgr.ptr<cv::Vec3b>(y);
    for (int x = 0; x < width; ++x) {
      const unsigned int w = argb[static_cast<size_t>(y) * width + x];
      row[x] = cv::Vec3b(w & 0xFF, (w >> 8) & 0xFF, (w >> 16) & 0xFF);
    }
  }
  return bgr;
}

cv::Mat objectMaskOf(const std::vector<unsigned char>& mask, int width, int height) {
  cv::Mat object(height, width, CV_8U);
  for (int y = 0; y < height; ++y) {
    uint8_t* row = object.ptr<uint8_t>(y);
    for (int x = 0; x < width; ++x) row[x] = mask[static_cast<size_t>(y) * width + x] == 0 ? 255 : 0;
  }
  return object;
}

std::vector<unsigned char> engineMaskOf(const cv::Mat& object) {
  std::vector<unsigned char> mask(object.total());
  for (int y = 0; y < object.rows; ++y) {
    const uint8_t* row = object.ptr<uint8_t>(y);
    for (int x = 0; x < object.cols; ++x) mask[static_cast<size_t>(y) * object.cols + x] = row[x] ? 0 : 255;
  }
  return mask;
}

cv::Mat cutoutOf(const cv::Mat& bgr, const cv::Mat& object) {
  cv::Mat cutout;
  cv::cvtColor(bgr, cutout, cv::COLOR_BGR2BGRA);
  cutout.setTo(cv::Scalar(0, 0, 0, 0), object == 0);
  return cutout;
}

EditSession::EditSession(const cv::Mat& photo)
    : m_width(photo.cols),
      m_height(photo.rows),
      m_source(toArgb(photo)),
      m_preview(m_source),
      m_mask(m_source.size(), 255),
      m_brush(std::max(2, std::min(photo.cols, photo.rows) / 100)) {}

EditSession::~EditSession() { deinitSegmentation(); }

void EditSession::ensureEngine() {
  if (m_engine) return;
  setSourceImage(m_width, m_height, m_source.data());
  initSegmentationEngine(0);
  m_engine = true;
}

EditSession::Result EditSession::apply(const Edit& e) {
  if (e.kind == "brush") {
    m_brush = e.values[0];
    return Result::kDone;
  }
  const std::vector<unsigned char> oldMask = m_mask;
  const std::vector<unsigned int> oldPreview = m_preview;
  auto cancelled = [&] {
    m_mask = oldMask;
    m_preview = oldPreview;
    return Result::kCancelled;
  };
  if (e.kind == "rect") {
    std::vector<unsigned int> argb = m_source;
    std::fill(m_mask.begin(), m_mask.end(), kNoMask);
    doSegmentationBB(m_width, m_height, argb.data(), e.values[0], e.values[1], e.values[2],
                     e.values[3], m_mask.data());
    m_engine = true;
    if (m_mask[0] == kNoMask) return cancelled();
    // The rectangle's preview stays inside the engine: at the newest mask a
    // redo renders that same mask again.
    render(&redo);
    return Result::kDone;
  }
  ensureEngine();
  if (e.kind == "undo" || e.kind == "redo") {
    render(e.kind == "undo" ? &undo : &redo);
    return Result::kDone;
  }
  const std::vector<cv::Point> points = pointsOf(e);
  cv::Mat markers(m_height, m_width, CV_32S, cv::Scalar(kUnknown));
  int kind = kLoopAdd;
  if (e.kind == "loop" || e.kind == "cutloop") {
    kind = e.kind == "loop" ? kLoopAdd : kLoopRemove;
    cv::fillPoly(markers, std::vector<std::vector<cv::Point>>{points},
                 cv::Scalar(kind == kLoopAdd ? kObjectEst : kBackgroundEst));
  } else {
    kind = e.kind == "add" ? kStrokeAdd : kStrokeRemove;
    const cv::Scalar label(kind == kStrokeAdd ? kObject : kBackground);
    cv::polylines(markers, std::vector<std::vector<cv::Point>>{points}, false, label, 2 * m_brush + 1);
    for (const cv::Point& p : points) cv::circle(markers, p, m_brush, label, cv::FILLED);
  }
  std::vector<int> path(e.values);
  m_preview = m_source;
  std::fill(m_mask.begin(), m_mask.end(), kNoMask);
  setMarkerImage(m_width, m_height, markers.ptr<int>(), kind);
  setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
  if (processSegment(0, 0, 0, m_preview.data(), m_mask.data()) != 0) {
    m_engine = false;
    cancelled();
    return Result::kEngineGone;
  }
  return m_mask[0] == kNoMask ? cancelled() : Result::kDone;
}

void EditSession::restoreHistory(const std::vector<std::vector<unsigned char>>& masks, int position) {
  ensureEngine();
  resetSegmentationInterface();
  // Marks that cover every pixel become the mask itself, recorded in the
  // history without a segmentation.
  std::vector<int> markers(m_source.size());
  for (const std::vector<unsigned char>& mask : masks) {
    for (size_t i = 0; i < markers.size(); ++i) markers[i] = mask[i] == 0 ? kObject : kBackground;
    setMarkerImage(m_width, m_height, markers.data(), kLoopAdd);
    cutOutImage(0, 0, 0, nullptr, nullptr);
  }
  const int steps = static_cast<int>(masks.size()) - std::max(0, position);
  if (masks.empty()) {
    m_preview = m_source;
    std::fill(m_mask.begin(), m_mask.end(), 255);
    return;
  }
  if (steps <= 0) render(&redo);
  for (int i = 0; i < steps; ++i) render(&undo);
}

// Shows the history step on a fresh copy of the photo. A step back to before
// the first edit leaves the mask buffer alone: it is reset to "no object"
// first so the output matches the empty state.
void EditSession::render(void (*step)(unsigned int*, unsigned char*)) {
  m_preview = m_source;
  std::fill(m_mask.begin(), m_mask.end(), 255);
  step(m_preview.data(), m_mask.data());
}
