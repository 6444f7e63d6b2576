// A user's edit sequence on a real photo: a rectangle, a brush stroke over a
// part the cut missed, a brush stroke over a part it took wrongly; then the
// history is walked back and forth.
#include <cmath>

#include "common/PhotoSet.h"
#include "e2e/EngineHarness.h"

namespace {

using e2e::EngineTest;

struct Stroke {
  std::vector<cv::Point> points;
  int radius = 1;
};

// A short straight stroke well inside the largest blob of `region`: through
// the point deepest inside it, as far left and right as the brush stays
// inside.
Stroke strokeInside(const cv::Mat& region) {
  cv::Mat labels, stats, centroids, dist;
  const int n = cv::connectedComponentsWithStats(region, labels, stats, centroids, 4);
  int best = 0;
  for (int i = 1; i < n; ++i)
    if (best == 0 || stats.at<int>(i, cv::CC_STAT_AREA) > stats.at<int>(best, cv::CC_STAT_AREA)) best = i;
  cv::Mat blob = labels == best;
  cv::distanceTransform(blob, dist, cv::DIST_L2, 3);
  double depth = 0;
  cv::Point centre;
  cv::minMaxLoc(dist, nullptr, &depth, nullptr, &centre);
  Stroke s;
  s.radius = std::max(1, std::min(4, static_cast<int>(depth) - 2));
  const float keep = static_cast<float>(s.radius + 2);
  int left = centre.x, right = centre.x;
  while (left > 0 && centre.x - left < 40 && dist.at<float>(centre.y, left - 1) >= keep) --left;
  while (right + 1 < region.cols && right - centre.x < 40 && dist.at<float>(centre.y, right + 1) >= keep)
    ++right;
  s.points = {cv::Point(left, centre.y), centre, cv::Point(right, centre.y)};
  return s;
}

class EditSequence : public EngineTest {
 protected:
  void SetUp() override {
    if (!photoSetAvailable()) GTEST_SKIP() << "photo set not found under " << photoSetDir();
    // The rectangle misses part of the bush and takes some background.
    photo = loadPhoto("bush");
    ASSERT_FALSE(photo.image.empty());
    w = photo.image.cols;
    h = photo.image.rows;
    source = toArgb(photo.image);
  }

  // One brush edit through the caller's functions; returns the object mask.
  cv::Mat brush(const Stroke& s, bool adding, std::vector<unsigned int>* preview) {
    cv::Mat marks(h, w, CV_32S, cv::Scalar(0));
    const cv::Scalar label(adding ? 2 : 1);
    cv::polylines(marks, std::vector<std::vector<cv::Point>>{s.points}, false, label, 2 * s.radius + 1);
    std::vector<int> path;
    for (const cv::Point& p : s.points) path.insert(path.end(), {p.x, p.y});
    *preview = source;
    std::vector<unsigned char> mask(source.size(), 7);
    setMarkerImage(w, h, marks.ptr<int>(), adding ? 2 : 3);
    setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
    EXPECT_EQ(processSegment(0, 0, 0, preview->data(), mask.data()), 0);
    EXPECT_EQ(std::count(mask.begin(), mask.end(), 7), 0) << "no mask came back";
    return e2e::objectOf(mask, w, h);
  }

  // Where a brush edit may change the mask: the stroke, grown by the ring
  // the engine adds around it, its margin and the refined band.
  cv::Mat reachOf(const Stroke& s) const {
    const double f = std::max(1.0, std::sqrt(w * static_cast<double>(h) / 76800.0));
    const int ring = static_cast<int>(std::sqrt(w * static_cast<double>(h)) * 0.05);
    const int grow = s.radius + ring + static_cast<int>(10 * f) + static_cast<int>(4 * f) + 2;
    cv::Rect box = cv::boundingRect(s.points);
    box = cv::Rect(box.x - grow, box.y - grow, box.width + 2 * grow, box.height + 2 * grow) &
          cv::Rect(0, 0, w, h);
    cv::Mat reach = cv::Mat::zeros(h, w, CV_8U);
    reach(box).setTo(255);
    return reach;
  }

  cv::Mat show(void (*step)(unsigned int*, unsigned char*), std::vector<unsigned int>* preview,
               std::vector<unsigned char>* mask) {
    *preview = source;
    step(preview->data(), mask->data());
    return e2e::objectOf(*mask, w, h);
  }

  static bool same(const cv::Mat& a, const cv::Mat& b) { return cv::countNonZero(a != b) == 0; }

  Photo photo;
  int w = 0, h = 0;
  std::vector<unsigned int> source;
};

TEST_F(EditSequence, StrokesChangeTheMaskNearThemAndTheHistoryReplaysIt) {
  // 1. The rectangle.
  std::vector<unsigned int> argb = source;
  std::vector<unsigned char> mask(source.size(), 7);
  doSegmentationBB(w, h, argb.data(), photo.x1, photo.y1, photo.x2, photo.y2, mask.data());
  const cv::Mat m1 = e2e::objectOf(mask, w, h);
  EXPECT_FALSE(canUndo()) << "one mask: nothing earlier to show";
  EXPECT_FALSE(canRedo());
  std::vector<unsigned int> preview;
  EXPECT_TRUE(same(show(&redo, &preview, &mask), m1)) << "redo at the newest mask shows it again";
  EXPECT_TRUE(e2e::previewOutlinesObject(preview, source, m1));

  // 2. Adding over the largest part of the object the cut missed.
  const cv::Mat missed1 = photo.truth & ~m1;
  ASSERT_GT(cv::countNonZero(missed1), 50) << "the rectangle cut left nothing to add";
  const Stroke add = strokeInside(missed1);
  const cv::Mat m2 = brush(add, true, &preview);
  EXPECT_TRUE(e2e::previewOutlinesObject(preview, source, m2));
  EXPECT_EQ(cv::countNonZero(m1 & ~m2), 0) << "an adding stroke removed object pixels";
  EXPECT_EQ(cv::countNonZero((m1 != m2) & ~reachOf(add)), 0) << "changes far from the stroke";
  EXPECT_LT(cv::countNonZero(photo.truth & ~m2), cv::countNonZero(missed1)) << "nothing recovered";
  for (const cv::Point& p : add.points) EXPECT_NE(m2.at<uint8_t>(p), 0) << "stroke point " << p;

  // 3. Removing over the largest part of the background it took wrongly.
  const cv::Mat wrong2 = m2 & ~photo.truth;
  ASSERT_GT(cv::countNonZero(wrong2), 50) << "nothing wrong left to remove";
  const Stroke remove = strokeInside(wrong2);
  const cv::Mat m3 = brush(remove, false, &preview);
  EXPECT_TRUE(e2e::previewOutlinesObject(preview, source, m3));
  EXPECT_EQ(cv::countNonZero(m3 & ~m2), 0) << "a removing stroke added object pixels";
  EXPECT_EQ(cv::countNonZero((m2 != m3) & ~reachOf(remove)), 0) << "changes far from the stroke";
  EXPECT_LT(cv::countNonZero(m3 & ~photo.truth), cv::countNonZero(wrong2)) << "nothing removed";
  for (const cv::Point& p : remove.points) EXPECT_EQ(m3.at<uint8_t>(p), 0) << "stroke point " << p;
  std::printf("IoU: rectangle %.1f %%, + add %.1f %%, + remove %.1f %%\n",
              100 * intersectionOverUnion(m1, photo.truth), 100 * intersectionOverUnion(m2, photo.truth),
              100 * intersectionOverUnion(m3, photo.truth));

  // 4. The history: back to before the first edit and forward again.
  EXPECT_TRUE(canUndo());
  EXPECT_FALSE(canRedo());
  EXPECT_TRUE(same(show(&undo, &preview, &mask), m2));
  EXPECT_TRUE(e2e::previewOutlinesObject(preview, source, m2));
  EXPECT_TRUE(canUndo());
  EXPECT_TRUE(canRedo());
  EXPECT_TRUE(same(show(&undo, &preview, &mask), m1));
  EXPECT_FALSE(canUndo()) << "only the first mask is left before the current position";
  EXPECT_TRUE(canRedo());

  std::fill(mask.begin(), mask.end(), 99);
  show(&undo, &preview, &mask);
  EXPECT_EQ(preview, e2e::opaque(source)) << "before the first edit: the plain source";
  EXPECT_EQ(mask, std::vector<unsigned char>(source.size(), 99)) << "and the mask left alone";
  EXPECT_FALSE(canUndo());
  EXPECT_TRUE(canRedo());

  EXPECT_TRUE(same(show(&redo, &preview, &mask), m1));
  EXPECT_TRUE(same(show(&redo, &preview, &mask), m2));
  EXPECT_TRUE(same(show(&redo, &preview, &mask), m3));
  EXPECT_FALSE(canRedo());
  EXPECT_TRUE(same(show(&redo, &preview, &mask), m3)) << "nothing to redo: the newest again";
  EXPECT_TRUE(e2e::previewOutlinesObject(preview, source, m3));

  // 5. A new edit after an undo discards the redo.
  show(&undo, &preview, &mask);
  EXPECT_TRUE(canRedo());
  brush(remove, false, &preview);
  EXPECT_FALSE(canRedo());
  EXPECT_TRUE(canUndo());
}

}  // namespace
