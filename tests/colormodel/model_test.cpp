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
  void SetUp() override {
    saved_ = ZIRKSEMarker::m_noiseLevel;
    ZIRKSEMarker::m_noiseLevel = 0.1;
  }
  void TearDown() override { ZIRKSEMarker::m_noiseLevel = saved_; }

  // A model with random present components (weights summing to 1) whose
  // covariances are random positive-definite matrices.
  static ZIRKSEColorModel randomModel(std::mt19937& rng, oracle::Mat3 cov[5]) {
    ZIRKSEColorModel m;
    std::uniform_real_distribution<double> w(0.05, 1.0), mu(0.0, 255.0), scale(1.0, 12.0);
    double total = 0;
    for (int k = 0; k < 5; ++k) total += (m.m_weight[k] = w(rng));
    for (int k = 0; k < 5; ++k) {
      m.m_weight[k] /= total;
      for (double& v : m.m_mean[k]) v = mu(rng);
      cov[k] = oracle::randomSpd(rng, scale(rng), 0.5);
      for (int i = 0; i < 9; ++i) m.m_covariance[k][i] = cov[k].a[i / 3][i % 3];
    }
    m.setDeterminant();
    m.setInverseCovariance();
    return m;
  }

  double saved_ = 0;
};

pixelVal near(std::mt19937& rng, const double* mean, double spread) {
  std::normal_distribution<double> g(0.0, spread);
  return pixelVal{mean[0] + g(rng), mean[1] + g(rng), mean[2] + g(rng)};
}

TEST_F(ColorModel, DensitiesMatchDirectFormulaOnRandomModels) {
  std::mt19937 rng(7);
  for (int trial = 0; trial < 50; ++trial) {
    oracle::Mat3 cov[5];
    ZIRKSEColorModel m = randomModel(rng, cov);
    for (int k = 0; k < 5; ++k) {
      oracle::Mat3 inv;
      double det = 0;
      ASSERT_TRUE(oracle::invert(cov[k], &inv, &det));
      EXPECT_NEAR(m.m_determinant[k], det, 1e-9 * det);
      EXPECT_NEAR(m.m_normFactor[k], 1.0 / std::sqrt(det), 1e-9 / std::sqrt(det));
      for (int i = 0; i < 9; ++i)
        EXPECT_NEAR(m.m_invCovariance[k][i], inv.a[i / 3][i % 3], 1e-9 * (1 + std::fabs(inv.a[i / 3][i % 3])));
    }
    for (int s = 0; s < 20; ++s) {
      const int k0 = s % 5;
      const pixelVal x = near(rng, m.m_mean[k0], 6.0);
      double mix = 0;
      for (int k = 0; k < 5; ++k) {
        const double expected = oracle::density(m.m_mean[k], cov[k], x);
        EXPECT_NEAR(m.gaussianProb(k, x), expected, 1e-9 * expected + 1e-300);
        mix += m.m_weight[k] * expected;
      }
      EXPECT_NEAR(m.GMMProb(x), mix, 1e-9 * mix + 1e-300);
    }
  }
}

TEST_F(ColorModel, GreyScaleDensitiesUseChannelZeroOnly) {
  std::mt19937 rng(11);
  oracle::Mat3 cov[5];
  ZIRKSEColorModel m = randomModel(rng, cov);
  std::uniform_real_distribution<double> u(0, 255);
  for (int s = 0; s < 100; ++s) {
    const pixelVal x{u(rng), u(rng), u(rng)};
    const pixelVal other{x.c0, u(rng), u(rng)};
    double mix = 0;
    for (int k = 0; k < 5; ++k) {
      const double v = cov[k].a[0][0];
      const double d = x.c0 - m.m_mean[k][0];
      const double expected = std::exp(-d * d / (2 * v)) / std::sqrt(v);
      EXPECT_NEAR(m.gaussianProbGreyScale(k, x), expected, 1e-12 * expected + 1e-300);
      EXPECT_EQ(m.gaussianProbGreyScale(k, x), m.gaussianProbGreyScale(k, other));
      mix += m.m_weight[k] * expected;
    }
    EXPECT_NEAR(m.GMMProbGreyScale(x), mix, 1e-12 * mix + 1e-300);
  }
}

TEST_F(ColorModel, AbsentAndZeroDeterminantComponentsContributeNothing) {
  ZIRKSEColorModel fresh;
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-50, 300);
  for (int s = 0; s < 50; ++s) {
    const pixelVal x{u(rng), u(rng), u(rng)};
    EXPECT_EQ(fresh.GMMProb(x), 0.0);
    EXPECT_EQ(fresh.assignCluster(x), 0);
  }

  oracle::Mat3 cov[5];
  ZIRKSEColorModel m = randomModel(rng, cov);
  const pixelVal x = near(rng, m.m_mean[2], 3.0);
  // Switching component 2 off either way leaves exactly the other four.
  double others = 0;
  for (int k = 0; k < 5; ++k)
    if (k != 2) others += m.m_weight[k] * m.gaussianProb(k, x);
  ZIRKSEColorModel absent = m;
  absent.m_weight[2] = 0;
  absent.setDeterminant();
  absent.setInverseCovariance();
  EXPECT_EQ(absent.gaussianProb(2, x), 0.0);
  EXPECT_DOUBLE_EQ(absent.GMMProb(x), others);
  ZIRKSEColorModel zeroDet = m;
  zeroDet.m_determinant[2] = 0;
  EXPECT_EQ(zeroDet.gaussianProb(2, x), 0.0);
  EXPECT_DOUBLE_EQ(zeroDet.GMMProb(x), others);
}

TEST_F(ColorModel, SingularCovarianceIsLoadedOnTheDiagonal) {
  // All-zero covariance: one loading of 0.1 gives 0.1 I.
  ZIRKSEColorModel m;
  m.m_weight[1] = 1.0;
  m.m_mean[1][0] = 10;
  m.m_mean[1][1] = 20;
  m.m_mean[1][2] = 30;
  m.setDeterminant();
  EXPECT_EQ(m.m_determinant[1], 0.0);
  m.setInverseCovariance();
  for (int i = 0; i < 9; ++i) {
    const bool diag = i % 4 == 0;
    EXPECT_DOUBLE_EQ(m.m_covariance[1][i], diag ? 0.1 : 0.0) << i;
    EXPECT_NEAR(m.m_invCovariance[1][i], diag ? 10.0 : 0.0, 1e-9) << i;
  }
  EXPECT_NEAR(m.m_determinant[1], 0.001, 1e-15);
  EXPECT_NEAR(m.m_normFactor[1], 1.0 / std::sqrt(0.001), 1e-9);
  // Density at the mean is the factor; one unit off on channel 0 it falls by exp(-5).
  EXPECT_NEAR(m.gaussianProb(1, pixelVal{10, 20, 30}), 1.0 / std::sqrt(0.001), 1e-9);
  EXPECT_NEAR(m.gaussianProb(1, pixelVal{11, 20, 30}), std::exp(-5.0) / std::sqrt(0.001), 1e-9);

  // Rank-one covariance (samples on a line): one loading already lifts the
  // determinant above epsilon; the inverse is that of the loaded matrix.
  for (double noise : {0.1, 10.0}) {
    ZIRKSEMarker::m_noiseLevel = noise;
    const double v[3] = {3.0, -1.0, 2.0};
    ZIRKSEColorModel r;
    r.m_weight[0] = 1.0;
    for (int i = 0; i < 9; ++i) r.m_covariance[0][i] = v[i / 3] * v[i % 3] * 40.0;
    r.setDeterminant();
    r.setInverseCovariance();
    for (int i = 0; i < 9; ++i)
      EXPECT_DOUBLE_EQ(r.m_covariance[0][i], v[i / 3] * v[i % 3] * 40.0 + (i % 4 == 0 ? noise : 0.0));
    oracle::Mat3 inv;
    double det = 0;
    oracle::invert(oracle::fromRowMajor(r.m_covariance[0]), &inv, &det);
    EXPECT_NEAR(r.m_determinant[0], det, 1e-9 * det);
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(r.m_invCovariance[0][i], inv.a[i / 3][i % 3], 1e-9);
  }

  // A tiny but not negligible determinant needs several loadings of a small
  // noise level; the loop stops at the first one above epsilon.
  ZIRKSEMarker::m_noiseLevel = 1e-6;
  ZIRKSEColorModel t;
  t.m_weight[3] = 0.5;
  t.setDeterminant();
  t.setInverseCovariance();
  const double diag = t.m_covariance[3][0];
  const long steps = std::lround(diag / 1e-6);
  EXPECT_GT(std::pow(diag, 3), DBL_EPSILON);
  EXPECT_LE(std::pow(diag - 1e-6, 3), DBL_EPSILON * (1 + 1e-9));
  EXPECT_EQ(steps, 7);  // cbrt(2.22e-16) = 6.06e-6
}

TEST_F(ColorModel, UnusableNoiseLevelFallsBackInsteadOfLooping) {
  LogCapture log;
  ZIRKSEMarker::m_noiseLevel = 0.0;  // the value before the engine starts
  ZIRKSEColorModel m;
  m.m_weight[0] = 1.0;
  m.setDeterminant();
  m.setInverseCovariance();
  EXPECT_NEAR(m.m_determinant[0], 0.001, 1e-15);
  EXPECT_EQ(log.countPrefix("Error", "setInverseCovariance: noise level"), 1) << log.dump();

  // A NaN covariance cannot be repaired: the component is switched off.
  ZIRKSEMarker::m_noiseLevel = 0.1;
  m.m_covariance[0][4] = std::numeric_limits<double>::quiet_NaN();
  m.setDeterminant();
  m.setInverseCovariance();
  EXPECT_EQ(m.m_determinant[0], 0.0);
  EXPECT_EQ(m.GMMProb(pixelVal{0, 0, 0}), 0.0);
}

TEST_F(ColorModel, AssignClusterPicksHighestUnweightedDensityTiesLow) {
  // Components 1 and 3 identical; 3 has the larger weight; the lower wins.
  ZIRKSEColorModel m;
  for (int k : {1, 3}) {
    m.m_weight[k] = k == 1 ? 0.1 : 0.9;
    m.m_covariance[k][0] = m.m_covariance[k][4] = m.m_covariance[k][8] = 25.0;
    m.m_mean[k][0] = 100;
  }
  m.setDeterminant();
  m.setInverseCovariance();
  EXPECT_EQ(m.assignCluster(pixelVal{100, 0, 0}), 1);
  EXPECT_EQ(m.assignCluster(pixelVal{140, 30, -20}), 1);

  // A narrow light component beats a broad heavy one near its mean, although
  // the posterior would favour the heavy one.
  ZIRKSEColorModel w;
  w.m_weight[0] = 0.001;
  w.m_covariance[0][0] = w.m_covariance[0][4] = w.m_covariance[0][8] = 1.0;
  w.m_weight[4] = 0.999;
  w.m_covariance[4][0] = w.m_covariance[4][4] = w.m_covariance[4][8] = 4.0;
  w.setDeterminant();
  w.setInverseCovariance();
  const pixelVal x{0.5, 0, 0};
  ASSERT_GT(w.gaussianProb(0, x), w.gaussianProb(4, x));
  ASSERT_LT(w.m_weight[0] * w.gaussianProb(0, x), w.m_weight[4] * w.gaussianProb(4, x));
  EXPECT_EQ(w.assignCluster(x), 0);

  // On random models it is the first index of the largest direct density.
  std::mt19937 rng(5);
  for (int trial = 0; trial < 20; ++trial) {
    oracle::Mat3 cov[5];
    ZIRKSEColorModel r = randomModel(rng, cov);
    for (int s = 0; s < 20; ++s) {
      const pixelVal p = near(rng, r.m_mean[s % 5], 20.0);
      int best = 0;
      double bestValue = -1;
      for (int k = 0; k < 5; ++k) {
        const double d = oracle::density(r.m_mean[k], cov[k], p);
        if (d > bestValue * (1 + 1e-9)) {
          bestValue = d;
          best = k;
        }
      }
      if (bestValue > 0) {
        EXPECT_EQ(r.assignCluster(p), best);
      }
    }
  }
}

// Model with components at the given means, weights and determinants.
ZIRKSEColorModel criteriaModel(const std::vector<double>& weights,
                               const std::vector<double>& meanX,
                               const std::vector<double>& dets) {
  ZIRKSEColorModel m;
  for (size_t k = 0; k < weights.size(); ++k) {
    m.m_weight[k] = weights[k];
    m.m_mean[k][0] = meanX[k];
    m.m_mean[k][1] = 50;
    m.m_determinant[k] = dets[k];
  }
  return m;
}

TEST_F(ColorModel, SimplicityTestThresholds) {
  // One significant component: simple.
  EXPECT_TRUE(criteriaModel({0.9, 0.05, 0.05}, {0, 500, 900}, {50, 50, 50}).colorModelCriteria());
  // Significant means closer than 100: simple whatever the determinants.
  EXPECT_TRUE(criteriaModel({0.5, 0.5}, {0, 99.99}, {50, 50}).colorModelCriteria());
  // Exactly 100 apart: decided by the dominant components' determinants.
  EXPECT_TRUE(criteriaModel({0.5, 0.5}, {0, 100}, {0.999, 0.5}).colorModelCriteria());
  EXPECT_FALSE(criteriaModel({0.5, 0.5}, {0, 100}, {0.5, 1.0}).colorModelCriteria());
  // A weight of exactly 0.05 is not significant; just above it is.
  EXPECT_TRUE(criteriaModel({0.95, 0.05}, {0, 1000}, {50, 50}).colorModelCriteria());
  EXPECT_FALSE(criteriaModel({0.9499, 0.0501}, {0, 1000}, {50, 50}).colorModelCriteria());
  // A weight of exactly 0.35 is not dominant: its large determinant is ignored.
  EXPECT_TRUE(criteriaModel({0.65, 0.35}, {0, 1000}, {0.5, 50}).colorModelCriteria());
  EXPECT_FALSE(criteriaModel({0.64, 0.36}, {0, 1000}, {0.5, 50}).colorModelCriteria());
  // Spread out without any dominant component: not simple.
  EXPECT_FALSE(
      criteriaModel({0.2, 0.2, 0.2, 0.2, 0.2}, {0, 200, 400, 600, 800}, {0.1, 0.1, 0.1, 0.1, 0.1})
          .colorModelCriteria());
  // A NaN determinant counts as below 1.
  EXPECT_TRUE(criteriaModel({0.5, 0.5}, {0, 300}, {std::nan(""), 0.2}).colorModelCriteria());
  // The distance is taken over all three channels.
  ZIRKSEColorModel diag = criteriaModel({0.5, 0.5}, {0, 60}, {5, 5});
  diag.m_mean[1][2] = 80;  // sqrt(60^2 + 80^2) = 100
  EXPECT_FALSE(diag.colorModelCriteria());
  diag.m_mean[1][2] = 79.9;
  EXPECT_TRUE(diag.colorModelCriteria());
}

TEST_F(ColorModel, EmLeavesShortListsAloneAndRefreshesWithZeroIterations) {
  std::mt19937 rng(21);
  oracle::Mat3 cov[5];
  ZIRKSEColorModel m = randomModel(rng, cov);
  std::vector<pixelVal> four(4, pixelVal{1, 2, 3});
  ZIRKSEColorModel before = m;
  m.EM(four, 5);
  EXPECT_EQ(std::memcmp(&m, &before, sizeof m), 0);

  // Zero iterations: only determinants and inverses are recomputed.
  m.m_covariance[2][0] += 7.0;
  std::vector<pixelVal> five(5, pixelVal{1, 2, 3});
  m.EM(five, 0);
  EXPECT_EQ(std::memcmp(m.m_weight, before.m_weight, sizeof m.m_weight), 0);
  EXPECT_EQ(std::memcmp(m.m_mean, before.m_mean, sizeof m.m_mean), 0);
  oracle::Mat3 inv;
  double det = 0;
  oracle::invert(oracle::fromRowMajor(m.m_covariance[2]), &inv, &det);
  EXPECT_NEAR(m.m_determinant[2], det, 1e-9 * det);
  EXPECT_NEAR(m.m_invCovariance[2][0], inv.a[0][0], 1e-9 * std::fabs(inv.a[0][0]));
}

TEST_F(ColorModel, EmStepMatchesDirectResponsibilities) {
  std::mt19937 rng(31);
  std::vector<pixelVal> samples;
  const double centres[3][3] = {{30, 40, 50}, {200, 60, 20}, {90, 180, 220}};
  for (const auto& c : centres) oracle::blob(rng, c, 8.0, 60, &samples);
  oracle::Mat3 cov[5];
  ZIRKSEColorModel m = randomModel(rng, cov);
  for (int k = 0; k < 3; ++k)
    for (int c = 0; c < 3; ++c) m.m_mean[k][c] = centres[k][c] + 5;
  m.setDeterminant();
  m.setInverseCovariance();

  // One E-step and M-step by hand, densities from the direct formula.
  const size_t n = samples.size();
  double weight[5] = {}, mean[5][3] = {}, covOut[5][9] = {};
  std::vector<double> r(n * 5);
  for (size_t i = 0; i < n; ++i) {
    double p = 0, pk[5];
    for (int k = 0; k < 5; ++k) p += m.m_weight[k] * (pk[k] = oracle::density(m.m_mean[k], cov[k], samples[i]));
    for (int k = 0; k < 5; ++k) r[i * 5 + k] = p > 0 ? m.m_weight[k] * pk[k] / p : 0;
  }
  for (int k = 0; k < 5; ++k) {
    double total = 0;
    for (size_t i = 0; i < n; ++i) {
      const double x[3] = {samples[i].c0, samples[i].c1, samples[i].c2};
      total += r[i * 5 + k];
      for (int c = 0; c < 3; ++c) mean[k][c] += r[i * 5 + k] * x[c];
    }
    weight[k] = total / n;
    if (total > 0) {
      for (double& v : mean[k]) v /= total;
    }
    for (size_t i = 0; i < n; ++i) {
      const double x[3] = {samples[i].c0, samples[i].c1, samples[i].c2};
      for (int a = 0; a < 9; ++a)
        covOut[k][a] += r[i * 5 + k] * (x[a / 3] - mean[k][a / 3]) * (x[a % 3] - mean[k][a % 3]);
    }
    if (total > 0) {
      for (double& v : covOut[k]) v /= total;
    }
  }

  m.EM(samples, 1);
  double weightSum = 0;
  for (int k = 0; k < 5; ++k) {
    weightSum += m.m_weight[k];
    EXPECT_NEAR(m.m_weight[k], weight[k], 1e-9);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(m.m_mean[k][c], mean[k][c], 1e-6);
    // Heavy components only: a component with almost no responsibility
    // amplifies rounding in its covariance.
    if (weight[k] > 0.01) {
      for (int a = 0; a < 9; ++a)
        EXPECT_NEAR(m.m_covariance[k][a], covOut[k][a], 1e-6 * (1 + std::fabs(covOut[k][a])));
    }
  }
  EXPECT_NEAR(weightSum, 1.0, 1e-9);
}

}  // namespace
