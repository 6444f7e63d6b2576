// Exported functions called wrongly, one row each: the exact number of
// "Error" lines naming the call, nothing written outside the caller's
// buffers, and when refused, the buffers and the history left alone.
#include <android/log.h>

#include <cfloat>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "livewire/LiveWire.h"
#include "robustness/RobustnessSupport.h"

namespace {

using namespace robustness;

constexpr int W = 16, H = 12;

// What exists when the call is made. kEngine: source, engine and one mask in
// the history; kMarked adds a marker image and a path; kTornDown is kEngine
// after deinitSegmentation; kStale: a marker image, then a wider source.
enum State { kNothing, kSource, kEngine, kMarked, kTornDown, kStale };

struct Row {
  State state;
  const char* prefix;  // every line the call gives starts with this, tag "Error"
  Call call;
  int lines = 1;
  bool writes = false;  // the call does its work (within the buffers)
};

class BadInput : public RobustnessTest {
 protected:
  Scene s{W, H};
  std::vector<int> marks = boxMarks(W, H, 3, 2, 12, 9);
  std::vector<int> path = {3, 2, 12, 2, 12, 9, 3, 9};

  void enter(State state) {
    deinitSegmentation();
    resetSegmentationInterface();
    if (state == kSource || state == kStale) setSourceImage(W, H, s.src.data());
    if (state == kStale) {
      setMarkerImage(W, H, marks.data(), 0);
      std::vector<unsigned int> wider(static_cast<size_t>(W + 1) * H, 0xFF808080u);
      setSourceImage(W + 1, H, wider.data());
    }
    if (state == kEngine || state == kMarked || state == kTornDown) s.start();
    if (state == kMarked) s.mark();
    if (state == kTornDown) deinitSegmentation();
  }

  void run(const std::vector<Row>& rows) {
    for (size_t i = 0; i < rows.size(); ++i) {
      const Row& row = rows[i];
      SCOPED_TRACE("row " + std::to_string(i) + ": " + row.prefix);
      enter(row.state);
      const HistorySnapshot before = HistorySnapshot::take();
      Guarded<unsigned int> argb(s.pixels(), 0x55555555u, 0xDEADBEEFu);
      Guarded<unsigned char> mask(s.pixels(), 66, 0xA5);
      {
        LogCapture log;
        row.call(argb.data(), mask.data());
        // Lines of work done are not counted; every warning or error is.
        EXPECT_EQ(std::count_if(log.lines().begin(), log.lines().end(),
                                [](const LogLine& l) { return l.priority >= ANDROID_LOG_WARN; }),
                  row.lines) << log.dump();
        EXPECT_EQ(log.countPrefix("Error", row.prefix), row.lines) << log.dump();
      }
      EXPECT_TRUE(argb.guardsIntact() && mask.guardsIntact());
      if (!row.writes) {
        EXPECT_EQ(argb.inner(), std::vector<unsigned int>(s.pixels(), 0x55555555u));
        EXPECT_EQ(mask.inner(), std::vector<unsigned char>(s.pixels(), 66));
        EXPECT_TRUE(HistorySnapshot::take() == before) << "the history moved";
      }
      EXPECT_EQ(g_resultMask, nullptr);
    }
  }
};

Call segment(int expected) {
  return [expected](auto a, auto m) { EXPECT_EQ(processSegment(0, 0, 0, a, m), expected); };
}
void cut(unsigned int* a, unsigned char* m) { cutOutImage(0, 0, 0, a, m); }

// Calls out of order, with null buffers or after teardown; sizes, counts,
// rectangles and points outside; malformed images for the live-wire calls
// (only a seed outside the image throws).
TEST_F(BadInput, CallsOutOfOrderBadSizesAndMalformedImages) {
  const char* const kGone = "MEMORY_CRASH : cutOutImage 197";
  // A tiny caller buffer: a refused size must never be read through.
  std::vector<unsigned int> tinyArgb(4, 0x12345678u);
  std::vector<int> tinyMarks(4, 2);
  std::unique_ptr<int[]> odd(new int[5]{7, 8, 200, 9, 60});  // exact block: no read past it
  std::vector<int> outside = {-3, 10, 150, 70, 5, 6};
  unsigned int* const t = tinyArgb.data();
  const char* const kNoSource = "MEMORY_CRASH : setSourceImage 115";
  const auto bb = [&](int x1, int y1, int x2, int y2) -> Call {
    return [&, x1, y1, x2, y2](auto, auto m) {
      EXPECT_EQ(doSegmentationBB(W, H, s.src.data(), x1, y1, x2, y2, m), 0);
      EXPECT_NE(pHybrid, nullptr) << "an engine, new or (when refused) the earlier one";
    };
  };
  cv::Mat image(5, 6, CV_8UC3, cv::Scalar(10, 20, 30)), labels(5, 6, CV_8U, cv::Scalar(1));
  cv::Mat otherLabels(5, 5, CV_8U), costMap(5, 6, CV_32F), smallMap(4, 6, CV_32F);
  IplImage im = cvIplImage(image), la = cvIplImage(labels), ol = cvIplImage(otherLabels);
  IplImage cm = cvIplImage(costMap), sm = cvIplImage(smallMap);
  Node_ node;
  std::memset(&node, 0x5A, sizeof(node));
  const Node_ untouched = node;
  int unused = 0;
  int* array = &unused;
  run({
      {kNothing, "initSegmentationEngine", [](auto, auto) { initSegmentationEngine(0); }},
      {kNothing, "copySourceImage", [](auto a, auto) { copySourceImage(a); }},
      {kNothing, "setMarkerImage", [&](auto, auto) { setMarkerImage(W, H, marks.data(), 0); }},
      {kNothing, "setCurrentMarkerVector", [&](auto, auto) { setCurrentMarkerVector(4, path.data()); }},
      {kNothing, kGone, cut},
      {kNothing, "undo", undo},
      {kSource, "processSegment", segment(-1)},
      {kEngine, "cutOutImage", cut},  // no marker image
      {kEngine, "loadMaskImageInfo", [](auto, auto k) { loadMaskImageInfo(k); }},
      {kEngine, "loadBlendedImageInfo", [](auto a, auto) { loadBlendedImageInfo(a); }},
      {kEngine, "initSegmentationEngine",
       [](auto, auto) {
         initSegmentationEngine(0);
         EXPECT_NE(pHybrid, nullptr) << "the engine is replaced";
       }},
      // Null buffers.
      {kNothing, "setSourceImage", [](auto, auto) { setSourceImage(W, H, nullptr); }},
      {kEngine, "copySourceImage", [](auto, auto) { copySourceImage(nullptr); }},
      {kEngine, "setMarkerImage", [](auto, auto) { setMarkerImage(W, H, nullptr, 0); }},
      {kEngine, "setCurrentMarkerVector", [](auto, auto) { setCurrentMarkerVector(6, nullptr); }},
      {kMarked, "processSegment", [](auto, auto k) { segment(0)(nullptr, k); }},
      {kEngine, "undo", [](auto, auto k) { undo(nullptr, k); }},
      {kEngine, "doSegmentationBB", [&](auto, auto) { doSegmentationBB(W, H, s.src.data(), 1, 1, 5, 5, nullptr); }},
      // Teardown drops the source with the engine and the history; releasing
      // what is already gone is not an error.
      {kTornDown, "processSegment", segment(-1)},
      {kTornDown, "undo", undo},
      {kTornDown, kGone, cut},
      {kTornDown, "copySourceImage", [](auto a, auto) { copySourceImage(a); }},
      {kTornDown, "",
       [](auto, auto) {
         deinitSegmentation(), freeLocalBuffers(), resetSegmentationInterface();
         EXPECT_FALSE(canUndo() || canRedo());
       },
       0},
      // Malformed live-wire images.
      {kNothing, "find_parent_info", [&](auto, auto) { EXPECT_TRUE(find_parent_info(&im, &ol, 0, 0, 0.5).empty()); }},
      {kNothing, "find_parent_info",
       [&](auto, auto) { EXPECT_TRUE(find_parent_info(&im, &la, 0, 0, 0.5, &sm).empty()); }},
      {kNothing, "find_weight", [&](auto, auto) { EXPECT_EQ(find_weight(&im, 0, 0, 5, 6, 0.5), DBL_MAX); }},
      {kNothing, "assign_index", [&](auto, auto) { assign_index(node, 65536, 65536, 0, 0, 0.0); }},
      {kNothing, "assign_weight", [&](auto, auto) { assign_weight(&im, &la, node, -1, 2, 0.5); }},
      {kNothing, "assign_weight", [&](auto, auto) { assign_weight(&im, &ol, node, 0, 0, 0.5); }},
      {kNothing, "fetch_path_array", [&](auto, auto) { EXPECT_EQ(fetch_path_array(&array, nullptr), nullptr); }},
      // Sizes, counts, rectangles, points outside.
      {kEngine, "doSegmentationBB: rectangle (12, 9)-(3, 2)", bb(12, 9, 3, 2), 1, true},  // inverted
      {kEngine, "doSegmentationBB: rectangle (-4, 2)-(12, 15)", bb(-4, 2, 12, H + 3), 1, true},
      {kEngine, "doSegmentationBB", bb(W + 5, 2, W, 0)},  // inverted and outside
      {kNothing, kNoSource, [=](auto, auto) { setSourceImage(0, H, t); }},
      {kEngine, "MEMORY_CRASH : setMarkerImage 1", [&](auto, auto) { setMarkerImage(0, H, tinyMarks.data(), 0); }, 2},
      {kSource, "setSourceImage", [=](auto, auto) { setSourceImage(100000, 100000, t); }},
      {kEngine, kNoSource, [=](auto, auto k) { doSegmentationBB(65536, 65536, t, 0, 0, 9, 9, k); }},
      {kEngine, "setMarkerImage", [&](auto, auto) { setMarkerImage(W - 1, H, marks.data(), 0); }},
      {kEngine, "setCurrentMarkerVector", [&](auto, auto) { setCurrentMarkerVector(-4, path.data()); }},
      {kEngine, "setCurrentMarkerVector", [&](auto, auto) { setCurrentMarkerVector(5, odd.get()); }},
      {kEngine, "setCurrentMarkerVector: 2 of 3 points clamped",
       [&](auto, auto) { setCurrentMarkerVector(6, outside.data()); }},
      {kEngine, "", [](auto, auto) { setCurrentMarkerVector(0, nullptr); }, 0},
      // A new source drops the marker image made for the old one.
      {kStale, "cutOutImage: no marker image", cut},
  });
  EXPECT_EQ(g_markerImage, nullptr);
  EXPECT_EQ(odd[4], 60);
  EXPECT_EQ(outside, (std::vector<int>{0, 10, W - 1, H - 1, 5, 6})) << "clamped and written back";
  EXPECT_EQ(std::memcmp(&node, &untouched, sizeof(node)), 0) << "refused calls leave the node";
  EXPECT_EQ(array, nullptr) << "fetch_path_array clears the array it refuses";

  LogCapture log;
  for (const auto& seed : {std::pair<int, int>{-1, 0}, {5, 0}, {0, 6}, {0, -1}})
    EXPECT_THROW(find_parent_info(&im, &la, seed.first, seed.second, 0.5, &cm), std::out_of_range);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
  EXPECT_EQ(find_parent_info(&im, &la, 2, 3, 0.5, &cm).size(), 30u);
}

}  // namespace
