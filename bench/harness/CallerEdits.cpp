#include "harness/CallerEdits.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "common/PhotoSet.h"
#include "engine/SegmentationCore.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// Labels of the caller's marker image and the kinds setMarkerImage takes.
constexpr int kUnknown = 0, kBackground = 1, kObject = 2, kObjectEst = 4;
constexpr int kLoopAddKind = 0, kStrokeAddKind = 2, kStrokeRemoveKind = 3;

// The deepest pixel of a non-empty 8-bit region and its distance to the
// region's edge; (-1, -1) when the region is empty.
cv::Point deepestPoint(const cv::Mat& region, double* depth) {
  cv::Mat dist;
  cv::distanceTransform(region, dist, cv::DIST_L2, cv::DIST_MASK_PRECISE);
  cv::Point at(-1, -1);
  cv::minMaxLoc(dist, nullptr, depth, nullptr, &at);
  return *depth > 0 ? at : cv::Point(-1, -1);
}

// The first pixel in row order of the leftmost column holding any;
// (-1, -1) for an empty region.
cv::Point leftmostPoint(const cv::Mat& region) {
  cv::Mat columns;
  cv::reduce(region, columns, 0, cv::REDUCE_MAX);
  for (int x = 0; x < region.cols; ++x) {
    if (columns.at<uint8_t>(0, x) == 0) continue;
    for (int y = 0; y < region.rows; ++y)
      if (region.at<uint8_t>(y, x) != 0) return {x, y};
  }
  return {-1, -1};
}

// Three points along a row through `centre`, half-length `reach`.
std::vector<cv::Point> rowStroke(cv::Point centre, int reach) {
  return {centre - cv::Point(reach, 0), centre, centre + cv::Point(reach, 0)};
}

// The factor by which the engine reduces a source to its working image.
double workingScale(int width, int height) {
  const double s = std::sqrt(static_cast<double>(width) * height / 76800.0);
  return s > 1.0 ? s : 1.0;
}

}  // namespace

const char* editName(EditKind kind) {
  switch (kind) {
    case EditKind::kRectangle: return "rect";
    case EditKind::kStrokeAdd: return "add";
    case EditKind::kStrokeRemove: return "remove";
    case EditKind::kLoopAdd: return "loop";
  }
  return "?";
}

EditPlan planEdits(const cv::Mat& truth, const Box& box, const cv::Mat& result) {
  EditPlan plan;
  plan.box = box;
  const int shorter = std::min(truth.cols, truth.rows);
  plan.brush = std::max(2, shorter / 50);
  const int longest = shorter / 20;  // half of 10 % of the shorter side
  const cv::Mat object = truth > 127;
  const cv::Mat taken = result.empty() ? cv::Mat::zeros(truth.size(), CV_8U) : result > 127;
  // The deepest point of a region, when twice the brush fits in it (a
  // thinner sliver is not worth an edit).
  auto fitting = [&](const cv::Mat& region, double* depth) {
    const cv::Point at = deepestPoint(region, depth);
    return at.x >= 0 && *depth >= 2 * plan.brush + 2 ? at : cv::Point(-1, -1);
  };
  auto stroke = [&](cv::Point centre, double depth) {
    return rowStroke(centre, std::min(longest, std::max(0, static_cast<int>(depth) / 2 - plan.brush)));
  };

  // 1. The background left as background inside the box (else anywhere).
  const cv::Mat kept = ~object & ~taken;
  const cv::Rect inBox = cv::Rect(cv::Point(box.x1, box.y1), cv::Point(box.x2 + 1, box.y2 + 1)) &
                         cv::Rect(0, 0, truth.cols, truth.rows);
  cv::Mat boxBackground = cv::Mat::zeros(truth.size(), CV_8U);
  kept(inBox).copyTo(boxBackground(inBox));
  double backgroundDepth = 0;
  cv::Point background = deepestPoint(boxBackground, &backgroundDepth);
  if (background.x < 0) background = deepestPoint(kept, &backgroundDepth);

  // 2. Add: over the missed object, else over that background.
  double missedDepth = 0;
  const cv::Point missed = fitting(object & ~taken, &missedDepth);
  if (missed.x >= 0) plan.addStroke = stroke(missed, missedDepth);
  else if (background.x >= 0) plan.addStroke = stroke(background, backgroundDepth);
  else plan.addStroke = {cv::Point(truth.cols / 2, truth.rows / 2)};  // all taken: a dab

  // 3. Remove: over the background taken, else over the object taken.
  double depth = 0;
  cv::Point at = fitting(taken & ~object, &depth);
  if (at.x < 0) at = deepestPoint(object & taken, &depth);
  if (at.x >= 0) plan.removeStroke = stroke(at, depth);
  else plan.removeStroke = {cv::Point(truth.cols / 2, truth.rows / 2)};  // nothing taken: a dab

  // 4. Loop: a 16-gon around the missed object, else across the outline
  // at its leftmost point; clamped into the photo.
  at = missed.x >= 0 ? missed : leftmostPoint(object);
  if (at.x < 0) at = cv::Point(truth.cols / 2, truth.rows / 2);
  {
    const double radius = 0.04 * shorter;
    for (int k = 0; k < 16; ++k) {
      const double angle = 2 * M_PI * k / 16;
      const int x = static_cast<int>(std::lround(at.x + radius * std::cos(angle)));
      const int y = static_cast<int>(std::lround(at.y + radius * std::sin(angle)));
      plan.loop.emplace_back(std::clamp(x, 0, truth.cols - 1), std::clamp(y, 0, truth.rows - 1));
    }
  }
  return plan;
}

CallerSession::CallerSession(const cv::Mat& bgr)
    : m_width(bgr.cols),
      m_height(bgr.rows),
      m_source(toArgb(bgr)),
      m_preview(m_source),
      m_mask(m_source.size(), 255) {}

CallerSession::~CallerSession() { deinitSegmentation(); }

double CallerSession::run(EditKind kind, const EditPlan& plan) {
  prepare(kind, plan);
  return request(kind, plan);
}

void CallerSession::prepare(EditKind kind, const EditPlan& plan) {
  std::copy(m_source.begin(), m_source.end(), m_preview.begin());
  if (kind == EditKind::kRectangle) {
    m_markers.release();
    return;
  }
  const std::vector<cv::Point>& points =
      kind == EditKind::kStrokeAdd ? plan.addStroke : kind == EditKind::kStrokeRemove ? plan.removeStroke : plan.loop;
  m_markers.create(m_height, m_width, CV_32S);
  m_markers.setTo(kUnknown);
  if (kind == EditKind::kLoopAdd) {
    cv::fillPoly(m_markers, std::vector<std::vector<cv::Point>>{points}, cv::Scalar(kObjectEst));
  } else {
    const cv::Scalar label(kind == EditKind::kStrokeAdd ? kObject : kBackground);
    cv::polylines(m_markers, std::vector<std::vector<cv::Point>>{points}, false, label, 2 * plan.brush + 1);
    for (const cv::Point& p : points) cv::circle(m_markers, p, plan.brush, label, cv::FILLED);
  }
  m_path.clear();
  for (const cv::Point& p : points) m_path.insert(m_path.end(), {p.x, p.y});
}

double CallerSession::request(EditKind kind, const EditPlan& plan) {
  const Clock::time_point t0 = Clock::now();
  if (kind == EditKind::kRectangle) {
    const Box& b = plan.box;
    doSegmentationBB(m_width, m_height, m_source.data(), b.x1, b.y1, b.x2, b.y2, m_mask.data());
    return msSince(t0);
  }
  const int engineKind =
      kind == EditKind::kStrokeAdd ? kStrokeAddKind : kind == EditKind::kStrokeRemove ? kStrokeRemoveKind : kLoopAddKind;
  setMarkerImage(m_width, m_height, m_markers.ptr<int>(), engineKind);
  setCurrentMarkerVector(static_cast<int>(m_path.size()), m_path.data());
  processSegment(0, 0, 0, m_preview.data(), m_mask.data());
  return msSince(t0);
}

cv::Mat CallerSession::objectMask() const {
  const cv::Mat engine(m_height, m_width, CV_8U, const_cast<uint8_t*>(m_mask.data()));
  return engine == 0;
}

uint64_t CallerSession::maskHash() const {
  uint64_t h = 14695981039346656037ull;
  for (uint8_t b : m_mask) h = (h ^ b) * 1099511628211ull;
  return h;
}

cv::Mat grabCutObject(const cv::Mat& bgr, const cv::Rect& rect) {
  cv::Mat gc, bgdModel, fgdModel;
  cv::grabCut(bgr, gc, rect, bgdModel, fgdModel, 5, cv::GC_INIT_WITH_RECT);
  return (gc == cv::GC_FGD) | (gc == cv::GC_PR_FGD);
}

cv::Mat grabCutAtWorkingSize(const cv::Mat& bgr, const Box& box, double* ms) {
  const Clock::time_point t0 = Clock::now();
  const double f = workingScale(bgr.cols, bgr.rows);
  cv::Mat small = bgr;
  if (f > 1.0)
    cv::resize(bgr, small, cv::Size(static_cast<int>(bgr.cols / f), static_cast<int>(bgr.rows / f)), 0, 0,
               cv::INTER_LINEAR);
  cv::Rect rect(cv::Point(static_cast<int>(box.x1 / f), static_cast<int>(box.y1 / f)),
                cv::Point(static_cast<int>(box.x2 / f) + 1, static_cast<int>(box.y2 / f) + 1));
  rect &= cv::Rect(0, 0, small.cols, small.rows);
  cv::Mat object = grabCutObject(small, rect);
  if (small.size() != bgr.size()) cv::resize(object, object, bgr.size(), 0, 0, cv::INTER_NEAREST);
  *ms = msSince(t0);
  return object;
}
