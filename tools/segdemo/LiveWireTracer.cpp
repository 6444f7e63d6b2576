#include "segdemo/LiveWireTracer.h"

#include <opencv2/core/core_c.h>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

#include "livewire/LiveWire.h"

namespace {

constexpr double kSearchPixels = 250000.0;
// Weight of the step length against the colour difference.
constexpr double kAlpha = 0.2;

}  // namespace

std::vector<cv::Point> LiveWireTracer::trace(long photoId, const cv::Mat& photo, cv::Point seed, cv::Point to) {
  std::lock_guard<std::mutex> guard(m_lock);
  if (photoId != m_photoId) {
    m_photoId = photoId;
    m_scale = std::max(1.0, std::sqrt(static_cast<double>(photo.total()) / kSearchPixels));
    cv::resize(photo, m_image,
               cv::Size(std::max(1, static_cast<int>(photo.cols / m_scale)),
                        std::max(1, static_cast<int>(photo.rows / m_scale))),
               0, 0, cv::INTER_AREA);
    m_seed = cv::Point(-1, -1);
  }
  auto reduced = [&](cv::Point p) {
    return cv::Point(std::min(m_image.cols - 1, static_cast<int>(p.x / m_scale)),
                     std::min(m_image.rows - 1, static_cast<int>(p.y / m_scale)));
  };
  const cv::Point a = reduced(seed), b = reduced(to);
  if (a != m_seed) {
    // No labels: no step is blocked.
    cv::Mat labels(m_image.size(), CV_8U, cv::Scalar(0));
    IplImage image = cvIplImage(m_image), labelImage = cvIplImage(labels);
    m_parents = find_parent_info(&image, &labelImage, a.y, a.x, kAlpha);
    m_seed = a;
  }
  // Walk from the target up to the seed (bounded by the pixel count).
  std::vector<cv::Point> reversed;
  const size_t pixels = m_parents.size();
  int at = b.y * m_image.cols + b.x;
  for (size_t n = 0; at >= 0 && static_cast<size_t>(at) < pixels && n <= pixels; ++n) {
    reversed.emplace_back(at % m_image.cols, at / m_image.cols);
    const int parent = m_parents[static_cast<size_t>(at)];
    if (parent == at) break;
    at = parent;
  }
  if (reversed.empty() || reversed.back() != a) reversed = {b, a};
  // Back to photo pixels (the centre of each reduced pixel), seed first.
  std::vector<cv::Point> path{seed};
  for (auto it = reversed.rbegin() + 1; it != reversed.rend(); ++it)
    path.emplace_back(std::min(photo.cols - 1, static_cast<int>((it->x + 0.5) * m_scale)),
                      std::min(photo.rows - 1, static_cast<int>((it->y + 0.5) * m_scale)));
  if (path.size() > 1) path.back() = to;
  else if (to != seed) path.push_back(to);
  return path;
}
