#include "engine/ZIRKSEMarker.h"

#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <unordered_set>

#include "support/ZIRKTimer.h"

IplImage* ZIRKSEMarker::m_srcImage = nullptr;
IplImage* ZIRKSEMarker::m_labelImage = nullptr;
IplImage* ZIRKSEMarker::m_originalImage = nullptr;
IplImage* ZIRKSEMarker::m_prevResult = nullptr;
IplImage* ZIRKSEMarker::m_texHor = nullptr;
IplImage* ZIRKSEMarker::m_texVer = nullptr;
strokeInfo ZIRKSEMarker::currentStroke;
int32_t ZIRKSEMarker::m_xMinBBox = 0;
int32_t ZIRKSEMarker::m_xMaxBBox = 0;
int32_t ZIRKSEMarker::m_yMinBBox = 0;
int32_t ZIRKSEMarker::m_yMaxBBox = 0;
int32_t ZIRKSEMarker::m_originalWidth = 0;
int32_t ZIRKSEMarker::m_originalHeight = 0;
int32_t ZIRKSEMarker::m_width = 0;
int32_t ZIRKSEMarker::m_height = 0;
bool ZIRKSEMarker::m_isGreyScale = false;
bool ZIRKSEMarker::m_isHomogenous = false;
std::atomic<bool> ZIRKSEMarker::m_exitApp{false};
double ZIRKSEMarker::m_noiseLevel = 0.0;

void ZIRKSEMarker::allocator() {}

void ZIRKSEMarker::initializer() {
  m_labelImage = nullptr;
  m_exitApp = false;
  m_noiseLevel = 0.1;
  m_isHomogenous = false;
}

void ZIRKSEMarker::resetMarkers() {
  ZIRK_ReleaseImage(&m_labelImage);
  ZIRK_ReleaseImage(&m_prevResult);
  currentStroke.points.clear();
  m_exitApp = false;
  m_noiseLevel = 0.1;
  m_isHomogenous = false;
}

void ZIRKSEMarker::dellocator() {
  ZIRK_ReleaseImage(&m_srcImage);
  ZIRK_ReleaseImage(&m_labelImage);
  ZIRK_ReleaseImage(&m_originalImage);
  ZIRK_ReleaseImage(&m_prevResult);
  ZIRK_ReleaseImage(&m_texHor);
  ZIRK_ReleaseImage(&m_texVer);
  currentStroke.points.clear();
}

bool ZIRK_shouldStopSegmentation() { return ZIRK_budgetSpent(g_cancelTimer) || ZIRKSEMarker::m_exitApp; }

namespace {

// A line's end as 32 bits of a key; only ends inside 0..65535 are keyed.
bool fitsKey(cv::Point p) { return p.x >= 0 && p.y >= 0 && p.x <= 0xFFFF && p.y <= 0xFFFF; }
uint64_t lineKey(cv::Point p) {
  return (static_cast<uint64_t>(p.x) << 16) | static_cast<uint64_t>(p.y);
}

}  // namespace

void ZIRK_clearDrawnPath(IplImage* labels, const std::vector<int32_t>& points, float factor) {
  if (points.size() < 3 || labels == nullptr) return;
  const size_t count = points.size() / 2;  // whole points only
  auto at = [&](size_t i) {
    return cv::Point(static_cast<int>(static_cast<float>(points[2 * i]) / factor),
                     static_cast<int>(static_cast<float>(points[2 * i + 1]) / factor));
  };
  cv::Mat view = cv::cvarrToMat(labels);  // one header for every line
  // A line between two points that land on the same pixel adds nothing: its
  // round ends are the ends of the lines next to it. Dense paths (many source
  // points per working pixel) are mostly such lines, so they are skipped; a
  // path that collapses into one pixel still gets that pixel's dot.
  bool drawn = false;
  // Long paths that go over the same pixels again (a zigzag, a million
  // scattered points) would cost in proportion to their lines' lengths.
  // Two skips leave out only lines that would write zeros over zeros: a
  // line drawn before between the same two pixels (remembered for the
  // first kRememberedLines lines), and every line once the whole image is
  // cleared (counted every kClearedCheckLines lines).
  constexpr size_t kRememberedLines = 65536;
  constexpr size_t kClearedCheckLines = 1024;
  std::unordered_set<uint64_t> remembered;
  size_t sinceCheck = 0;
  bool cleared = false;
  auto line = [&](cv::Point a, cv::Point b) {
    if (a == b || cleared) return;
    if (fitsKey(a) && fitsKey(b)) {
      const uint64_t key = (lineKey(a) << 32) | lineKey(b);
      if (remembered.count(key) != 0) return;
      if (remembered.size() < kRememberedLines) remembered.insert(key);
    }
    cv::line(view, a, b, cv::Scalar(0), 3, cv::LINE_8, 0);
    drawn = true;
    if (++sinceCheck == kClearedCheckLines) {
      sinceCheck = 0;
      cleared = view.channels() == 1 && cv::countNonZero(view) == 0;
    }
  };
  cv::Point previous = at(0);
  for (size_t i = 1; i < count; ++i) {
    const cv::Point next = at(i);
    line(previous, next);
    previous = next;
  }
  if (count >= 2) line(previous, at(0));
  if (!drawn && count >= 2) cv::line(view, at(0), at(0), cv::Scalar(0), 3, cv::LINE_8, 0);
}
