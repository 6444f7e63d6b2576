// Cuts from a rectangle (doSegmentationBB) on a synthetic patch that must come
// out exactly; the photos' rectangles are checked with the stored masks.
#include <set>
#include <utility>

#include "e2e/EngineHarness.h"
#include "engine/ZIRKSEMarker.h"

namespace {

using e2e::EngineTest;

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
// it (then the boundary is refined at full size): the cut is the patch,
// pixel for pixel.
TEST_F(EngineTest, RectangleAroundAPatchCutsExactlyThePatch) {
  const struct {
    int w, h;
    cv::Rect patch;
    int x1, y1, x2, y2;
  } cases[] = {
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

// The rectangle (10, 10)-(20, 15): its path is the border, clockwise from
// the top-left corner, 30 distinct points one step apart. Whatever the cut
// takes stays near the rectangle.
TEST_F(EngineTest, SmallRectangleHasItsBorderAsThePath) {
  const int w = 40, h = 30, x1 = 10, y1 = 10, x2 = 20, y2 = 15;
  std::vector<unsigned int> argb = patchScene(w, h, cv::Rect(x1, y1, 11, 6));
  std::vector<unsigned char> mask(argb.size(), 3);
  doSegmentationBB(w, h, argb.data(), x1, y1, x2, y2, mask.data());
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 3), 0) << "a mask came back";
  const cv::Mat object = e2e::objectOf(mask, w, h);
  EXPECT_EQ(cv::countNonZero(object(cv::Rect(cv::Point(x1 - 2, y1 - 2), cv::Point(x2 + 3, y2 + 3)))),
            cv::countNonZero(object));

  const std::vector<int32_t>& path = ZIRKSEMarker::currentStroke.points;
  ASSERT_EQ(path.size(), 60u);
  EXPECT_EQ(std::vector<int>(path.begin(), path.begin() + 3), (std::vector<int>{x1, y1, x1 + 1}));
  std::set<std::pair<int, int>> seen;
  for (size_t i = 0; i < path.size(); i += 2) {
    const int x = path[i], y = path[i + 1];
    EXPECT_TRUE(x == x1 || x == x2 || y == y1 || y == y2) << x << ", " << y;
    const size_t before = (i + path.size() - 2) % path.size();
    EXPECT_EQ(std::abs(x - path[before]) + std::abs(y - path[before + 1]), 1) << "gap at " << i / 2;
    seen.insert({x, y});
  }
  EXPECT_EQ(seen.size(), 30u);
}

}  // namespace
