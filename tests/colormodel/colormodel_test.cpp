// The colour model against direct formulas, training samples from labelled
// images, k-means on separated blobs.
#include <gtest/gtest.h>
#include <opencv2/core/core_c.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "colormodel/Clustering.h"
#include "colormodel/TrainingData.h"
#include "colormodel/ZIRKSEColorModel.h"
#include "engine/ZIRKSEMarker.h"

namespace {

cv::Vec3d vec(const pixelVal& x) { return cv::Vec3d(x.c0, x.c1, x.c2); }

// exp(-0.5 (x-mu)^T S^-1 (x-mu)) / sqrt(det S) through OpenCV's Cholesky
// solve and determinant, without (2 pi)^(-3/2).
double density(const double* mean, const double* cov, const pixelVal& x) {
  const cv::Matx33d s(cov);
  const cv::Vec3d d = vec(x) - cv::Vec3d(mean);
  return std::exp(-0.5 * d.dot(s.solve(d, cv::DECOMP_CHOLESKY))) / std::sqrt(cv::determinant(s));
}

// Appends count samples of a Gaussian blob with a diagonal spread to out.
void blob(std::mt19937& rng, const double* mean, double sd, int count, std::vector<pixelVal>* out) {
  std::normal_distribution<double> g(0.0, sd);
  for (int i = 0; i < count; ++i) out->push_back(pixelVal{mean[0] + g(rng), mean[1] + g(rng), mean[2] + g(rng)});
}

// Share, mean and covariance of the samples weighted by w by direct sums
// (0/1 weights: the population moments of the chosen samples).
struct Moments {
  double weight = 0.0;
  cv::Vec3d mean;
  cv::Matx33d cov;
};
Moments moments(const std::vector<pixelVal>& s, const std::vector<double>& w) {
  Moments m;
  double total = 0;
  for (size_t i = 0; i < s.size(); ++i) total += w[i], m.mean += w[i] * vec(s[i]);
  m.mean /= total;
  for (size_t i = 0; i < s.size(); ++i) m.cov += w[i] / total * (vec(s[i]) - m.mean) * (vec(s[i]) - m.mean).t();
  m.weight = total / s.size();
  return m;
}

class ColorModel : public ::testing::Test {
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

void refresh(ZIRKSEColorModel* m) {
  m->setDeterminant();
  m->setInverseCovariance();
}

// Random present components (weights summing to 1) with random
// positive-definite covariances A A^T + 0.5 I, means in the colour cube.
ZIRKSEColorModel randomModel(std::mt19937& rng) {
  ZIRKSEColorModel m;
  std::uniform_real_distribution<double> w(0.05, 1.0), mu(0.0, 255.0), scale(1.0, 12.0);
  double total = 0;
  for (int k = 0; k < 5; ++k) total += (m.m_weight[k] = w(rng));
  for (int k = 0; k < 5; ++k) {
    m.m_weight[k] /= total;
    for (double& v : m.m_mean[k]) v = mu(rng);
    const double sc = scale(rng);
    std::uniform_real_distribution<double> entry(-sc, sc);
    cv::Matx33d a;
    for (double& v : a.val) v = entry(rng);
    const cv::Matx33d cov = a * a.t() + 0.5 * cv::Matx33d::eye();
    std::copy(cov.val, cov.val + 9, m.m_covariance[k]);
  }
  refresh(&m);
  return m;
}

// Colour densities against the direct formula, the grey densities against
// the one-dimensional formula on channel 0; an empty model.
TEST_F(ColorModel, DensitiesMatchDirectFormulas) {
  std::mt19937 rng(7);
  for (int trial = 0; trial < 50; ++trial) {
    ZIRKSEColorModel m = randomModel(rng);
    std::vector<pixelVal> xs;
    for (int k = 0; k < 20; ++k) blob(rng, m.m_mean[k % 5], 6.0, 1, &xs);
    for (const pixelVal& x : xs) {
      double mix = 0, grey = 0;
      for (int k = 0; k < 5; ++k) {
        const double expected = density(m.m_mean[k], m.m_covariance[k], x);
        const double v = m.m_covariance[k][0], d = x.c0 - m.m_mean[k][0];
        const double expectedGrey = std::exp(-d * d / (2 * v)) / std::sqrt(v);
        EXPECT_NEAR(m.gaussianProb(k, x), expected, 1e-9 * expected + 1e-300);
        EXPECT_NEAR(m.gaussianProbGreyScale(k, x), expectedGrey, 1e-12);
        mix += m.m_weight[k] * expected;
        grey += m.m_weight[k] * expectedGrey;
      }
      EXPECT_NEAR(m.GMMProb(x), mix, 1e-9 * mix + 1e-300);
      EXPECT_NEAR(m.GMMProbGreyScale(x), grey, 1e-12 * grey + 1e-300);
    }
  }
  ZIRKSEColorModel fresh;
  EXPECT_EQ(fresh.GMMProb(pixelVal{1, 2, 3}), 0.0);
  EXPECT_EQ(fresh.assignCluster(pixelVal{1, 2, 3}), 0);

  // A singular covariance is loaded on its diagonal (a noise level of 0, its
  // value before the engine starts, falls back to 0.1); a NaN one switches its
  // component off instead of looping forever, and the others still count.
  ZIRKSEMarker::m_noiseLevel = 0.0;
  ZIRKSEColorModel z = randomModel(rng);
  std::fill_n(z.m_covariance[1], 9, 0.0);
  z.m_covariance[2][4] = std::numeric_limits<double>::quiet_NaN();
  refresh(&z);
  for (int i = 0; i < 9; ++i) EXPECT_NEAR(z.m_covariance[1][i], i % 4 == 0 ? 0.1 : 0.0, 1e-12);
  EXPECT_NEAR(z.gaussianProb(1, pixelVal{z.m_mean[1][0], z.m_mean[1][1], z.m_mean[1][2]}), std::pow(0.1, -1.5), 1e-9);
  const pixelVal x{z.m_mean[2][0], z.m_mean[2][1], z.m_mean[2][2]};
  double others = 0;
  for (int k = 0; k < 5; ++k) others += k == 2 ? 0.0 : z.m_weight[k] * density(z.m_mean[k], z.m_covariance[k], x);
  EXPECT_EQ(z.gaussianProb(2, x), 0.0);
  EXPECT_NEAR(z.GMMProb(x), others, 1e-9 * others + 1e-300);
}

// The exponential-free ranking gives assignCluster's answer on random
// models, near and far from the components, and that answer is the
// component of highest density by the direct formula wherever the top two
// densities are clearly apart. Ties (a duplicated component), densities that
// underflow far from tight components, absent components and a NaN colour
// take the model's own formula and agree as well.
TEST_F(ColorModel, NearestComponentIsAssignCluster) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> cube(-40.0, 295.0);
  for (int trial = 0; trial < 40; ++trial) {
    ZIRKSEColorModel m = randomModel(rng);
    const NearestComponent nearest(m);
    for (int i = 0; i < 400; ++i) {
      pixelVal x{cube(rng), cube(rng), cube(rng)};
      if (i % 2 == 0) {
        std::vector<pixelVal> near;
        blob(rng, m.m_mean[i % 5], 4.0 + i % 40, 1, &near);
        x = near[0];
      }
      const int k = nearest(x);
      ASSERT_EQ(k, m.assignCluster(x));
      double first = -1, second = -1;
      int best = -1;
      for (int j = 0; j < 5; ++j) {
        const double d = density(m.m_mean[j], m.m_covariance[j], x);
        if (d > first) {
          second = first;
          first = d;
          best = j;
        } else if (d > second) {
          second = d;
        }
      }
      if (first > 1e-290 && second < first * (1 - 1e-9)) {
        EXPECT_EQ(k, best);
      }
    }
  }

  ZIRKSEColorModel twin = randomModel(rng);
  for (int k = 3; k < 5; ++k) {
    std::copy_n(twin.m_mean[1], 3, twin.m_mean[k]);
    std::copy_n(twin.m_covariance[1], 9, twin.m_covariance[k]);
  }
  refresh(&twin);
  twin.m_determinant[0] = 0.0;  // absent
  const NearestComponent twins(twin);
  const pixelVal atTwin{twin.m_mean[1][0], twin.m_mean[1][1], twin.m_mean[1][2]};
  EXPECT_EQ(twins(atTwin), 1);
  const pixelVal nan{std::numeric_limits<double>::quiet_NaN(), 0, 0};
  EXPECT_EQ(twins(nan), twin.assignCluster(nan));

  ZIRKSEColorModel tight = randomModel(rng);
  for (auto& c : tight.m_covariance) std::fill_n(c, 9, 0.0);
  for (auto& c : tight.m_covariance) c[0] = c[4] = c[8] = 0.01;
  refresh(&tight);
  const NearestComponent tights(tight);
  for (int i = 0; i < 200; ++i) {
    const pixelVal x{cube(rng), cube(rng), cube(rng)};
    EXPECT_EQ(tights(x), tight.assignCluster(x));
  }
}

// colorModelCriteria on two components: weights w0, w1, determinants d0, d1,
// means (0, 50, 0) and (x1, 50, z1).
TEST_F(ColorModel, SimplicityTestThresholds) {
  const double nan = std::nan("");
  const struct { const char* what; double w0, w1, d0, d1, x1, z1; bool simple; } rows[] = {
      {"means closer than 100", 0.5, 0.5, 50, 50, 99.99, 0, true},
      {"100 apart, a dominant determinant of 1", 0.5, 0.5, 0.5, 1.0, 100, 0, false},
      {"weight 0.05 is not significant", 0.95, 0.05, 50, 50, 1000, 0, true},
      {"weight just above 0.05 is", 0.9499, 0.0501, 50, 50, 1000, 0, false},
      {"weight 0.35 is not dominant", 0.65, 0.35, 0.5, 50, 1000, 0, true},
      {"a NaN determinant counts as below 1", 0.5, 0.5, nan, 0.2, 300, 0, true},
      {"distance over all channels: 100", 0.5, 0.5, 5, 5, 60, 80, false},
  };
  for (const auto& r : rows) {
    ZIRKSEColorModel m;
    m.m_weight[0] = r.w0, m.m_weight[1] = r.w1;
    m.m_determinant[0] = r.d0, m.m_determinant[1] = r.d1;
    m.m_mean[0][1] = m.m_mean[1][1] = 50;
    m.m_mean[1][0] = r.x1, m.m_mean[1][2] = r.z1;
    EXPECT_EQ(m.colorModelCriteria(), r.simple) << r.what;
  }
}

// Fewer than five samples change nothing; one step against
// responsibilities from the direct formula.
TEST_F(ColorModel, EmShortListsAndOneStep) {
  std::mt19937 rng(31);
  ZIRKSEColorModel m = randomModel(rng);
  const ZIRKSEColorModel before = m;
  m.EM(std::vector<pixelVal>(4, pixelVal{1, 2, 3}), 5);
  EXPECT_EQ(std::memcmp(&m, &before, sizeof m), 0);

  std::vector<pixelVal> samples;
  const double centres[3][3] = {{30, 40, 50}, {200, 60, 20}, {90, 180, 220}};
  for (const auto& c : centres) blob(rng, c, 8.0, 60, &samples);
  m = randomModel(rng);
  for (int k = 0; k < 3; ++k)
    for (int c = 0; c < 3; ++c) m.m_mean[k][c] = centres[k][c] + 5;
  refresh(&m);
  std::vector<std::vector<double>> r(5);  // responsibilities per component
  for (const pixelVal& x : samples) {
    double p[5], total = 0;
    for (int k = 0; k < 5; ++k) total += p[k] = m.m_weight[k] * density(m.m_mean[k], m.m_covariance[k], x);
    for (int k = 0; k < 5; ++k) r[k].push_back(p[k] / total);
  }
  m.EM(samples, 1);
  for (int k = 0; k < 5; ++k) {
    const Moments want = moments(samples, r[k]);
    EXPECT_NEAR(m.m_weight[k], want.weight, 1e-9);
    if (want.weight < 0.01) continue;  // a near-empty component amplifies rounding in its moments
    EXPECT_LT(cv::norm(cv::Vec3d(m.m_mean[k]) - want.mean), 1e-6);
    EXPECT_LT(cv::norm(cv::Matx33d(m.m_covariance[k]) - want.cov), 1e-6 * (1 + cv::norm(want.cov)));
  }
}

// Samples as triples comparable with EXPECT_EQ; a list padded to five with (10, 20, 30).
std::vector<cv::Vec3d> triples(const std::vector<pixelVal>& s) {
  std::vector<cv::Vec3d> t;
  for (const pixelVal& p : s) t.push_back(vec(p));
  return t;
}
std::vector<cv::Vec3d> padded(std::vector<cv::Vec3d> t) {
  t.resize(std::max<size_t>(t.size(), 5), cv::Vec3d(10, 20, 30));
  return t;
}

// Labels 2/4 to the first list and 1/3 to the second, row by row, bytes
// read unsigned; short lists padded to five; grey images read the texture
// maps at the box offset; a box reaching past the texture maps is refused.
TEST_F(ColorModel, ExtractSortsPadsAndReadsTextureAtTheBoxOffset) {
  uint8_t labels[4][5] = {{0, 1, 2, 3, 4}, {5, 7, 255, 2, 1}, {4, 4, 3, 3, 0}, {2, 1, 2, 1, 6}};
  cv::Mat src(4, 5, CV_8UC3), lab(4, 5, CV_8UC1, labels), texH(8, 10, CV_8UC1), texV(8, 10, CV_8UC1);
  cv::randu(texH, 0, 256), cv::randu(texV, 0, 256);
  std::vector<cv::Vec3d> want[2], wantGrey[2];  // object, background
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 5; ++x) {
      const cv::Vec3b c(10 * x + y, 100 + x, 250 - y);  // channel 2 above 127
      src.at<cv::Vec3b>(y, x) = c;
      if (labels[y][x] < 1 || labels[y][x] > 4) continue;
      want[labels[y][x] % 2].push_back(cv::Vec3d(c));
      const uint8_t h = texH.at<uint8_t>(y + 1, x + 2), v = texV.at<uint8_t>(y + 1, x + 2);  // box at (2, 1)
      wantGrey[labels[y][x] % 2].push_back(cv::Vec3d(c[0], h, v));
    }
  IplImage srcI = cvIplImage(src), labI = cvIplImage(lab), texHI = cvIplImage(texH), texVI = cvIplImage(texV);
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
  extractTrainingData(&srcI, nullptr, first, second);  // no labels: padding only
  EXPECT_EQ(triples(first), padded({}));
  ZIRKSEMarker::m_xMinBBox = 8;
  extractTrainingData(&srcI, &labI, first, second);
  EXPECT_EQ(triples(second), padded({}));
}

struct KMeansRun {
  std::vector<int> labels;
  std::vector<pixelVal> centres;
  int iterations;
};
KMeansRun runKMeans(std::vector<pixelVal> s, int maxIterations = 10) {
  KMeansRun r{std::vector<int>(s.size(), -1), std::vector<pixelVal>(5, pixelVal{-1, -1, -1}), g_kmeansIterations};
  std::vector<double*> samples, centres;
  for (pixelVal& p : s) samples.push_back(&p.c0);
  for (pixelVal& c : r.centres) centres.push_back(&c.c0);
  k_means(samples.data(), r.labels.data(), static_cast<int>(s.size()), 0.0, maxIterations, centres.data());
  r.iterations = g_kmeansIterations - r.iterations;
  return r;
}

// Each blob ends in its own cluster centred on the blob's mean, the same
// whatever state the C library's generator was left in and whether the
// quarters run on four threads or one; the iteration limit ends the loop; no
// samples are refused.
TEST(KMeans, RecoversFiveSeparatedBlobsDeterministically) {
  std::mt19937 rng(3);  // five separated blobs of different sizes and spreads
  const double means[5][3] = {{20, 30, 40}, {220, 40, 30}, {40, 210, 60}, {50, 60, 220}, {210, 200, 190}};
  std::vector<pixelVal> s;
  std::vector<int> blobOf;
  for (int k = 0; k < 5; ++k) {
    blob(rng, means[k], 3.0 + k, 80 + 40 * k, &s);
    blobOf.resize(s.size(), k);
  }
  const KMeansRun r = runKMeans(s);
  std::vector<int> clusterOfBlob(5, -1);
  for (size_t i = 0; i < s.size(); ++i) {
    if (clusterOfBlob[blobOf[i]] < 0) clusterOfBlob[blobOf[i]] = r.labels[i];
    ASSERT_EQ(r.labels[i], clusterOfBlob[blobOf[i]]) << "sample " << i;
  }
  for (int b = 0; b < 5; ++b) {
    ASSERT_EQ(std::count(clusterOfBlob.begin(), clusterOfBlob.end(), clusterOfBlob[b]), 1);
    std::vector<double> member;
    for (int m : blobOf) member.push_back(m == b);
    EXPECT_LT(cv::norm(vec(r.centres[clusterOfBlob[b]]) - moments(s, member).mean), 1e-9);
  }
  ASSERT_TRUE(r.iterations >= 3 && r.iterations < 10) << r.iterations;
  EXPECT_EQ(runKMeans(s, r.iterations - 1).iterations, r.iterations - 1);
  const int32_t threshold = g_kmeansThreadedSamples;
  for (int repeat = 0; repeat < 3; ++repeat) {
    srand(1234 + repeat);
    rand();
    g_kmeansThreadedSamples = repeat == 2 ? 1 : threshold;
    const KMeansRun again = runKMeans(s);
    EXPECT_EQ(again.labels, r.labels);
    for (int k = 0; k < 5; ++k) EXPECT_EQ(vec(again.centres[k]), vec(r.centres[k]));
  }
  g_kmeansThreadedSamples = threshold;
  EXPECT_EQ(runKMeans({}).iterations, 0);  // no samples at all are refused
}

}  // namespace
