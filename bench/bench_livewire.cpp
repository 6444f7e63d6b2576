// The live-wire search (find_parent_info) from the centre of a photo at
// 320x240 and at about one megapixel (1152x864), with the photo's truth
// marked as object (2) inside and background (1) in a band around it, so
// blocked steps occur as they do in use. Falls back to a synthetic image
// when the photo set is absent.
#include <benchmark/benchmark.h>
#include <opencv2/core/core_c.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "common/PhotoSet.h"
#include "livewire/LiveWire.h"

namespace {

struct Input {
  cv::Mat colour;  // 8-bit BGR
  cv::Mat labels;  // 8-bit labels
};

Input makeInput(int width, int height) {
  Input in;
  cv::Mat truth;
  const std::vector<std::string> names =
      photoSetAvailable() ? photoNames() : std::vector<std::string>{};
  if (!names.empty()) {
    const Photo photo = loadPhoto(names.front());
    cv::resize(photo.image, in.colour, cv::Size(width, height), 0, 0, cv::INTER_AREA);
    cv::resize(photo.truth, truth, cv::Size(width, height), 0, 0, cv::INTER_NEAREST);
  } else {
    in.colour.create(height, width, CV_8UC3);
    cv::randu(in.colour, cv::Scalar::all(0), cv::Scalar::all(256));
    cv::GaussianBlur(in.colour, in.colour, cv::Size(9, 9), 3);
    truth = cv::Mat::zeros(height, width, CV_8UC1);
    cv::ellipse(truth, cv::Point(width / 2, height / 2), cv::Size(width / 4, height / 3), 0, 0, 360,
                cv::Scalar(255), -1);
  }
  // Object marks well inside the object, background marks well outside it.
  cv::Mat inner, outer;
  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(15, 15));
  cv::erode(truth, inner, kernel);
  cv::dilate(truth, outer, kernel);
  in.labels = cv::Mat::zeros(height, width, CV_8UC1);
  in.labels.setTo(1, outer == 0);
  in.labels.setTo(2, inner != 0);
  return in;
}

void BM_FindParentInfo(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(1));
  Input in = makeInput(width, height);
  IplImage colour = cvIplImage(in.colour);
  IplImage labels = cvIplImage(in.labels);
  for (auto _ : state) {
    std::vector<int> parents = find_parent_info(&colour, &labels, height / 2, width / 2, 0.5);
    benchmark::DoNotOptimize(parents.data());
  }
  state.SetItemsProcessed(state.iterations() * int64_t{width} * height);
  state.counters["pixels"] = static_cast<double>(width) * height;
  state.counters["record_bytes"] = sizeof(Node_);
}
BENCHMARK(BM_FindParentInfo)->Args({320, 240})->Args({1152, 864})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
