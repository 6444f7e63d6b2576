// End-to-end comparison on the evaluation photos, all in one run so that the
// time ratios share one machine state:
//   engine     this engine from the photo's rectangle (doSegmentationBB)
//   gc-full    cv::grabCut from the same rectangle, 5 iterations, full size
//   gc-small   cv::grabCut on the image reduced like the engine's working
//              image (at most 76800 pixels), mask enlarged back (nearest)
// Per photo and on average: error (misclassified share of pixels), IoU and
// wall-clock time, and the engine's time over each peer's.
// Then one cut on a photo enlarged to 4032x3024 (12 megapixels): the edit's
// time and the process's peak resident memory (getrusage ru_maxrss).
//
//   compare_grabcut [--skip-large]
#include <opencv2/imgproc.hpp>

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/PhotoSet.h"
#include "harness/CallerEdits.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

struct Score {
  double error = 0, iou = 0, ms = 0;
};

Score score(const cv::Mat& object, const cv::Mat& truth, double ms) {
  return {errorRate(object, truth), intersectionOverUnion(object, truth), ms};
}

// The engine from the rectangle; returns the object mask (255 = object).
cv::Mat runEngine(const cv::Mat& bgr, int x1, int y1, int x2, int y2, double* ms) {
  CallerSession session(bgr);
  EditPlan plan;
  plan.box = {x1, y1, x2, y2};
  *ms = session.run(EditKind::kRectangle, plan);
  return session.objectMask();
}

cv::Mat runGrabCutFull(const cv::Mat& bgr, int x1, int y1, int x2, int y2, double* ms) {
  const Clock::time_point t0 = Clock::now();
  cv::Mat object = grabCutObject(bgr, cv::Rect(cv::Point(x1, y1), cv::Point(x2 + 1, y2 + 1)));
  *ms = msSince(t0);
  return object;
}

long peakRssKb() {
  rusage usage;
  std::memset(&usage, 0, sizeof usage);
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;  // kilobytes on Linux
}

}  // namespace

int main(int argc, char** argv) {
  const bool skipLarge = argc > 1 && std::strcmp(argv[1], "--skip-large") == 0;
  if (!photoSetAvailable()) {
    std::printf("photo set not found under %s\n", photoSetDir().c_str());
    return 0;
  }

  std::printf("%-10s %9s | %7s %6s %8s | %7s %6s %8s | %7s %6s %8s | %7s %7s\n", "photo", "size",
              "err%", "IoU%", "ms", "err%", "IoU%", "ms", "err%", "IoU%", "ms", "e/full", "e/small");
  std::printf("%-10s %9s | %-23s | %-23s | %-23s |\n", "", "", "engine", "grabCut full size",
              "grabCut working size");
  Score sum[3];
  int count = 0;
  for (const std::string& name : photoNames()) {
    const Photo p = loadPhoto(name);
    if (p.image.empty() || p.truth.empty()) continue;
    Score s[3];
    double ms = 0;
    cv::Mat object = runEngine(p.image, p.x1, p.y1, p.x2, p.y2, &ms);
    s[0] = score(object, p.truth, ms);
    object = runGrabCutFull(p.image, p.x1, p.y1, p.x2, p.y2, &ms);
    s[1] = score(object, p.truth, ms);
    object = grabCutAtWorkingSize(p.image, {p.x1, p.y1, p.x2, p.y2}, &ms);
    s[2] = score(object, p.truth, ms);
    char size[32];
    std::snprintf(size, sizeof size, "%dx%d", p.image.cols, p.image.rows);
    std::printf("%-10s %9s |", name.c_str(), size);
    for (int k = 0; k < 3; ++k) {
      std::printf(" %7.2f %6.2f %8.1f |", 100 * s[k].error, 100 * s[k].iou, s[k].ms);
      sum[k].error += s[k].error;
      sum[k].iou += s[k].iou;
      sum[k].ms += s[k].ms;
    }
    std::printf(" %7.3f %7.3f\n", s[0].ms / s[1].ms, s[0].ms / s[2].ms);
    std::fflush(stdout);
    ++count;
  }
  if (count == 0) return 0;
  std::printf("%-10s %9s |", "mean", "");
  for (int k = 0; k < 3; ++k)
    std::printf(" %7.2f %6.2f %8.1f |", 100 * sum[k].error / count, 100 * sum[k].iou / count,
                sum[k].ms / count);
  std::printf(" %7.3f %7.3f\n", sum[0].ms / sum[1].ms, sum[0].ms / sum[2].ms);
  std::printf("(time ratios of the means: engine time / peer time)\n");

  if (skipLarge) return 0;
  // One 12-megapixel cut: the teddy photo enlarged to 4032x3024.
  const Photo p = loadPhoto("teddy");
  if (p.image.empty()) return 0;
  const cv::Size big(4032, 3024);
  cv::Mat image, truth;
  cv::resize(p.image, image, big, 0, 0, cv::INTER_CUBIC);
  cv::resize(p.truth, truth, big, 0, 0, cv::INTER_NEAREST);
  const double fx = static_cast<double>(big.width) / p.image.cols;
  const double fy = static_cast<double>(big.height) / p.image.rows;
  const long before = peakRssKb();
  double ms = 0;
  const cv::Mat object = runEngine(image, static_cast<int>(p.x1 * fx), static_cast<int>(p.y1 * fy),
                                   static_cast<int>(p.x2 * fx), static_cast<int>(p.y2 * fy), &ms);
  const Score s = score(object, truth, ms);
  std::printf("\n12 MP (teddy enlarged to %dx%d): edit %.1f ms, error %.2f %%, IoU %.2f %%\n",
              big.width, big.height, s.ms, 100 * s.error, 100 * s.iou);
  std::printf("peak memory (ru_maxrss): %.1f MB before the 12 MP cut, %.1f MB after\n", before / 1024.0,
              peakRssKb() / 1024.0);
  return 0;
}
