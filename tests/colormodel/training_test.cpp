// Training samples from labelled images, and the fits of the colour model.
#include <gtest/gtest.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "Oracle.h"
#include "colormodel/TrainingData.h"
#include "common/LogCapture.h"
#include "common/PhotoSet.h"
#include "engine/ZIRKSEMarker.h"

namespace {

class TrainingData : public ::testing::Test {
 protected:
  void SetUp() override { ZIRKSEMarker::m_noiseLevel = 0.1; }
  void TearDown() override {
    ZIRKSEMarker::m_noiseLevel = noise_;
    ZIRKSEMarker::m_isGreyScale = false;
    ZIRKSEMarker::m_xMinBBox = ZIRKSEMarker::m_yMinBBox = 0;
    ZIRKSEMarker::m_texHor = ZIRKSEMarker::m_texVer = nullptr;  // headers of a test's own images
  }
  const double noise_ = ZIRKSEMarker::m_noiseLevel;
};

const pixelVal kPad{10, 20, 30};

// Samples as triples comparable with EXPECT_EQ; padded to five with kPad.
std::vector<cv::Vec3d> triples(const std::vector<pixelVal>& s) {
  std::vector<cv::Vec3d> t;
  for (const pixelVal& p : s) t.push_back(oracle::vec(p));
  return t;
}
std::vector<cv::Vec3d> padded(std::vector<cv::Vec3d> t) {
  t.resize(std::max<size_t>(t.size(), 5), oracle::vec(kPad));
  return t;
}

// Each blob is carried by exactly one component: its share, mean and
// population covariance.
void expectBlobMoments(const ZIRKSEColorModel& m, const std::vector<pixelVal>& s,
                       const std::vector<int>& member) {
  std::vector<bool> used(5, false);
  for (int blob = 0; blob < 5; ++blob) {
    const oracle::Moments want = oracle::moments(s, member, blob);
    int k = 0;
    for (int j = 1; j < 5; ++j)
      if (cv::norm(cv::Vec3d(m.m_mean[j]) - want.mean) <
          cv::norm(cv::Vec3d(m.m_mean[k]) - want.mean))
        k = j;
    EXPECT_FALSE(used[k]) << "two blobs in component " << k;
    used[k] = true;
    EXPECT_NEAR(m.m_weight[k], want.weight, 1e-12);
    EXPECT_LT(cv::norm(cv::Vec3d(m.m_mean[k]) - want.mean), 1e-9);
    EXPECT_LT(cv::norm(cv::Matx33d(m.m_covariance[k]) - want.cov), 1e-6) << "blob " << blob;
    EXPECT_NEAR(m.m_determinant[k], cv::determinant(want.cov), 1e-6 * m.m_determinant[k]);
  }
}

// Labels 2/4 to the first list and 1/3 to the second, row by row, bytes
// read unsigned; short lists padded to five; grey images read the texture
// maps at the box offset.
TEST_F(TrainingData, ExtractSortsPadsAndReadsTextureAtTheBoxOffset) {
  uint8_t labels[4][5] = {{0, 1, 2, 3, 4}, {5, 7, 255, 2, 1}, {4, 4, 3, 3, 0}, {2, 1, 2, 1, 6}};
  cv::Mat src(4, 5, CV_8UC3), lab(4, 5, CV_8UC1, labels), texH(8, 10, CV_8UC1),
      texV(8, 10, CV_8UC1);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 10; ++x) {
      texH.at<uint8_t>(y, x) = static_cast<uint8_t>(7 * x + y);
      texV.at<uint8_t>(y, x) = static_cast<uint8_t>(130 + x + 10 * y);
    }
  std::vector<cv::Vec3d> want[2], wantGrey[2];  // object, background
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 5; ++x) {
      // Channel 2 above 127: a signed read would go negative.
      const cv::Vec3b c(10 * x + y, 100 + x, 250 - y);
      src.at<cv::Vec3b>(y, x) = c;
      if (labels[y][x] < 1 || labels[y][x] > 4) continue;
      want[labels[y][x] % 2].push_back(cv::Vec3d(c));
      wantGrey[labels[y][x] % 2].push_back(
          cv::Vec3d(c[0], 7 * (x + 2) + y + 1, 130 + (x + 2) + 10 * (y + 1)));
    }
  IplImage srcI = cvIplImage(src), labI = cvIplImage(lab), texHI = cvIplImage(texH),
           texVI = cvIplImage(texV);
  std::vector<pixelVal> first(100, pixelVal{1, 1, 1}), second(3, pixelVal{2, 2, 2});
  extractTrainingData(&srcI, &labI, first, second);
  EXPECT_EQ(triples(first), want[0]);
  EXPECT_EQ(triples(second), want[1]);

  // Grey, box at (2, 1), only the top two rows labelled: three samples each.
  ZIRKSEMarker::m_isGreyScale = true;
  ZIRKSEMarker::m_texHor = &texHI;
  ZIRKSEMarker::m_texVer = &texVI;
  ZIRKSEMarker::m_xMinBBox = 2;
  ZIRKSEMarker::m_yMinBBox = 1;
  lab.rowRange(2, 4).setTo(0);
  extractTrainingData(&srcI, &labI, first, second);
  EXPECT_EQ(triples(first), padded({wantGrey[0].begin(), wantGrey[0].begin() + 3}));
  EXPECT_EQ(triples(second), padded({wantGrey[1].begin(), wantGrey[1].begin() + 3}));

  // No labels: padding only. A box reaching past the texture maps is refused
  // (one log line), not read out of bounds.
  extractTrainingData(&srcI, nullptr, first, second);
  EXPECT_EQ(triples(first), padded({}));
  LogCapture log;
  ZIRKSEMarker::m_xMinBBox = 8;
  extractTrainingData(&srcI, &labI, first, second);
  EXPECT_EQ(triples(second), padded({}));
  EXPECT_EQ(log.count(6, "Error", "extractTrainingData: texture maps do not cover the box"), 1)
      << log.dump();
}

// Fresh fits (the engine's k-means and OpenCV's) and refits carry each
// blob's moments in one component; a refit on samples of one component
// changes only that one, so the weights then sum to more than 1.
TEST_F(TrainingData, FitsAndRefitsCarryTheMomentsOfSeparatedBlobs) {
  std::vector<pixelVal> s;
  std::vector<int> member;
  oracle::fiveBlobs(8, &s, &member);
  ZIRKSEColorModel live, cvFit, a, pads;
  initModelWithKmeansZIRK(s, live);
  expectBlobMoments(live, s, member);
  initModelWithKmeans(s, cvFit);
  expectBlobMoments(cvFit, s, member);
  // The int of initModel changes nothing; the two-model form fits A then B
  // (five padding samples: k-means gives four of them to cluster 0, one to 4).
  initModel(s, a, -3);
  EXPECT_EQ(std::memcmp(&a, &live, sizeof a), 0);
  initModel(s, std::vector<pixelVal>(5, kPad), a, pads, 10);
  EXPECT_EQ(std::memcmp(&a, &live, sizeof a), 0);
  EXPECT_TRUE(pads.m_weight[0] == 0.8 && pads.m_weight[4] == 0.2 && pads.m_weight[1] == 0.0);
  // Fewer than five samples leave a model untouched.
  initModelWithKmeansZIRK(std::vector<pixelVal>(4, kPad), a);
  initModelWithKmeans(std::vector<pixelVal>(), a);
  EXPECT_EQ(std::memcmp(&a, &live, sizeof a), 0);

  live.setInverseCovariance();
  ZIRKSEColorModel refit = live, u = live, a2 = live, b2 = live;
  updateModel(s, refit);  // the same samples: the same partition, the same moments
  expectBlobMoments(refit, s, member);
  std::mt19937 rng(10);
  std::vector<pixelVal> near;
  oracle::blob(rng, live.m_mean[2], 2.0, 50, &near);
  updateModel(near, u);
  for (int k : {0, 1, 3, 4}) {
    EXPECT_EQ(u.m_weight[k], live.m_weight[k]);
    EXPECT_EQ(std::memcmp(u.m_mean[k], live.m_mean[k], sizeof u.m_mean[k]), 0);
    EXPECT_EQ(std::memcmp(u.m_covariance[k], live.m_covariance[k], sizeof u.m_covariance[k]), 0);
  }
  EXPECT_EQ(u.m_weight[2], 1.0);
  EXPECT_LT(
      cv::norm(cv::Vec3d(u.m_mean[2]) - oracle::moments(near, std::vector<int>(50, 0), 0).mean),
      1e-9);
  updateModel(near, s, a2, b2);  // the two-model form refits A then B
  EXPECT_EQ(std::memcmp(&a2, &u, sizeof a2), 0);
  expectBlobMoments(b2, s, member);
}

TEST_F(TrainingData, ThirdInitialisationSeparatesObjectFromBackground) {
  // Background (label 1) reddish on the left; object (label 4) greenish on
  // the right, with a band of background colour over a third of the object's
  // labels: that third must end up in the background model only.
  cv::Mat src(40, 60, CV_8UC3), lab(40, 60, CV_8UC1, cv::Scalar(1));
  lab.colRange(30, 60).setTo(4);
  std::mt19937 rng(12);
  std::normal_distribution<double> g(0, 6);
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 60; ++x) {
      const cv::Vec3d base = x >= 40 ? cv::Vec3d(40, 180, 60) : cv::Vec3d(50, 40, 200);
      for (int c = 0; c < 3; ++c)
        src.at<cv::Vec3b>(y, x)[c] = cv::saturate_cast<uint8_t>(base[c] + g(rng));
    }
  IplImage srcI = cvIplImage(src), labI = cvIplImage(lab);
  ZIRKSEColorModel a, b, fresh, zero;
  initThirdInitalization(&srcI, &labI, a, b);
  a.setInverseCovariance();
  b.setInverseCovariance();
  const pixelVal green{40, 180, 60}, red{50, 40, 200};
  EXPECT_GT(a.GMMProb(green), 100 * b.GMMProb(green));
  EXPECT_GT(b.GMMProb(red), 100 * a.GMMProb(red));
  // Without labels both models stay as they were.
  const ZIRKSEColorModel before = a;
  initThirdInitalization(&srcI, nullptr, a, fresh);
  EXPECT_EQ(std::memcmp(&a, &before, sizeof a), 0);
  EXPECT_EQ(std::memcmp(&fresh, &zero, sizeof zero), 0);
}

// Inside the box, "object where the object model is likelier" must beat
// calling the whole box object on most photos; a refit keeps the models usable.
TEST_F(TrainingData, RealPhotosRectangleModelsSeparateObjectFromBackground) {
  if (!photoSetAvailable()) GTEST_SKIP() << "photo set not available";
  int better = 0, photos = 0;
  for (const std::string& name : photoNames()) {
    Photo p = loadPhoto(name);
    ASSERT_FALSE(p.image.empty()) << name;
    // Working size as the engine uses it: at most about 76800 pixels.
    const double f = std::max(1.0, std::sqrt(p.image.total() / 76800.0));
    cv::Mat img, truth;
    cv::resize(p.image, img, cv::Size(), 1 / f, 1 / f, cv::INTER_AREA);
    cv::resize(p.truth, truth, img.size(), 0, 0, cv::INTER_NEAREST);
    const cv::Rect box(cv::Point(int(p.x1 / f), int(p.y1 / f)),
                       cv::Point(int(p.x2 / f), int(p.y2 / f)));
    cv::Mat labels(img.size(), CV_8UC1, cv::Scalar(1)), mask(img.size(), CV_8UC1, cv::Scalar(0));
    labels(box).setTo(4);
    IplImage srcI = cvIplImage(img), labI = cvIplImage(labels);
    std::vector<pixelVal> fg, bg;
    extractTrainingData(&srcI, &labI, fg, bg);
    EXPECT_EQ(fg.size(), static_cast<size_t>(box.area())) << name;
    ZIRKSEColorModel fgModel, bgModel;
    for (int round = 0; round < 2; ++round) {
      if (round == 0) initModel(fg, bg, fgModel, bgModel, 10);
      if (round == 1) updateModel(fg, bg, fgModel, bgModel);
      fgModel.setInverseCovariance();
      bgModel.setInverseCovariance();
      for (int y = box.y; y < box.y + box.height; ++y)
        for (int x = box.x; x < box.x + box.width; ++x) {
          const pixelVal s = oracle::pixel(img.at<cv::Vec3b>(y, x));
          const double pf = fgModel.GMMProb(s), pb = bgModel.GMMProb(s);
          ASSERT_TRUE(std::isfinite(pf) && std::isfinite(pb)) << name;
          if (round == 0 && pf > pb) mask.at<uint8_t>(y, x) = 255;
        }
    }
    const double iou = intersectionOverUnion(mask, truth),
                 boxIou = intersectionOverUnion(labels == 4, truth);
    better += iou > boxIou;
    ++photos;
    EXPECT_GT(iou, 0.3) << name << " box IoU " << boxIou;
  }
  EXPECT_GE(better, photos / 2) << better << " of " << photos;
}

}  // namespace
