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
  void SetUp() override {
    noise_ = ZIRKSEMarker::m_noiseLevel;
    ZIRKSEMarker::m_noiseLevel = 0.1;
  }
  void TearDown() override {
    ZIRKSEMarker::m_noiseLevel = noise_;
    ZIRKSEMarker::m_isGreyScale = false;
    ZIRKSEMarker::m_xMinBBox = 0;
    ZIRKSEMarker::m_yMinBBox = 0;
    ZIRK_ReleaseImage(&ZIRKSEMarker::m_texHor);
    ZIRK_ReleaseImage(&ZIRKSEMarker::m_texVer);
    for (IplImage*& img : images_) ZIRK_ReleaseImage(&img);
  }

  IplImage* image(int w, int h, int channels) {
    IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, channels);
    cvSetZero(img);
    images_.push_back(img);
    return img;
  }
  static uint8_t* at(IplImage* img, int x, int y) {
    return reinterpret_cast<uint8_t*>(img->imageData) + y * img->widthStep + x * img->nChannels;
  }

  std::vector<IplImage*> images_;
  double noise_ = 0;
};

bool same(const pixelVal& a, const pixelVal& b) { return a.c0 == b.c0 && a.c1 == b.c1 && a.c2 == b.c2; }

void expectSamples(const std::vector<pixelVal>& got, const std::vector<pixelVal>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i)
    EXPECT_TRUE(same(got[i], want[i])) << i << ": " << got[i].c0 << "," << got[i].c1 << "," << got[i].c2;
}

const pixelVal kPad{10, 20, 30};

// Blobs with known membership, different sizes and spreads.
struct Blobs {
  std::vector<pixelVal> samples;
  std::vector<int> member;
};
Blobs fiveBlobs(unsigned seed) {
  std::mt19937 rng(seed);
  const double means[5][3] = {{20, 30, 40}, {220, 40, 30}, {40, 210, 60}, {50, 60, 220}, {210, 200, 190}};
  const int sizes[5] = {300, 120, 200, 80, 250};
  Blobs b;
  for (int k = 0; k < 5; ++k) {
    oracle::blob(rng, means[k], 3.0 + k, sizes[k], &b.samples);
    b.member.insert(b.member.end(), sizes[k], k);
  }
  return b;
}

double distSqTo(const double* a, const double* b) {
  return (a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) + (a[2] - b[2]) * (a[2] - b[2]);
}

// Each fitted component must carry the weight, mean and population
// covariance of exactly one blob.
void expectBlobMoments(const ZIRKSEColorModel& m, const Blobs& b) {
  const double n = static_cast<double>(b.samples.size());
  std::vector<bool> used(5, false);
  for (int blob = 0; blob < 5; ++blob) {
    double mean[3] = {}, cov[9] = {};
    int count = 0;
    for (size_t i = 0; i < b.samples.size(); ++i) {
      if (b.member[i] != blob) continue;
      const double x[3] = {b.samples[i].c0, b.samples[i].c1, b.samples[i].c2};
      for (int c = 0; c < 3; ++c) mean[c] += x[c];
      ++count;
    }
    for (double& v : mean) v /= count;
    for (size_t i = 0; i < b.samples.size(); ++i) {
      if (b.member[i] != blob) continue;
      const double x[3] = {b.samples[i].c0, b.samples[i].c1, b.samples[i].c2};
      for (int e = 0; e < 9; ++e) cov[e] += (x[e / 3] - mean[e / 3]) * (x[e % 3] - mean[e % 3]);
    }
    for (double& v : cov) v /= count;
    auto dist = [&](int j) {
      return distSqTo(m.m_mean[j], mean);
    };
    int k = 0;
    for (int j = 1; j < 5; ++j)
      if (dist(j) < dist(k)) k = j;
    EXPECT_FALSE(used[k]) << "two blobs in component " << k;
    used[k] = true;
    EXPECT_NEAR(m.m_weight[k], count / n, 1e-12);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(m.m_mean[k][c], mean[c], 1e-9);
    for (int e = 0; e < 9; ++e) EXPECT_NEAR(m.m_covariance[k][e], cov[e], 1e-6) << "blob " << blob;
    oracle::Mat3 inv;
    double det = 0;
    oracle::invert(oracle::fromRowMajor(cov), &inv, &det);
    EXPECT_NEAR(m.m_determinant[k], det, 1e-6 * det);
  }
}

TEST_F(TrainingData, ExtractSortsLabelsRowByRow) {
  IplImage* src = image(5, 4, 3);
  IplImage* lab = image(5, 4, 1);
  const uint8_t labels[4][5] = {{0, 1, 2, 3, 4}, {5, 7, 255, 2, 1}, {4, 4, 3, 3, 0}, {2, 1, 2, 1, 6}};
  std::vector<pixelVal> wantFirst, wantSecond;
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 5; ++x) {
      uint8_t* p = at(src, x, y);
      p[0] = static_cast<uint8_t>(10 * x + y);
      p[1] = static_cast<uint8_t>(100 + x);
      p[2] = static_cast<uint8_t>(250 - y);  // above 127: a signed read would go negative
      *at(lab, x, y) = labels[y][x];
      const pixelVal s{double(p[0]), double(p[1]), double(p[2])};
      if (labels[y][x] == 2 || labels[y][x] == 4) wantFirst.push_back(s);
      if (labels[y][x] == 1 || labels[y][x] == 3) wantSecond.push_back(s);
    }
  ASSERT_EQ(wantFirst.size(), 7u);
  ASSERT_EQ(wantSecond.size(), 7u);
  std::vector<pixelVal> first(100, pixelVal{1, 1, 1}), second(3, pixelVal{2, 2, 2});
  const size_t capacity = first.capacity();
  extractTrainingData(src, lab, first, second);
  expectSamples(first, wantFirst);
  expectSamples(second, wantSecond);
  EXPECT_EQ(first.capacity(), capacity);
}

TEST_F(TrainingData, ShortListsArePaddedToFive) {
  IplImage* src = image(3, 2, 3);
  IplImage* lab = image(3, 2, 1);
  // Four object pixels, no background pixel.
  for (int i = 0; i < 4; ++i) {
    *at(lab, i % 3, i / 3) = i % 2 ? 2 : 4;
    at(src, i % 3, i / 3)[0] = static_cast<uint8_t>(i + 1);
  }
  std::vector<pixelVal> first, second;
  extractTrainingData(src, lab, first, second);
  expectSamples(first, {{1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}, kPad});
  expectSamples(second, std::vector<pixelVal>(5, kPad));

  // No label image: five padding samples each.
  extractTrainingData(src, nullptr, first, second);
  expectSamples(first, std::vector<pixelVal>(5, kPad));
  expectSamples(second, std::vector<pixelVal>(5, kPad));

  // Images of different sizes are refused with a log line.
  LogCapture log;
  extractTrainingData(src, image(4, 2, 1), first, second);
  expectSamples(first, std::vector<pixelVal>(5, kPad));
  EXPECT_EQ(log.count(6, "Error", "extractTrainingData: source and label images do not match"), 1)
      << log.dump();
}

TEST_F(TrainingData, GreyImagesReadTextureMapsAtTheBoxOffset) {
  IplImage* src = image(3, 2, 3);
  IplImage* lab = image(3, 2, 1);
  ZIRKSEMarker::m_texHor = cvCreateImage(cvSize(10, 8), IPL_DEPTH_8U, 1);
  ZIRKSEMarker::m_texVer = cvCreateImage(cvSize(10, 8), IPL_DEPTH_8U, 1);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 10; ++x) {
      *at(ZIRKSEMarker::m_texHor, x, y) = static_cast<uint8_t>(7 * x + y);
      *at(ZIRKSEMarker::m_texVer, x, y) = static_cast<uint8_t>(130 + x + 10 * y);
    }
  ZIRKSEMarker::m_isGreyScale = true;
  ZIRKSEMarker::m_xMinBBox = 4;
  ZIRKSEMarker::m_yMinBBox = 3;
  std::vector<pixelVal> wantFirst, wantSecond;
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 3; ++x) {
      uint8_t* p = at(src, x, y);
      p[0] = static_cast<uint8_t>(200 + 10 * y + x);
      p[1] = 1;
      p[2] = 2;
      *at(lab, x, y) = (x + y) % 2 ? 1 : 4;
      const pixelVal s{double(p[0]), double(7 * (x + 4) + y + 3), double(130 + (x + 4) + 10 * (y + 3))};
      ((x + y) % 2 ? wantSecond : wantFirst).push_back(s);
    }
  while (wantFirst.size() < 5) wantFirst.push_back(kPad);
  while (wantSecond.size() < 5) wantSecond.push_back(kPad);
  std::vector<pixelVal> first, second;
  extractTrainingData(src, lab, first, second);
  expectSamples(first, wantFirst);
  expectSamples(second, wantSecond);

  // A box reaching past the texture maps is refused, not read out of bounds.
  LogCapture log;
  ZIRKSEMarker::m_xMinBBox = 8;
  extractTrainingData(src, lab, first, second);
  expectSamples(first, std::vector<pixelVal>(5, kPad));
  EXPECT_EQ(log.count(6, "Error", "extractTrainingData: texture maps do not cover the box"), 1);
}

TEST_F(TrainingData, LiveFitOfPaddingGivesTwoComponents) {
  ZIRKSEColorModel m;
  initModelWithKmeansZIRK(std::vector<pixelVal>(5, kPad), m);
  const double weights[5] = {0.8, 0, 0, 0, 0.2};
  for (int k = 0; k < 5; ++k) EXPECT_DOUBLE_EQ(m.m_weight[k], weights[k]) << k;
  for (int k : {0, 4}) {
    EXPECT_TRUE(m.m_mean[k][0] == 10 && m.m_mean[k][1] == 20 && m.m_mean[k][2] == 30);
    for (double c : m.m_covariance[k]) EXPECT_EQ(c, 0.0);
    EXPECT_EQ(m.m_determinant[k], 0.0);
  }
  // The caller's loading then makes both usable.
  m.setInverseCovariance();
  for (int k : {0, 4}) {
    EXPECT_NEAR(m.m_determinant[k], 0.001, 1e-15);
    EXPECT_NEAR(m.m_invCovariance[k][4], 10.0, 1e-9);
  }
  EXPECT_NEAR(m.GMMProb(kPad), 1.0 / std::sqrt(0.001), 1e-9);
}

TEST_F(TrainingData, FitsCarryTheMomentsOfSeparatedBlobs) {
  const Blobs b = fiveBlobs(8);
  ZIRKSEColorModel live, cvFit;
  initModelWithKmeansZIRK(b.samples, live);
  expectBlobMoments(live, b);
  initModelWithKmeans(b.samples, cvFit);
  expectBlobMoments(cvFit, b);

  // The int of initModel changes nothing; the two-model form fits A then B.
  ZIRKSEColorModel a, c, d, e;
  initModel(b.samples, a, 10);
  initModel(b.samples, c, -3);
  EXPECT_EQ(std::memcmp(&a, &live, sizeof a), 0);
  EXPECT_EQ(std::memcmp(&c, &live, sizeof c), 0);
  const std::vector<pixelVal> pads(5, kPad);
  initModel(b.samples, pads, d, e, 0);
  EXPECT_EQ(std::memcmp(&d, &live, sizeof d), 0);
  EXPECT_DOUBLE_EQ(e.m_weight[0], 0.8);

  // Fewer than five samples leave a model untouched.
  ZIRKSEColorModel before = live;
  initModelWithKmeansZIRK(std::vector<pixelVal>(4, kPad), live);
  initModelWithKmeans(std::vector<pixelVal>(), live);
  EXPECT_EQ(std::memcmp(&before, &live, sizeof live), 0);
}

TEST_F(TrainingData, UpdateKeepsEmptiedComponents) {
  const Blobs b = fiveBlobs(9);
  ZIRKSEColorModel m;
  initModelWithKmeansZIRK(b.samples, m);
  m.setInverseCovariance();
  const ZIRKSEColorModel before = m;

  // Refit on the same samples: the same partition, the same moments.
  updateModel(b.samples, m);
  expectBlobMoments(m, b);

  // Samples all from one component: only that component changes.
  const int target = 2;
  std::mt19937 rng(10);
  std::vector<pixelVal> near;
  oracle::blob(rng, before.m_mean[target], 2.0, 50, &near);
  ZIRKSEColorModel u = before;
  LogCapture log;
  updateModel(near, u);
  EXPECT_EQ(log.countPrefix("TAG_MEM", ""), 0) << log.dump();
  double weightSum = 0;
  for (int k = 0; k < 5; ++k) {
    weightSum += u.m_weight[k];
    if (k == target) continue;
    EXPECT_EQ(u.m_weight[k], before.m_weight[k]);
    EXPECT_EQ(std::memcmp(u.m_mean[k], before.m_mean[k], sizeof u.m_mean[k]), 0);
    EXPECT_EQ(std::memcmp(u.m_covariance[k], before.m_covariance[k], sizeof u.m_covariance[k]), 0);
  }
  EXPECT_DOUBLE_EQ(u.m_weight[target], 1.0);
  EXPECT_GT(weightSum, 1.0);
  const pixelVal mean = [&] {
    pixelVal s{0, 0, 0};
    for (const pixelVal& x : near) s = pixelVal{s.c0 + x.c0, s.c1 + x.c1, s.c2 + x.c2};
    return pixelVal{s.c0 / 50, s.c1 / 50, s.c2 / 50};
  }();
  EXPECT_NEAR(u.m_mean[target][0], mean.c0, 1e-9);
  EXPECT_NEAR(u.m_mean[target][2], mean.c2, 1e-9);

  // The two-model form refits A then B.
  ZIRKSEColorModel a = before, c = before;
  updateModel(near, b.samples, a, c);
  EXPECT_EQ(std::memcmp(&a, &u, sizeof a), 0);
  expectBlobMoments(c, b);
}

TEST_F(TrainingData, ThirdInitialisationSeparatesObjectFromBackground) {
  // Background (label 1) reddish on the left; object (label 4) greenish on
  // the right, with a band of background colour over a third of the object's
  // labels: that third must end up in the background model only.
  IplImage* src = image(60, 40, 3);
  IplImage* lab = image(60, 40, 1);
  std::mt19937 rng(12);
  std::normal_distribution<double> g(0, 6);
  auto clamp = [](double v) { return static_cast<uint8_t>(std::min(255.0, std::max(0.0, v))); };
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 60; ++x) {
      const bool object = x >= 30;
      const bool stray = object && x < 40;  // exactly a third of the object labels
      const double base[3] = {object && !stray ? 40.0 : 50.0, object && !stray ? 180.0 : 40.0,
                              object && !stray ? 60.0 : 200.0};
      uint8_t* p = at(src, x, y);
      for (int c = 0; c < 3; ++c) p[c] = clamp(base[c] + g(rng));
      *at(lab, x, y) = object ? 4 : 1;
    }
  ZIRKSEColorModel a, b;
  initThirdInitalization(src, lab, a, b);
  a.setInverseCovariance();
  b.setInverseCovariance();
  const pixelVal green{40, 180, 60}, red{50, 40, 200};
  EXPECT_GT(a.GMMProb(green), 100 * b.GMMProb(green));
  EXPECT_GT(b.GMMProb(red), 100 * a.GMMProb(red));

  // Without labels both models stay as they were.
  ZIRKSEColorModel fresh, fresh2, zero;
  initThirdInitalization(src, nullptr, fresh, fresh2);
  EXPECT_EQ(std::memcmp(&fresh, &zero, sizeof zero), 0);
  EXPECT_EQ(std::memcmp(&fresh2, &zero, sizeof zero), 0);
}

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
    const cv::Rect box(cv::Point(int(p.x1 / f), int(p.y1 / f)), cv::Point(int(p.x2 / f), int(p.y2 / f)));
    cv::Mat labels(img.size(), CV_8UC1, cv::Scalar(1));
    labels(box).setTo(4);
    IplImage srcHeader = cvIplImage(img), labHeader = cvIplImage(labels);
    std::vector<pixelVal> fgSamples, bgSamples;
    extractTrainingData(&srcHeader, &labHeader, fgSamples, bgSamples);
    EXPECT_EQ(fgSamples.size(), static_cast<size_t>(box.area())) << name;
    ZIRKSEColorModel fg, bg;
    initModel(fgSamples, bgSamples, fg, bg, 10);
    fg.setInverseCovariance();
    bg.setInverseCovariance();
    // Inside the box, "object when the object model is likelier" must beat
    // calling the whole box object.
    cv::Mat mask(img.size(), CV_8UC1, cv::Scalar(0)), boxMask(img.size(), CV_8UC1, cv::Scalar(0));
    boxMask(box).setTo(255);
    for (int y = box.y; y < box.y + box.height; ++y)
      for (int x = box.x; x < box.x + box.width; ++x) {
        const cv::Vec3b v = img.at<cv::Vec3b>(y, x);
        const pixelVal s{double(v[0]), double(v[1]), double(v[2])};
        const double pf = fg.GMMProb(s), pb = bg.GMMProb(s);
        ASSERT_TRUE(std::isfinite(pf) && std::isfinite(pb)) << name;
        if (pf > pb) mask.at<uint8_t>(y, x) = 255;
      }
    ++photos;
    const double iou = intersectionOverUnion(mask, truth), boxIou = intersectionOverUnion(boxMask, truth);
    if (iou > boxIou) ++better;
    EXPECT_GT(iou, 0.3) << name << " box IoU " << boxIou;
    // One refit on the colour split keeps the models usable.
    updateModel(fgSamples, bgSamples, fg, bg);
    fg.setInverseCovariance();
    bg.setInverseCovariance();
    const cv::Vec3b c = img.at<cv::Vec3b>(box.y + box.height / 2, box.x + box.width / 2);
    EXPECT_TRUE(std::isfinite(fg.GMMProb(pixelVal{double(c[0]), double(c[1]), double(c[2])})));
  }
  EXPECT_GE(better, photos / 2) << better << " of " << photos;
}

}  // namespace
