// Cuts from a rectangle (doSegmentationBB): a synthetic patch that must come
// out exactly, and the thirteen evaluation photos against their ground truth.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>
#include <string>
#include <utility>

#include "common/PhotoSet.h"
#include "e2e/EngineHarness.h"
#include "engine/ZIRKSEMarker.h"

namespace {

using e2e::EngineTest;

// A red patch on a noisy grey background.
std::vector<unsigned int> patchScene(int w, int h, const cv::Rect& patch, unsigned seed) {
  std::vector<unsigned int> argb = e2e::randomArgb(w, h, seed);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      unsigned int& p = argb[static_cast<size_t>(y) * w + x];
      const unsigned n = p & 0x07;
      p = patch.contains(cv::Point(x, y)) ? 0xFFE01010u + (n << 16) : 0xFF808080u + n * 0x010101u;
    }
  }
  return argb;
}

// Any rectangle around the patch, tight or loose, at working size or above
// it (then the boundary is refined at full size): the cut is the patch,
// pixel for pixel.
TEST_F(EngineTest, RectangleAroundAPatchCutsExactlyThePatch) {
  struct Case {
    int w, h;
    cv::Rect patch;
    int x1, y1, x2, y2;
  };
  const Case cases[] = {
      {80, 60, cv::Rect(20, 15, 40, 30), 20, 15, 59, 44},     // on the patch's border
      {80, 60, cv::Rect(20, 15, 40, 30), 14, 9, 65, 50},      // a few pixels around it
      {80, 60, cv::Rect(20, 15, 40, 30), 74, 54, 5, 5},       // corners given the other way round
      {80, 60, cv::Rect(4, 3, 40, 30), -30, -9, 48, 37},      // partly beyond the image
      {640, 480, cv::Rect(200, 150, 240, 180), 180, 130, 459, 349},
  };
  for (const Case& c : cases) {
    std::vector<unsigned int> argb = patchScene(c.w, c.h, c.patch, 1);
    const std::vector<unsigned int> given = argb;
    std::vector<unsigned char> mask(argb.size(), 3);
    EXPECT_EQ(doSegmentationBB(c.w, c.h, argb.data(), c.x1, c.y1, c.x2, c.y2, mask.data()), 0);
    EXPECT_EQ(argb, given) << "the preview goes to a private copy";
    cv::Mat truth = cv::Mat::zeros(c.h, c.w, CV_8U);
    truth(c.patch).setTo(255);
    EXPECT_EQ(cv::countNonZero(e2e::objectOf(mask, c.w, c.h) != truth), 0)
        << c.w << "x" << c.h << " rectangle " << c.x1 << "," << c.y1 << " " << c.x2 << "," << c.y2;
    EXPECT_FALSE(canUndo()) << "one mask in the history";
    EXPECT_FALSE(canRedo());
    deinitSegmentation();
  }
}

// The rectangle (10, 10)-(20, 15): its path is the border, clockwise from
// the top-left corner, 30 distinct points one step apart. The drawn border
// is left to the cut and covers all of so flat a rectangle, so nothing is
// object for sure; whatever the cut takes stays near the rectangle.
TEST_F(EngineTest, SmallRectangleHasItsBorderAsThePath) {
  const int w = 40, h = 30, x1 = 10, y1 = 10, x2 = 20, y2 = 15;
  std::vector<unsigned int> argb = patchScene(w, h, cv::Rect(x1, y1, 11, 6), 1);
  std::vector<unsigned char> mask(argb.size(), 3);
  doSegmentationBB(w, h, argb.data(), x1, y1, x2, y2, mask.data());
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 3), 0) << "a mask came back";
  const cv::Mat object = e2e::objectOf(mask, w, h);
  EXPECT_EQ(cv::countNonZero(object(cv::Rect(cv::Point(x1 - 2, y1 - 2), cv::Point(x2 + 3, y2 + 3)))),
            cv::countNonZero(object));

  const std::vector<int32_t>& path = ZIRKSEMarker::currentStroke.points;
  ASSERT_EQ(path.size(), 60u);
  EXPECT_EQ(path[0], x1);
  EXPECT_EQ(path[1], y1);
  EXPECT_EQ(path[2], x1 + 1) << "clockwise: along the top edge first";
  std::set<std::pair<int, int>> seen;
  for (size_t i = 0; i < path.size(); i += 2) {
    const int x = path[i], y = path[i + 1];
    EXPECT_TRUE(x == x1 || x == x2 || y == y1 || y == y2) << x << ", " << y;
    const int px = path[(i + path.size() - 2) % path.size()];
    const int py = path[(i + path.size() - 1) % path.size()];
    EXPECT_EQ(std::abs(x - px) + std::abs(y - py), 1) << "gap before point " << i / 2;
    seen.insert({x, y});
  }
  EXPECT_EQ(seen.size(), 30u);
}

struct PhotoResult {
  std::string name;
  double iou;
  double rectangleIou;  // the rectangle itself taken as the mask
};

// Every photo: the object's IoU with the ground truth, and no object pixel
// beyond the rectangle's reach.
TEST_F(EngineTest, RectangleOnEveryPhotoFindsTheObject) {
  if (!photoSetAvailable()) GTEST_SKIP() << "photo set not found under " << photoSetDir();
  std::vector<PhotoResult> results;
  for (const std::string& name : photoNames()) {
    const Photo p = loadPhoto(name);
    ASSERT_FALSE(p.image.empty()) << name;
    const int w = p.image.cols, h = p.image.rows;
    std::vector<unsigned int> argb = toArgb(p.image);
    std::vector<unsigned char> mask(argb.size(), 7);
    doSegmentationBB(w, h, argb.data(), p.x1, p.y1, p.x2, p.y2, mask.data());
    if (e2e::budgetSpentUnderEmulation(mask, 7, name)) continue;
    ASSERT_EQ(std::count(mask.begin(), mask.end(), 7), 0) << name << ": no mask came back";
    const cv::Mat object = e2e::objectOf(mask, w, h);

    // Outside the rectangle everything is fixed background; only the band
    // refined at full resolution may reach a few pixels past the border.
    const double f = std::max(1.0, std::sqrt(w * static_cast<double>(h) / 76800.0));
    const int reach = static_cast<int>(4 * f) + 2;
    const cv::Rect image(0, 0, w, h);
    cv::Mat allowed = cv::Mat::zeros(h, w, CV_8U);
    allowed(cv::Rect(cv::Point(p.x1 - reach, p.y1 - reach), cv::Point(p.x2 + reach + 1, p.y2 + reach + 1)) &
            image)
        .setTo(255);
    EXPECT_EQ(cv::countNonZero(object & ~allowed), 0) << name << ": object far outside the rectangle";

    cv::Mat rectangle = cv::Mat::zeros(h, w, CV_8U);
    rectangle(cv::Rect(cv::Point(p.x1, p.y1), cv::Point(p.x2 + 1, p.y2 + 1)) & image).setTo(255);
    results.push_back({name, intersectionOverUnion(object, p.truth),
                       intersectionOverUnion(rectangle, p.truth)});
    deinitSegmentation();
  }

  double mean = 0, rectangleMean = 0;
  for (const PhotoResult& r : results) {
    std::printf("%-10s IoU %5.1f %%  (rectangle alone %5.1f %%)\n", r.name.c_str(), 100 * r.iou,
                100 * r.rectangleIou);
    mean += r.iou / results.size();
    rectangleMean += r.rectangleIou / results.size();
  }
  std::printf("mean       IoU %5.1f %%  (rectangle alone %5.1f %%)\n", 100 * mean, 100 * rectangleMean);
  // A cut that does nothing returns about the rectangle; a broken colour
  // model or graph gives far less. A working cut is near 0.85 here.
  EXPECT_GT(mean, 0.8);
  EXPECT_GT(mean, rectangleMean + 0.15);

  for (const PhotoResult& r : results) {
    // banana1: the bananas' colours recur in the background inside the
    // rectangle. cross: its rectangle is nearly the whole picture, so there
    // is almost no background to learn from. A rectangle alone fails there.
    if (r.name == "banana1" || r.name == "cross") {
      EXPECT_GT(r.iou, 0.2) << r.name;
      continue;
    }
    EXPECT_GT(r.iou, 0.75) << r.name << " is far below the other photos";
    EXPECT_GT(r.iou, r.rectangleIou) << r.name << ": worse than the rectangle itself";
  }
}

}  // namespace
