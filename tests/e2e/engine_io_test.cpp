// The caller's functions on small synthetic images: the source and marker
// conversions, the direct cut-out with its history and the life cycle. Calls
// made wrongly are the robustness suite's.
#include <android/log.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string>

#include "common/LogCapture.h"
#include "e2e/EngineHarness.h"
#include "engine/EngineState.h"
#include "engine/ZIRKSEMarker.h"

namespace {

using e2e::EngineTest;

// --------------------------------------------------------------- source image

TEST_F(EngineTest, SourceRoundTripKeepsColourAndForcesAlpha) {
  // One pixel with a distinct byte in each position, then random images whose
  // width and height differ (a swapped row/column index shows up there).
  std::vector<unsigned int> one = {0x12345678u};
  setSourceImage(1, 1, one.data());
  unsigned int back = 0;
  copySourceImage(&back);
  EXPECT_EQ(back, 0xFF345678u);
  EXPECT_EQ(one[0], 0x12345678u) << "the caller's buffer is only read";
  deinitSegmentation();

  const int sizes[][2] = {{7, 3}, {3, 7}, {1, 9}, {64, 48}};
  for (const auto& size : sizes) {
    const int w = size[0], h = size[1];
    const std::vector<unsigned int> src = e2e::randomArgb(w, h, static_cast<unsigned>(w * 31 + h));
    std::vector<unsigned int> in = src;
    setSourceImage(w, h, in.data());
    std::vector<unsigned int> out(src.size(), 0u);
    copySourceImage(out.data());
    EXPECT_EQ(out, e2e::opaque(src)) << w << "x" << h;
    deinitSegmentation();
  }
}

TEST_F(EngineTest, SourceOfNoPixelsIsLoggedAndNothingIsCopied) {
  std::vector<unsigned int> argb(16, 0x11223344u);
  const int sizes[][2] = {{0, 4}, {4, 0}, {-3, 5}, {0, 0}};
  for (const auto& size : sizes) {
    LogCapture log;
    setSourceImage(size[0], size[1], argb.data());
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Error", "MEMORY_CRASH : setSourceImage 115"), 1)
        << size[0] << "x" << size[1] << "\n" << log.dump();
    std::vector<unsigned int> out(16, 0xABABABABu);
    copySourceImage(out.data());
    EXPECT_EQ(out, std::vector<unsigned int>(16, 0xABABABABu));
  }
}

// -------------------------------------------------------------- marker input

TEST_F(EngineTest, MarkerIntsAreSaturatedIntoBytes) {
  const int w = 100, h = 50;
  std::vector<unsigned int> argb = e2e::randomArgb(w, h, 3);
  setSourceImage(w, h, argb.data());
  std::mt19937 rng(11);
  std::vector<int> markers(static_cast<size_t>(w) * h);
  for (int& m : markers) m = static_cast<int>(rng());  // the whole int range
  markers[0] = -5;
  markers[1] = 300;
  markers[2] = INT_MIN;
  markers[3] = 255;
  const std::vector<int> given = markers;
  setMarkerImage(w, h, markers.data(), 2);
  ASSERT_NE(g_markerImage, nullptr);
  EXPECT_EQ(markers, given) << "the caller's array is only read";
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const int v = given[static_cast<size_t>(y) * w + x];
      const uint8_t got = CV_IMAGE_ELEM(g_markerImage, uint8_t, y, x);
      ASSERT_EQ(got, std::min(std::max(v, 0), 255)) << "(" << x << ", " << y << ") from " << v;
    }
  }
  EXPECT_EQ(CV_IMAGE_ELEM(g_markerImage, uint8_t, 0, 0), 0);
  EXPECT_EQ(CV_IMAGE_ELEM(g_markerImage, uint8_t, 0, 1), 255);

  // A second marker image replaces the first (the leak check sees the old one go).
  std::vector<int> ones(markers.size(), 1);
  setMarkerImage(w, h, ones.data(), 0);
  EXPECT_EQ(cvCountNonZero(g_markerImage), w * h);
}

TEST_F(EngineTest, PathPointsAreClampedIntoTheSourceAndWrittenBack) {
  const int w = 100, h = 50;
  std::vector<unsigned int> argb = e2e::randomArgb(w, h, 5);
  setSourceImage(w, h, argb.data());

  std::vector<int> points = {-3, 10, 150, 70, 5, -1, 99, 49, 100, 50, 42, 17};
  setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
  const std::vector<int> clamped = {0, 10, 99, 49, 5, 0, 99, 49, 99, 49, 42, 17};
  EXPECT_EQ(points, clamped);
  EXPECT_EQ(ZIRKSEMarker::currentStroke.points, clamped);

  // An odd count: the unpaired int is dropped, never paired with memory past
  // the array (an exact heap block, so the address sanitizer would see it).
  std::unique_ptr<int[]> odd(new int[5]{7, 8, 200, 9, 60});
  setCurrentMarkerVector(5, odd.get());
  EXPECT_EQ(ZIRKSEMarker::currentStroke.points, (std::vector<int32_t>{7, 8, 99, 9}));
  EXPECT_EQ(odd[4], 60);

  setCurrentMarkerVector(0, points.data());
  EXPECT_TRUE(ZIRKSEMarker::currentStroke.points.empty());
}

// ------------------------------------------------------------------ requests

TEST_F(EngineTest, ProcessSegmentWithoutMarkersShowsTheSource) {
  const int w = 40, h = 30;
  std::vector<unsigned int> src = e2e::randomArgb(w, h, 9);
  setSourceImage(w, h, src.data());
  initSegmentationEngine(0);
  std::vector<unsigned int> argb(src.size(), 0x01020304u);
  std::vector<unsigned char> mask(src.size(), 77);
  EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), 0);
  EXPECT_EQ(argb, e2e::opaque(src));
  EXPECT_EQ(mask, std::vector<unsigned char>(src.size(), 77)) << "no result: mask untouched";
  EXPECT_FALSE(canUndo());
  EXPECT_FALSE(canRedo());
}

// Mask that the caller's marks make from a previous object mask: 2 takes a
// pixel into the object, 1 out of it, anything else keeps it.
std::vector<unsigned char> applyMarks(const std::vector<unsigned char>& previous,
                                      const std::vector<int>& marks) {
  std::vector<unsigned char> out = previous;
  for (size_t i = 0; i < marks.size(); ++i) {
    if (marks[i] == 2) out[i] = 0;
    if (marks[i] == 1) out[i] = 255;
  }
  return out;
}

TEST_F(EngineTest, CutOutTakesTheMarksAsTheMaskAndRecordsIt) {
  const int w = 48, h = 36;
  std::vector<unsigned int> src = e2e::randomArgb(w, h, 21);
  setSourceImage(w, h, src.data());
  initSegmentationEngine(0);
  std::mt19937 rng(4);
  auto randomMarks = [&](int objectShare) {
    std::vector<int> marks(src.size());
    for (int& m : marks) {
      const int r = static_cast<int>(rng() % 100);
      m = r < objectShare ? 2 : r < objectShare + 20 ? 1 : r < objectShare + 30 ? 4 : 0;
    }
    return marks;
  };

  // No history: exactly the pixels marked 2 are object.
  std::vector<int> first = randomMarks(25);
  first[0] = 2;
  const std::vector<unsigned char> none(src.size(), 255);
  const std::vector<unsigned char> mask1 = applyMarks(none, first);
  std::vector<unsigned int> argb = src;
  std::vector<unsigned char> mask(src.size(), 9);
  setMarkerImage(w, h, first.data(), 0);
  cutOutImage(0, 0, 0, argb.data(), mask.data());
  EXPECT_EQ(mask, mask1);
  EXPECT_TRUE(e2e::previewOutlinesObject(argb, src, e2e::objectOf(mask1, w, h)));
  EXPECT_EQ(g_markerImage, nullptr) << "the request consumes the marker image";
  EXPECT_FALSE(canUndo()) << "one mask: nothing earlier to show";
  EXPECT_FALSE(canRedo());

  // With history: the new marks are merged into the previous mask.
  std::vector<int> second = randomMarks(10);
  const std::vector<unsigned char> mask2 = applyMarks(mask1, second);
  setMarkerImage(w, h, second.data(), 1);
  cutOutImage(0, 0, 0, nullptr, mask.data());  // no preview wanted
  EXPECT_EQ(mask, mask2);
  EXPECT_TRUE(canUndo());

  argb = src;
  undo(argb.data(), mask.data());
  EXPECT_EQ(mask, mask1);
  EXPECT_TRUE(e2e::previewOutlinesObject(argb, src, e2e::objectOf(mask1, w, h)));
  EXPECT_TRUE(canRedo());
  redo(argb.data(), mask.data());
  EXPECT_EQ(mask, mask2);
}

TEST_F(EngineTest, SinglePixelCutOut) {
  const int w = 20, h = 10;
  std::vector<unsigned int> src = e2e::randomArgb(w, h, 2);
  setSourceImage(w, h, src.data());
  std::vector<int> marks(src.size(), 0);
  marks[3 * w + 7] = 2;
  std::vector<unsigned char> mask(src.size(), 1);
  std::vector<unsigned int> argb = src;
  setMarkerImage(w, h, marks.data(), 2);
  cutOutImage(0, 0, 0, argb.data(), mask.data());
  for (size_t i = 0; i < mask.size(); ++i) ASSERT_EQ(mask[i], i == 3u * w + 7 ? 0 : 255) << i;
  EXPECT_EQ(g_contoursFound, 1);

  // An empty mask has no contour: the preview stays as given.
  std::fill(marks.begin(), marks.end(), 1);
  argb = src;
  setMarkerImage(w, h, marks.data(), 3);
  cutOutImage(0, 0, 0, argb.data(), mask.data());
  EXPECT_EQ(mask, std::vector<unsigned char>(src.size(), 255));
  EXPECT_EQ(argb, src);
  EXPECT_EQ(g_contoursFound, 0);
}

// ---------------------------------------------------------------- life cycle

// Markers of a rectangle: 4 inside (corners inclusive), 0 elsewhere.
std::vector<int> rectangleMarks(int w, int h, int x1, int y1, int x2, int y2) {
  std::vector<int> marks(static_cast<size_t>(w) * h, 0);
  for (int y = y1; y <= y2; ++y)
    for (int x = x1; x <= x2; ++x) marks[static_cast<size_t>(y) * w + x] = 4;
  return marks;
}

// A dark square on a light, slightly noisy background.
std::vector<unsigned int> squareScene(int w, int h) {
  std::vector<unsigned int> argb = e2e::randomArgb(w, h, 17);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      unsigned int& p = argb[static_cast<size_t>(y) * w + x];
      const bool inside = x >= w / 4 && x < 3 * w / 4 && y >= h / 4 && y < 3 * h / 4;
      const unsigned base = inside ? 0x20 : 0xD0, noise = p & 0x0F;
      p = 0xFF000000u | ((base + noise) << 16) | ((base + noise) << 8) | (base + (noise ^ 5));
    }
  }
  return argb;
}

TEST_F(EngineTest, CancelAndExitTearTheEngineDownAtTheEndOfTheRequest) {
  const int w = 80, h = 60;
  std::vector<unsigned int> src = squareScene(w, h);
  std::vector<int> marks = rectangleMarks(w, h, 10, 8, 70, 52);
  std::vector<int> path = {10, 8, 70, 8, 70, 52, 10, 52};
  std::vector<unsigned int> argb(src.size());
  std::vector<unsigned char> mask(src.size(), 33);

  // exitSegmentation alone asks for nothing.
  setSourceImage(w, h, src.data());
  initSegmentationEngine(0);
  exitSegmentation();
  setMarkerImage(w, h, marks.data(), 0);
  setCurrentMarkerVector(8, path.data());
  EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), 0);
  EXPECT_NE(pHybrid, nullptr);
  EXPECT_EQ(g_exitStatus, 0);
  EXPECT_GT(std::count(mask.begin(), mask.end(), 0), 0) << "the square is found";

  // Both: the request is cancelled, shows the source and ends the engine.
  std::fill(mask.begin(), mask.end(), 33);
  setMarkerImage(w, h, marks.data(), 0);
  setCurrentMarkerVector(8, path.data());
  cancelSegmentation();
  exitSegmentation();
  EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), -1);
  EXPECT_EQ(pHybrid, nullptr);
  EXPECT_EQ(argb, e2e::opaque(src));
  EXPECT_EQ(mask, std::vector<unsigned char>(src.size(), 33));
  EXPECT_EQ(g_exitStatus, 0);

  {  // Gone: the next request is refused with a log line.
    LogCapture log;
    EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), -1);
    EXPECT_EQ(log.countPrefix("Error", "processSegment"), 1) << log.dump();
  }

  // A new engine on the same image works again.
  setSourceImage(w, h, src.data());
  initSegmentationEngine(0);
  setMarkerImage(w, h, marks.data(), 0);
  setCurrentMarkerVector(8, path.data());
  EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), 0);
  EXPECT_GT(std::count(mask.begin(), mask.end(), 0), 0);
}

TEST_F(EngineTest, RepeatedTeardownAndEmptyReleasesAreHarmless) {
  freeLocalBuffers();
  deinitSegmentation();
  deinitSegmentation();
  const int w = 80, h = 60;
  std::vector<unsigned int> src = squareScene(w, h);
  std::vector<unsigned char> mask(src.size(), 5);
  doSegmentationBB(w, h, src.data(), 10, 8, 70, 52, mask.data());
  EXPECT_GT(std::count(mask.begin(), mask.end(), 0), 0);
  deinitSegmentation();
  deinitSegmentation();
  freeLocalBuffers();
  EXPECT_EQ(pHybrid, nullptr);
  EXPECT_EQ(storage, nullptr);
  EXPECT_FALSE(canUndo());
  EXPECT_FALSE(canRedo());
}

}  // namespace
