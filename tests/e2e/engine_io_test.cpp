// The caller's functions on small synthetic images: the direct cut-out with
// its history and contours, cuts from a rectangle. Wrong calls and cancels
// are the robustness suite's, the photos the mask regression's.
#include "e2e/EngineHarness.h"
#include "engine/EngineState.h"
#include "livewire/LiveWire.h"

namespace {

using e2e::EngineTest;

// Mask that the caller's marks make from a previous object mask: 2 takes a
// pixel into the object, 1 out of it, anything else keeps it.
std::vector<unsigned char> applyMarks(std::vector<unsigned char> mask, const std::vector<int>& marks) {
  for (size_t i = 0; i < marks.size(); ++i) mask[i] = marks[i] == 2 ? 0 : marks[i] == 1 ? 255 : mask[i];
  return mask;
}

// The source comes back opaque; the caller's buffers are only read. Without
// markers a request shows the source and no mask. Then the marks (ints
// saturated into bytes) become the mask, merged into the previous one and
// recorded; the history walks back to the plain source and forward. The
// width is no multiple of 4, so every column band of the mask writer counts.
TEST_F(EngineTest, CutOutTakesTheMarksAsTheMaskAndRecordsIt) {
  const int w = 50, h = 36;
  const std::vector<unsigned int> given = e2e::randomArgb(w, h, 21), src = e2e::opaque(given);
  std::vector<unsigned int> argb = given;
  std::vector<unsigned char> mask(src.size(), 9);
  setSourceImage(w, h, argb.data());
  EXPECT_EQ(argb, given);
  copySourceImage(argb.data());
  EXPECT_EQ(argb, src);
  std::fill(argb.begin(), argb.end(), 0x01020304u);
  initSegmentationEngine(0);
  EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), 0);
  EXPECT_EQ(argb, src);
  EXPECT_EQ(mask, std::vector<unsigned char>(src.size(), 9)) << "no result: mask untouched";
  EXPECT_FALSE(canUndo() || canRedo());

  std::mt19937 rng(4);
  auto randomMarks = [&](int objectShare) {
    std::vector<int> marks(src.size());
    for (int& m : marks) {
      const int r = static_cast<int>(rng() % 100);
      m = r < objectShare ? 2 : r < objectShare + 20 ? 1 : r < objectShare + 30 ? 4 : 0;
    }
    return marks;
  };
  std::vector<int> first = randomMarks(25), second = randomMarks(10);
  first[0] = 258, first[1] = -254, first[2] = 257;  // saturated they keep the pixel; wrapped: 2, 2, 1
  const std::vector<int> marks1 = first;
  const std::vector<unsigned char> mask1 = applyMarks(std::vector<unsigned char>(src.size(), 255), first);
  const std::vector<unsigned char> mask2 = applyMarks(mask1, second);
  setMarkerImage(w, h, first.data(), 0);
  cutOutImage(0, 0, 0, argb.data(), mask.data());
  EXPECT_EQ(mask, mask1);
  EXPECT_TRUE(e2e::previewOutlinesObject(argb, src, e2e::objectOf(mask1, w, h)));
  EXPECT_EQ(g_markerImage, nullptr) << "the request consumes the marker image";
  EXPECT_EQ(first, marks1);
  EXPECT_FALSE(canUndo() || canRedo()) << "one mask: nothing earlier to show";

  setMarkerImage(w, h, second.data(), 1);
  cutOutImage(0, 0, 0, nullptr, mask.data());  // no preview wanted
  EXPECT_EQ(mask, mask2);
  argb = src;
  undo(argb.data(), mask.data());
  EXPECT_EQ(mask, mask1);
  EXPECT_TRUE(e2e::previewOutlinesObject(argb, src, e2e::objectOf(mask1, w, h)));
  std::fill(mask.begin(), mask.end(), 9);
  undo(argb.data(), mask.data());  // before the first mask: the plain source, the mask left alone
  EXPECT_EQ(argb, src);
  EXPECT_EQ(mask, std::vector<unsigned char>(src.size(), 9));
  EXPECT_TRUE(!canUndo() && canRedo());
  for (int i = 0; i < 3; ++i) redo(argb.data(), mask.data());  // the last one at the newest mask
  EXPECT_EQ(mask, mask2);
  EXPECT_FALSE(canRedo());

  // A single object pixel has a contour, handed over once as [count, n, x, y,
  // ..., -1] and then [0]; an empty mask has none and leaves the preview.
  std::vector<int> marks(src.size(), 1);
  for (const bool single : {true, false}) {
    marks[157] = single ? 2 : 1;  // (7, 3)
    argb = src;
    setMarkerImage(w, h, marks.data(), 3);
    cutOutImage(0, 0, 0, argb.data(), mask.data());
    for (size_t i = 0; i < mask.size(); ++i) ASSERT_EQ(mask[i], single && i == 157 ? 0 : 255) << i;
    EXPECT_EQ(g_contoursFound, single ? 1 : 0);
    for (const std::vector<int>& want : {single ? std::vector<int>{1, 1, 7, 3, -1} : std::vector<int>{0}, {0}}) {
      int* array = nullptr;
      int length = 0;
      ASSERT_EQ(fetch_path_array(&array, &length), array);
      EXPECT_EQ(std::vector<int>(array, array + length), want);
      delete[] array;
    }
    EXPECT_TRUE(single || argb == src);
  }
}

// A red patch on a noisy grey background.
std::vector<unsigned int> patchScene(int w, int h, const cv::Rect& patch) {
  std::vector<unsigned int> argb = e2e::randomArgb(w, h, 1);
  for (size_t i = 0; i < argb.size(); ++i) {
    const unsigned n = argb[i] & 0x07;
    const bool inside = patch.contains(cv::Point(static_cast<int>(i % w), static_cast<int>(i / w)));
    argb[i] = inside ? 0xFFE01010u + (n << 16) : 0xFF808080u + n * 0x010101u;
  }
  return argb;
}

// Any rectangle around the patch, tight or loose, at working size or above
// it (refined at full size): the cut is the patch, pixel for pixel. (A wrong
// path along the rectangle's border would show here and in the photos.)
TEST_F(EngineTest, RectangleAroundAPatchCutsExactlyThePatch) {
  const struct { int w, h; cv::Rect patch; int x1, y1, x2, y2; } cases[] = {
      {80, 60, cv::Rect(20, 15, 40, 30), 20, 15, 59, 44},  // on the patch's border
      {80, 60, cv::Rect(20, 15, 40, 30), 14, 9, 65, 50},   // a few pixels around it
      {80, 60, cv::Rect(20, 15, 40, 30), 74, 54, 5, 5},    // corners given the other way round
      {80, 60, cv::Rect(4, 3, 40, 30), -30, -9, 48, 37},   // partly beyond the image
      {640, 480, cv::Rect(200, 150, 240, 180), 180, 130, 459, 349},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.w << "x" << c.h << " rectangle " << c.x1 << "," << c.y1);
    std::vector<unsigned int> argb = patchScene(c.w, c.h, c.patch);
    const std::vector<unsigned int> given = argb;
    std::vector<unsigned char> mask(argb.size(), 3);
    EXPECT_EQ(doSegmentationBB(c.w, c.h, argb.data(), c.x1, c.y1, c.x2, c.y2, mask.data()), 0);
    EXPECT_EQ(argb, given) << "the preview goes to a private copy";
    cv::Mat truth = cv::Mat::zeros(c.h, c.w, CV_8U);
    truth(c.patch).setTo(255);
    EXPECT_EQ(cv::countNonZero(e2e::objectOf(mask, c.w, c.h) != truth), 0);
    EXPECT_FALSE(canUndo() || canRedo()) << "one mask in the history";
  }
}

}  // namespace
