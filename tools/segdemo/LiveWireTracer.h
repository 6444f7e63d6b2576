// Live-wire paths for the page: the cheapest path from a seed to the pointer
// along the photo's edges, from the library's live-wire search. The search
// runs on the photo reduced to about 0.25 megapixels and is kept for the
// last seed, so that following the pointer costs one walk up the parents.
#pragma once

#include <opencv2/core.hpp>

#include <mutex>
#include <vector>

class LiveWireTracer {
 public:
  // The path in photo pixels, from `seed` to `to` (both inside the photo,
  // which `photoId` names). A straight line where no path is found.
  // Thread-safe; one search at a time.
  std::vector<cv::Point> trace(long photoId, const cv::Mat& photo, cv::Point seed, cv::Point to);

 private:
  std::mutex m_lock;
  long m_photoId = -1;
  cv::Mat m_image;  // the reduced photo
  double m_scale = 1.0;
  cv::Point m_seed{-1, -1};  // in the reduced photo
  std::vector<int> m_parents;
};
