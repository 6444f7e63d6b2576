// Every way a caller can call the exported functions wrongly, one row each:
// the call is answered with the exact number of log lines (tag "Error",
// naming the call), nothing outside the caller's declared buffers is
// written, the buffers themselves are left alone where the call is refused,
// and the mask history is kept. Leaks show up in the sanitizer build.
#include <android/log.h>

#include <cfloat>
#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "common/LogCapture.h"
#include "livewire/LiveWire.h"
#include "robustness/RobustnessSupport.h"

namespace {

using robustness::Guarded;
using robustness::HistorySnapshot;
using robustness::RobustnessTest;

constexpr int W = 16, H = 12;
constexpr unsigned int kArgbFill = 0x55555555u, kArgbGuard = 0xDEADBEEFu;
constexpr unsigned char kMaskFill = 66, kMaskGuard = 0xA5;

// What exists when the call is made.
enum class State {
  kNothing,     // no source, no engine
  kSource,      // a source image only
  kEngine,      // source, engine and one mask in the history
  kMarked,      // kEngine plus a marker image and a path
  kTornDown,    // kEngine, then deinitSegmentation
};

// What the call may do to the caller's buffers.
enum class Buffers {
  kUntouched,   // refused: argb and mask as the caller left them
  kWritten,     // the call did its work (within the buffers)
};

struct Row {
  const char* group;
  State state;
  std::function<void(unsigned int* argb, unsigned char* mask)> call;
  int lines;           // log lines the call gives, all of them tag "Error"
  const char* prefix;  // each line starts with this
  Buffers buffers;
};

class BadInput : public RobustnessTest {
 protected:
  std::vector<unsigned int> src = robustness::discScene(W, H);
  std::vector<int> marks = robustness::boxMarks(W, H, 3, 2, 12, 9);
  std::vector<int> objectMarks = robustness::boxMarks(W, H, 5, 4, 9, 7, 2);
  std::vector<int> path = {3, 2, 12, 2, 12, 9, 3, 9};

  void enter(State state) {
    deinitSegmentation();
    resetSegmentationInterface();
    if (state == State::kNothing) return;
    setSourceImage(W, H, src.data());
    if (state == State::kSource) return;
    initSegmentationEngine(0);
    setMarkerImage(W, H, objectMarks.data(), 0);
    std::vector<unsigned int> argb(src.size());
    std::vector<unsigned char> mask(src.size());
    cutOutImage(0, 0, 0, argb.data(), mask.data());
    if (state == State::kMarked) {
      setMarkerImage(W, H, marks.data(), 0);
      setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
    }
    if (state == State::kTornDown) deinitSegmentation();
  }

  void run(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      SCOPED_TRACE(std::string(row.group) + ": " + row.prefix);
      enter(row.state);
      const HistorySnapshot before = HistorySnapshot::take();
      Guarded<unsigned int> argb(src.size(), kArgbFill, kArgbGuard);
      Guarded<unsigned char> mask(src.size(), kMaskFill, kMaskGuard);
      {
        LogCapture log;
        row.call(argb.data(), mask.data());
        // Informational lines of work done are not counted; every warning
        // or error is.
        int errors = 0;
        for (const LogLine& line : log.lines()) {
          if (line.priority < ANDROID_LOG_WARN) continue;
          ++errors;
          EXPECT_EQ(line.priority, ANDROID_LOG_ERROR) << line.text;
        }
        EXPECT_EQ(errors, row.lines) << log.dump();
        EXPECT_EQ(log.countPrefix("Error", row.prefix), row.lines) << log.dump();
      }
      EXPECT_TRUE(argb.guardsIntact());
      EXPECT_TRUE(mask.guardsIntact());
      if (row.buffers == Buffers::kUntouched) {
        EXPECT_EQ(argb.inner(), std::vector<unsigned int>(src.size(), kArgbFill));
        EXPECT_EQ(mask.inner(), std::vector<unsigned char>(src.size(), kMaskFill));
        EXPECT_TRUE(HistorySnapshot::take() == before) << "the history moved";
      }
      EXPECT_EQ(g_resultMask, nullptr);
    }
  }
};

TEST_F(BadInput, CallsOutOfOrder) {
  run({
      {"no source", State::kNothing, [](auto, auto) { initSegmentationEngine(0); }, 1,
       "initSegmentationEngine", Buffers::kUntouched},
      {"no source", State::kNothing, [](auto argb, auto) { copySourceImage(argb); }, 1,
       "copySourceImage", Buffers::kUntouched},
      {"no source", State::kNothing,
       [&](auto, auto) { setMarkerImage(W, H, marks.data(), 0); }, 1, "setMarkerImage",
       Buffers::kUntouched},
      {"no source", State::kNothing,
       [&](auto, auto) { setCurrentMarkerVector(4, path.data()); }, 1, "setCurrentMarkerVector",
       Buffers::kUntouched},
      {"no source", State::kNothing, [](auto argb, auto mask) { cutOutImage(0, 0, 0, argb, mask); },
       1, "MEMORY_CRASH : cutOutImage 197", Buffers::kUntouched},
      {"no source", State::kNothing, [](auto argb, auto mask) { undo(argb, mask); }, 1, "undo",
       Buffers::kUntouched},
      {"no source", State::kNothing, [](auto argb, auto mask) { redo(argb, mask); }, 1, "redo",
       Buffers::kUntouched},
      {"no engine", State::kSource,
       [](auto argb, auto mask) { EXPECT_EQ(processSegment(0, 0, 0, argb, mask), -1); }, 1,
       "processSegment", Buffers::kUntouched},
      {"no marker image", State::kEngine,
       [](auto argb, auto mask) { cutOutImage(0, 0, 0, argb, mask); }, 1, "cutOutImage",
       Buffers::kUntouched},
      {"no result mask", State::kEngine, [](auto, auto mask) { loadMaskImageInfo(mask); }, 1,
       "loadMaskImageInfo", Buffers::kUntouched},
      {"no result mask", State::kEngine, [](auto argb, auto) { loadBlendedImageInfo(argb); }, 1,
       "loadBlendedImageInfo", Buffers::kUntouched},
      {"engine exists", State::kEngine, [](auto, auto) { initSegmentationEngine(0); }, 1,
       "initSegmentationEngine", Buffers::kUntouched},
  });
  EXPECT_NE(pHybrid, nullptr) << "a second initSegmentationEngine replaces the engine";
}

TEST_F(BadInput, NullBuffers) {
  run({
      {"null", State::kNothing, [](auto, auto) { setSourceImage(W, H, nullptr); }, 1,
       "setSourceImage", Buffers::kUntouched},
      {"null", State::kEngine, [](auto, auto) { copySourceImage(nullptr); }, 1, "copySourceImage",
       Buffers::kUntouched},
      {"null", State::kEngine, [](auto, auto) { setMarkerImage(W, H, nullptr, 0); }, 1,
       "setMarkerImage", Buffers::kUntouched},
      {"null", State::kEngine, [](auto, auto) { setCurrentMarkerVector(6, nullptr); }, 1,
       "setCurrentMarkerVector", Buffers::kUntouched},
      {"null", State::kMarked,
       [](auto, auto mask) { EXPECT_EQ(processSegment(0, 0, 0, nullptr, mask), 0); }, 1,
       "processSegment", Buffers::kUntouched},
      {"null", State::kMarked,
       [](auto argb, auto) { EXPECT_EQ(processSegment(0, 0, 0, argb, nullptr), 0); }, 1,
       "processSegment", Buffers::kUntouched},
      {"null", State::kEngine, [](auto, auto mask) { undo(nullptr, mask); }, 1, "undo",
       Buffers::kUntouched},
      {"null", State::kEngine, [](auto argb, auto) { redo(argb, nullptr); }, 1, "redo",
       Buffers::kUntouched},
      {"null", State::kEngine,
       [&](auto, auto) { doSegmentationBB(W, H, src.data(), 1, 1, 5, 5, nullptr); }, 1,
       "doSegmentationBB", Buffers::kUntouched},
      {"null", State::kEngine,
       [](auto, auto mask) { doSegmentationBB(W, H, nullptr, 1, 1, 5, 5, mask); }, 1,
       "doSegmentationBB", Buffers::kUntouched},
      {"null", State::kEngine, [](auto, auto) { loadMaskImageInfo(nullptr); }, 1,
       "loadMaskImageInfo", Buffers::kUntouched},
      {"null", State::kEngine, [](auto, auto) { loadBlendedImageInfo(nullptr); }, 1,
       "loadBlendedImageInfo", Buffers::kUntouched},
  });
}

TEST_F(BadInput, SizesBelowOneAndTooLarge) {
  // A tiny caller buffer: a refused size must never be read through.
  std::vector<unsigned int> tiny(4, 0x12345678u);
  std::vector<int> tinyMarks(4, 2);
  run({
      {"below 1", State::kNothing, [&](auto, auto) { setSourceImage(0, H, tiny.data()); }, 1,
       "MEMORY_CRASH : setSourceImage 115", Buffers::kUntouched},
      {"below 1", State::kSource, [&](auto, auto) { setSourceImage(W, -1, tiny.data()); }, 1,
       "MEMORY_CRASH : setSourceImage 115", Buffers::kUntouched},
      {"below 1", State::kEngine, [&](auto, auto) { setMarkerImage(0, H, tinyMarks.data(), 0); },
       2, "MEMORY_CRASH : setMarkerImage 1", Buffers::kUntouched},
      {"below 1", State::kEngine,
       [&](auto, auto mask) { doSegmentationBB(W, 0, tiny.data(), 0, 0, 1, 1, mask); }, 1,
       "MEMORY_CRASH : setSourceImage 115", Buffers::kUntouched},
      {"too large", State::kSource,
       [&](auto, auto) { setSourceImage(100000, 100000, tiny.data()); }, 1, "setSourceImage",
       Buffers::kUntouched},
      {"too large", State::kSource,
       [&](auto, auto) { setSourceImage(INT_MAX, 2, tiny.data()); }, 1, "setSourceImage",
       Buffers::kUntouched},
      {"too large", State::kEngine,
       [&](auto, auto mask) { doSegmentationBB(65536, 65536, tiny.data(), 0, 0, 9, 9, mask); }, 1,
       "MEMORY_CRASH : setSourceImage 115", Buffers::kUntouched},
  });
  // The refused sources left the engine's source as it was.
  std::vector<unsigned int> back(src.size());
  copySourceImage(back.data());
  EXPECT_EQ(back, src);
}

TEST_F(BadInput, MarkerImageOfAnotherSize) {
  run({
      {"marker size", State::kEngine,
       [&](auto, auto) { setMarkerImage(W - 1, H, marks.data(), 0); }, 1, "setMarkerImage",
       Buffers::kUntouched},
      {"marker size", State::kEngine,
       [&](auto, auto) { setMarkerImage(W, H + 1, marks.data(), 0); }, 1, "setMarkerImage",
       Buffers::kUntouched},
  });
  EXPECT_EQ(g_markerImage, nullptr);

  // A marker image left from another source: refused by the request.
  enter(State::kSource);
  setMarkerImage(W, H, marks.data(), 0);
  std::vector<unsigned int> wider(static_cast<size_t>(W + 1) * H, 0xFF808080u);
  setSourceImage(W + 1, H, wider.data());
  Guarded<unsigned int> argb(wider.size(), kArgbFill, kArgbGuard);
  Guarded<unsigned char> mask(wider.size(), kMaskFill, kMaskGuard);
  LogCapture log;
  cutOutImage(0, 0, 0, argb.data(), mask.data());
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
  EXPECT_EQ(log.countPrefix("Error", "cutOutImage"), 1);
  EXPECT_EQ(mask.inner(), std::vector<unsigned char>(wider.size(), kMaskFill));
  EXPECT_TRUE(argb.guardsIntact() && mask.guardsIntact());
  EXPECT_EQ(g_markerImage, nullptr) << "the stale marker image is dropped";
}

TEST_F(BadInput, PathCountsAndPointsOutside) {
  std::unique_ptr<int[]> odd(new int[5]{7, 8, 200, 9, 60});  // exact block: no read past it
  std::vector<int> outside = {-3, 10, 150, 70, 5, 6};
  run({
      {"negative count", State::kEngine,
       [&](auto, auto) { setCurrentMarkerVector(-4, path.data()); }, 1, "setCurrentMarkerVector",
       Buffers::kUntouched},
      {"odd count", State::kEngine, [&](auto, auto) { setCurrentMarkerVector(5, odd.get()); }, 1,
       "setCurrentMarkerVector", Buffers::kUntouched},
      {"points outside", State::kEngine,
       [&](auto, auto) { setCurrentMarkerVector(6, outside.data()); }, 1,
       "setCurrentMarkerVector: 2 of 3 points clamped", Buffers::kUntouched},
      {"count 0", State::kEngine, [&](auto, auto) { setCurrentMarkerVector(0, nullptr); }, 0, "",
       Buffers::kUntouched},
  });
  EXPECT_EQ(odd[4], 60);
  EXPECT_EQ(outside, (std::vector<int>{0, 10, W - 1, H - 1, 5, 6})) << "clamped and written back";
}

TEST_F(BadInput, Rectangles) {
  const auto bb = [&](int x1, int y1, int x2, int y2) {
    return [&, x1, y1, x2, y2](unsigned int*, unsigned char* mask) {
      EXPECT_EQ(doSegmentationBB(W, H, src.data(), x1, y1, x2, y2, mask), 0);
    };
  };
  run({
      {"outside", State::kEngine, bb(-9, -9, -1, -2), 1, "doSegmentationBB",
       Buffers::kUntouched},
      {"outside", State::kEngine, bb(W, 0, W + 5, H - 1), 1, "doSegmentationBB",
       Buffers::kUntouched},
      {"inverted and outside", State::kEngine, bb(W + 5, 2, W, 0), 1, "doSegmentationBB",
       Buffers::kUntouched},
      {"inverted", State::kEngine, bb(12, 9, 3, 2), 1, "doSegmentationBB: rectangle (12, 9)-(3, 2)",
       Buffers::kWritten},
      {"partly outside", State::kEngine, bb(-4, 2, 12, H + 3), 1,
       "doSegmentationBB: rectangle (-4, 2)-(12, 15)", Buffers::kWritten},
  });
  EXPECT_NE(pHybrid, nullptr);
  // A refused rectangle leaves the engine of the earlier image in place.
  enter(State::kEngine);
  const HistorySnapshot before = HistorySnapshot::take();
  std::vector<unsigned char> mask(src.size(), 1);
  doSegmentationBB(W, H, src.data(), -5, -5, -1, -1, mask.data());
  EXPECT_NE(pHybrid, nullptr);
  EXPECT_TRUE(HistorySnapshot::take() == before);
}

TEST_F(BadInput, RequestsAfterTeardown) {
  run({
      {"after teardown", State::kTornDown,
       [](auto argb, auto mask) { EXPECT_EQ(processSegment(0, 0, 0, argb, mask), -1); }, 1,
       "processSegment", Buffers::kUntouched},
      {"after teardown", State::kTornDown, [](auto argb, auto mask) { undo(argb, mask); }, 1,
       "undo", Buffers::kUntouched},
      {"after teardown", State::kTornDown, [](auto argb, auto mask) { redo(argb, mask); }, 1,
       "redo", Buffers::kUntouched},
      {"after teardown", State::kTornDown,
       [](auto argb, auto mask) { cutOutImage(0, 0, 0, argb, mask); }, 1,
       "MEMORY_CRASH : cutOutImage 197", Buffers::kUntouched},
      {"after teardown", State::kTornDown, [](auto argb, auto) { copySourceImage(argb); }, 1,
       "copySourceImage", Buffers::kUntouched},
      {"after teardown", State::kTornDown,
       [&](auto, auto) { setMarkerImage(W, H, marks.data(), 0); }, 1, "setMarkerImage",
       Buffers::kUntouched},
      {"after teardown", State::kTornDown, [](auto, auto) { initSegmentationEngine(0); }, 1,
       "initSegmentationEngine", Buffers::kUntouched},
      // Releasing what is already gone is not an error.
      {"repeated teardown", State::kTornDown, [](auto, auto) { deinitSegmentation(); }, 0, "",
       Buffers::kUntouched},
      {"repeated teardown", State::kTornDown, [](auto, auto) { freeLocalBuffers(); }, 0, "",
       Buffers::kUntouched},
      {"repeated teardown", State::kTornDown, [](auto, auto) { resetSegmentationInterface(); }, 0,
       "", Buffers::kUntouched},
  });
  EXPECT_FALSE(canUndo());
  EXPECT_FALSE(canRedo());
}

// The live-wire calls take OpenCV images from the caller; malformed ones are
// refused with a line, and only a seed outside the image throws.
TEST_F(BadInput, LiveWireImages) {
  IplImage* image = cvCreateImage(cvSize(6, 5), IPL_DEPTH_8U, 3);
  IplImage* labels = cvCreateImage(cvSize(6, 5), IPL_DEPTH_8U, 1);
  IplImage* otherLabels = cvCreateImage(cvSize(5, 5), IPL_DEPTH_8U, 1);
  IplImage* grey = cvCreateImage(cvSize(6, 5), IPL_DEPTH_8U, 1);
  IplImage* noData = cvCreateImageHeader(cvSize(6, 5), IPL_DEPTH_8U, 3);
  IplImage* costMap = cvCreateImage(cvSize(6, 5), IPL_DEPTH_32F, 1);
  IplImage* smallMap = cvCreateImage(cvSize(6, 4), IPL_DEPTH_32F, 1);
  cvSet(image, cvScalar(10, 20, 30));
  cvSet(labels, cvScalar(1));
  Node_ node;
  std::memset(&node, 0x5A, sizeof(node));
  const Node_ untouched = node;
  int* array = nullptr;
  int length = 0;

  const auto refused = [](std::function<void()> call, const char* prefix) {
    LogCapture log;
    EXPECT_NO_THROW(call());
    EXPECT_EQ(log.lines().size(), 1u) << prefix << "\n" << log.dump();
    EXPECT_EQ(log.countPrefix("Error", prefix), 1) << log.dump();
  };
  refused([&] { EXPECT_TRUE(find_parent_info(nullptr, labels, 0, 0, 0.5).empty()); },
          "find_parent_info");
  refused([&] { EXPECT_TRUE(find_parent_info(image, otherLabels, 0, 0, 0.5).empty()); },
          "find_parent_info");
  refused([&] { EXPECT_TRUE(find_parent_info(grey, labels, 0, 0, 0.5).empty()); },
          "find_parent_info");
  refused([&] { EXPECT_TRUE(find_parent_info(noData, labels, 0, 0, 0.5).empty()); },
          "find_parent_info");
  refused([&] { EXPECT_TRUE(find_parent_info(image, labels, 0, 0, 0.5, smallMap).empty()); },
          "find_parent_info");
  refused([&] { EXPECT_TRUE(find_parent_info(image, labels, 0, 0, 0.5, nullptr).empty()); },
          "find_parent_info");
  refused([&] { EXPECT_EQ(find_weight(image, 0, 0, 5, 6, 0.5), DBL_MAX); }, "find_weight");
  refused([&] { EXPECT_EQ(find_weight(noData, 0, 0, 1, 1, 0.5), DBL_MAX); }, "find_weight");
  refused([&] { assign_index(node, 5, 6, 5, 0, 0.0); }, "assign_index");
  refused([&] { assign_index(node, 0, 6, 0, 0, 0.0); }, "assign_index");
  refused([&] { assign_index(node, 65536, 65536, 0, 0, 0.0); }, "assign_index");
  refused([&] { assign_weight(image, labels, node, -1, 2, 0.5); }, "assign_weight");
  refused([&] { assign_weight(image, otherLabels, node, 0, 0, 0.5); }, "assign_weight");
  EXPECT_EQ(std::memcmp(&node, &untouched, sizeof(node)), 0) << "refused calls leave the node";
  refused([&] { EXPECT_EQ(fetch_path_array(nullptr, &length), nullptr); }, "fetch_path_array");
  refused([&] { EXPECT_EQ(fetch_path_array(&array, nullptr), nullptr); }, "fetch_path_array");
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(length, 0);

  // The documented refusal of a seed outside the image: an exception, no line.
  for (const auto& seed : {std::pair<int, int>{-1, 0}, {5, 0}, {0, 6}, {0, -1}}) {
    LogCapture log;
    EXPECT_THROW(find_parent_info(image, labels, seed.first, seed.second, 0.5), std::out_of_range);
    EXPECT_THROW(find_parent_info(image, labels, seed.first, seed.second, 0.5, costMap),
                 std::out_of_range);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
  }
  // The same images with a good seed work.
  EXPECT_EQ(find_parent_info(image, labels, 2, 3, 0.5, costMap).size(), 30u);

  for (IplImage** img : {&image, &labels, &otherLabels, &grey, &costMap, &smallMap})
    cvReleaseImage(img);
  cvReleaseImageHeader(&noData);
}

}  // namespace
