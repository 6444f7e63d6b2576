// The mixture model: densities against a direct formula, diagonal loading of
// singular covariances, component choice, the simplicity test and EM.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "Oracle.h"
#include "colormodel/ZIRKSEColorModel.h"
#include "common/LogCapture.h"
#include "engine/ZIRKSEMarker.h"

namespace {

class ColorModel : public ::testing::Test {
 protected:
  void SetUp() override { ZIRKSEMarker::m_noiseLevel = 0.1; }
  void TearDown() override { ZIRKSEMarker::m_noiseLevel = saved_; }
  const double saved_ = ZIRKSEMarker::m_noiseLevel;
};

// Random present components (weights summing to 1) with random
// positive-definite covariances, means in the colour cube.
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
    cv::Matx33d a;  // covariance A A^T + 0.5 I
    for (double& v : a.val) v = entry(rng);
    const cv::Matx33d cov = a * a.t() + 0.5 * cv::Matx33d::eye();
    std::copy(cov.val, cov.val + 9, m.m_covariance[k]);
  }
  m.setDeterminant();
  m.setInverseCovariance();
  return m;
}

pixelVal near(std::mt19937& rng, const double* mean, double spread) {
  std::normal_distribution<double> g(0.0, spread);
  return pixelVal{mean[0] + g(rng), mean[1] + g(rng), mean[2] + g(rng)};
}

// Colour densities against the direct formula, the grey densities against
// the one-dimensional formula on channel 0, and components switched off
// (weight 0 or determinant 0) contributing nothing.
TEST_F(ColorModel, DensitiesMatchDirectFormulas) {
  std::mt19937 rng(7);
  for (int trial = 0; trial < 50; ++trial) {
    ZIRKSEColorModel m = randomModel(rng);
    for (int k = 0; k < 5; ++k) {
      EXPECT_NEAR(m.m_determinant[k], cv::determinant(cv::Matx33d(m.m_covariance[k])),
                  1e-9 * m.m_determinant[k]);
    }
    for (int s = 0; s < 20; ++s) {
      const pixelVal x = near(rng, m.m_mean[s % 5], 6.0);
      double mix = 0, grey = 0;
      for (int k = 0; k < 5; ++k) {
        const double expected = oracle::density(m.m_mean[k], m.m_covariance[k], x);
        EXPECT_NEAR(m.gaussianProb(k, x), expected, 1e-9 * expected + 1e-300);
        mix += m.m_weight[k] * expected;
        const double v = m.m_covariance[k][0], d = x.c0 - m.m_mean[k][0];
        EXPECT_NEAR(m.gaussianProbGreyScale(k, x), std::exp(-d * d / (2 * v)) / std::sqrt(v),
                    1e-12);
        grey += m.m_weight[k] * std::exp(-d * d / (2 * v)) / std::sqrt(v);
      }
      EXPECT_NEAR(m.GMMProb(x), mix, 1e-9 * mix + 1e-300);
      EXPECT_NEAR(m.GMMProbGreyScale(x), grey, 1e-12 * grey + 1e-300);
    }
    // Switching one component off either way leaves exactly the other four.
    const int k0 = trial % 5;
    const pixelVal x = near(rng, m.m_mean[k0], 3.0);
    double others = 0;
    for (int k = 0; k < 5; ++k) others += k == k0 ? 0.0 : m.m_weight[k] * m.gaussianProb(k, x);
    ZIRKSEColorModel absent = m, zeroDet = m;
    absent.m_weight[k0] = 0;
    absent.setDeterminant();
    zeroDet.m_determinant[k0] = 0;
    for (ZIRKSEColorModel* off : {&absent, &zeroDet}) {
      EXPECT_EQ(off->gaussianProb(k0, x), 0.0);
      EXPECT_DOUBLE_EQ(off->GMMProb(x), others);
    }
  }
  ZIRKSEColorModel fresh;
  EXPECT_EQ(fresh.GMMProb(pixelVal{1, 2, 3}), 0.0);
  EXPECT_EQ(fresh.assignCluster(pixelVal{1, 2, 3}), 0);
}

// A (nearly) singular covariance gets the noise level added to its diagonal
// until the determinant exceeds epsilon: an all-zero one once with 0.1, seven
// times with 1e-6 (cbrt(2.22e-16) = 6.06e-6). A noise level of 0 (its value
// before the engine starts) falls back to 0.1 with a log line; a NaN
// covariance switches the component off instead of looping forever.
TEST_F(ColorModel, SingularCovarianceIsLoadedOnTheDiagonal) {
  LogCapture log;
  for (const auto& [noise, diagonal] :
       {std::pair<double, double>{0.1, 0.1}, {1e-6, 7e-6}, {0.0, 0.1}}) {
    ZIRKSEMarker::m_noiseLevel = noise;
    ZIRKSEColorModel m;
    m.m_weight[1] = 1.0;
    m.m_mean[1][0] = 10;
    m.setDeterminant();
    m.setInverseCovariance();
    for (int i = 0; i < 9; ++i)
      EXPECT_NEAR(m.m_covariance[1][i], i % 4 == 0 ? diagonal : 0.0, 1e-12) << noise;
    // At the mean the factor; one standard deviation off it falls by exp(-0.5).
    const double factor = std::pow(diagonal, -1.5), sd = std::sqrt(diagonal);
    EXPECT_NEAR(m.gaussianProb(1, pixelVal{10, 0, 0}), factor, 1e-9 * factor) << noise;
    EXPECT_NEAR(m.gaussianProb(1, pixelVal{10 + sd, 0, 0}), std::exp(-0.5) * factor, 1e-9 * factor)
        << noise;
  }
  EXPECT_EQ(log.countPrefix("Error", "setInverseCovariance: noise level"), 1) << log.dump();
  ZIRKSEColorModel z;
  z.m_weight[0] = 1.0;
  z.m_covariance[0][4] = std::numeric_limits<double>::quiet_NaN();
  z.setDeterminant();
  z.setInverseCovariance();
  EXPECT_EQ(z.GMMProb(pixelVal{0, 0, 0}), 0.0);
}

TEST_F(ColorModel, AssignClusterPicksHighestUnweightedDensityTiesLow) {
  // Components 1 and 3 identical, 3 with the larger weight: the lower wins.
  // Component 0 is narrow and light, 4 broad and heavy: near its mean 0 wins
  // although the posterior would favour 4.
  ZIRKSEColorModel m;
  const double weight[5] = {0.001, 0.1, 0, 0.9, 0.998}, var[5] = {1, 25, 0, 25, 4};
  const double mean[5] = {-300, 100, 0, 100, -300};
  for (int k : {0, 1, 3, 4}) {
    m.m_weight[k] = weight[k];
    m.m_mean[k][0] = mean[k];
    m.m_covariance[k][0] = m.m_covariance[k][4] = m.m_covariance[k][8] = var[k];
  }
  m.setDeterminant();
  m.setInverseCovariance();
  EXPECT_EQ(m.assignCluster(pixelVal{100, 0, 0}), 1);
  EXPECT_EQ(m.assignCluster(pixelVal{140, 30, -20}), 1);
  const pixelVal x{-299.5, 0, 0};
  ASSERT_LT(m.m_weight[0] * m.gaussianProb(0, x), m.m_weight[4] * m.gaussianProb(4, x));
  EXPECT_EQ(m.assignCluster(x), 0);
}

// colorModelCriteria of components with the given weights, x-means and
// determinants (component 1 also at z = meanZ1).
bool simple(const std::vector<double>& weights, const std::vector<double>& meanX,
            const std::vector<double>& dets, double meanZ1 = 0) {
  ZIRKSEColorModel m;
  for (size_t k = 0; k < weights.size(); ++k) {
    m.m_weight[k] = weights[k];
    m.m_mean[k][0] = meanX[k];
    m.m_mean[k][1] = 50;
    m.m_determinant[k] = dets[k];
  }
  m.m_mean[1][2] = meanZ1;
  return m.colorModelCriteria();
}

TEST_F(ColorModel, SimplicityTestThresholds) {
  // One significant component: simple.
  EXPECT_TRUE(simple({0.9, 0.05, 0.05}, {0, 500, 900}, {50, 50, 50}));
  // Significant means closer than 100: simple whatever the determinants;
  // exactly 100 apart: decided by the dominant components' determinants.
  EXPECT_TRUE(simple({0.5, 0.5}, {0, 99.99}, {50, 50}));
  EXPECT_TRUE(simple({0.5, 0.5}, {0, 100}, {0.999, 0.5}));
  EXPECT_FALSE(simple({0.5, 0.5}, {0, 100}, {0.5, 1.0}));
  // A weight of exactly 0.05 is not significant; just above it is.
  EXPECT_TRUE(simple({0.95, 0.05}, {0, 1000}, {50, 50}));
  EXPECT_FALSE(simple({0.9499, 0.0501}, {0, 1000}, {50, 50}));
  // A weight of exactly 0.35 is not dominant: its large determinant is ignored.
  EXPECT_TRUE(simple({0.65, 0.35}, {0, 1000}, {0.5, 50}));
  EXPECT_FALSE(simple({0.64, 0.36}, {0, 1000}, {0.5, 50}));
  // Spread out without any dominant component: not simple.
  EXPECT_FALSE(
      simple({0.2, 0.2, 0.2, 0.2, 0.2}, {0, 200, 400, 600, 800}, {0.1, 0.1, 0.1, 0.1, 0.1}));
  // A NaN determinant counts as below 1.
  EXPECT_TRUE(simple({0.5, 0.5}, {0, 300}, {std::nan(""), 0.2}));
  // The distance is taken over all three channels: sqrt(60^2 + 80^2) = 100.
  EXPECT_FALSE(simple({0.5, 0.5}, {0, 60}, {5, 5}, 80));
  EXPECT_TRUE(simple({0.5, 0.5}, {0, 60}, {5, 5}, 79.9));
}

TEST_F(ColorModel, EmShortListsZeroIterationsAndOneStep) {
  std::mt19937 rng(31);
  ZIRKSEColorModel m = randomModel(rng);
  const ZIRKSEColorModel before = m;
  m.EM(std::vector<pixelVal>(4, pixelVal{1, 2, 3}), 5);  // fewer than five samples: nothing
  EXPECT_EQ(std::memcmp(&m, &before, sizeof m), 0);
  m.m_covariance[2][0] += 7.0;  // zero iterations: only determinants and inverses are refreshed
  m.EM(std::vector<pixelVal>(5, pixelVal{1, 2, 3}), 0);
  EXPECT_EQ(std::memcmp(m.m_mean, before.m_mean, sizeof m.m_mean), 0);
  EXPECT_NEAR(m.m_determinant[2], cv::determinant(cv::Matx33d(m.m_covariance[2])),
              1e-9 * m.m_determinant[2]);

  // One step against responsibilities from the direct formula.
  std::vector<pixelVal> samples;
  const double centres[3][3] = {{30, 40, 50}, {200, 60, 20}, {90, 180, 220}};
  for (const auto& c : centres) oracle::blob(rng, c, 8.0, 60, &samples);
  m = randomModel(rng);
  for (int k = 0; k < 3; ++k)
    for (int c = 0; c < 3; ++c) m.m_mean[k][c] = centres[k][c] + 5;
  m.setDeterminant();
  m.setInverseCovariance();
  std::vector<std::vector<double>> r(5);  // responsibilities per component
  for (const pixelVal& x : samples) {
    double p = 0;
    for (int k = 0; k < 5; ++k)
      p += m.m_weight[k] * oracle::density(m.m_mean[k], m.m_covariance[k], x);
    for (int k = 0; k < 5; ++k)
      r[k].push_back(m.m_weight[k] * oracle::density(m.m_mean[k], m.m_covariance[k], x) / p);
  }
  m.EM(samples, 1);
  for (int k = 0; k < 5; ++k) {
    const oracle::Moments want = oracle::moments(samples, r[k]);
    EXPECT_NEAR(m.m_weight[k], want.weight, 1e-9);
    // Heavy components only: one with almost no responsibility amplifies
    // rounding in its moments.
    if (want.weight < 0.01) continue;
    EXPECT_LT(cv::norm(cv::Vec3d(m.m_mean[k]) - want.mean), 1e-6);
    EXPECT_LT(cv::norm(cv::Matx33d(m.m_covariance[k]) - want.cov), 1e-6 * (1 + cv::norm(want.cov)));
  }
}

}  // namespace
