// k-means with k-means++ seeding, and the sample-list utilities.
//
// Seeds depend on the C library's generator, which differs between C
// libraries: every expected seed is computed here from srand/rand itself.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <random>
#include <set>
#include <vector>

#include "Oracle.h"
#include "colormodel/Clustering.h"
#include "common/LogCapture.h"

// Counts the threads the code under test starts (forwarding to the real
// function, or to a sanitizer's interceptor when one is loaded).
namespace {
std::atomic<int> g_threadsStarted{0};
}
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                              void* (*start)(void*), void* arg) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const Create real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  ++g_threadsStarted;
  return real(thread, attr, start, arg);
}

namespace {

double sq(const pixelVal& a, const pixelVal& b) {
  return (a.c0 - b.c0) * (a.c0 - b.c0) + (a.c1 - b.c1) * (a.c1 - b.c1) + (a.c2 - b.c2) * (a.c2 - b.c2);
}

// k-means++ seeds as the walk describes them: the generator seeded with n,
// then with the integer part of the running total (saturated to the unsigned
// range); each distance is recomputed as the minimum over all seeds so far.
std::vector<int> expectedSeeds(const std::vector<pixelVal>& s, int k) {
  const int n = static_cast<int>(s.size());
  const double scale = std::ldexp(1.0, -31);
  std::vector<int> seeds;
  srand(static_cast<unsigned>(n));
  seeds.push_back(static_cast<int>(n * (rand() * scale)));
  auto nearest = [&](int i) {
    double best = INFINITY;
    for (int seed : seeds) best = std::min(best, sq(s[i], s[seed]));
    return best;
  };
  for (int c = 1; c < k; ++c) {
    double total = 0;
    for (int i = 0; i < n; ++i) total += nearest(i);
    srand(total >= 4294967296.0 ? UINT_MAX : static_cast<unsigned>(total));
    double target = total * scale * rand();
    int i = 0;
    for (; i < n - 1 && target > nearest(i); ++i) target -= nearest(i);
    seeds.push_back(i);
  }
  return seeds;
}

struct KMeansRun {
  std::vector<int> labels;
  std::vector<pixelVal> centres;
  int threads = 0;
};

KMeansRun runKMeans(const std::vector<pixelVal>& samples, int maxIterations = 10, double epsilon = 0.0) {
  std::vector<pixelVal> copy = samples;
  std::vector<double*> ptrs;
  for (pixelVal& p : copy) ptrs.push_back(&p.c0);
  KMeansRun r;
  r.labels.assign(samples.size(), -1);
  r.centres.assign(5, pixelVal{-1, -1, -1});
  double* centres[5];
  for (int k = 0; k < 5; ++k) centres[k] = &r.centres[k].c0;
  const int before = g_threadsStarted;
  k_means(ptrs.data(), r.labels.data(), static_cast<int>(samples.size()), epsilon, maxIterations,
          centres);
  r.threads = g_threadsStarted - before;
  return r;
}

std::vector<int> seedsOf(std::vector<pixelVal> samples, int k) {
  std::vector<double*> ptrs;
  for (pixelVal& p : samples) ptrs.push_back(&p.c0);
  std::vector<int> seeds(k, -1);
  chooseCentersKMeanspp(ptrs.data(), static_cast<int>(samples.size()), k, seeds.data());
  return seeds;
}

bool same(const pixelVal& a, const pixelVal& b) { return a.c0 == b.c0 && a.c1 == b.c1 && a.c2 == b.c2; }

TEST(KMeansSeeding, FollowsTheWalkOverTheGenerator) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> u(0, 255), wide(0, 1e5);
  for (int n : {1, 2, 3, 7, 64, 1000, 5000}) {
    std::vector<pixelVal> s;
    for (int i = 0; i < n; ++i) s.push_back(pixelVal{u(rng), u(rng), u(rng)});
    EXPECT_EQ(seedsOf(s, 5), expectedSeeds(s, 5)) << "n=" << n;
    EXPECT_EQ(seedsOf(s, 8), expectedSeeds(s, 8)) << "n=" << n;
  }
  // Totals far above the unsigned range.
  std::vector<pixelVal> big;
  for (int i = 0; i < 500; ++i) big.push_back(pixelVal{wide(rng), wide(rng), wide(rng)});
  EXPECT_EQ(seedsOf(big, 5), expectedSeeds(big, 5));
  // A single sample: every seed is index 0.
  EXPECT_EQ(seedsOf({pixelVal{1, 2, 3}}, 5), std::vector<int>(5, 0));
}

TEST(KMeans, RecoversFiveSeparatedBlobs) {
  std::mt19937 rng(3);
  const double means[5][3] = {{20, 20, 20}, {230, 30, 40}, {40, 220, 60}, {60, 50, 230}, {200, 210, 190}};
  std::vector<pixelVal> s;
  for (const auto& m : means) oracle::blob(rng, m, 4.0, 200, &s);
  std::shuffle(s.begin(), s.end(), rng);

  const KMeansRun r = runKMeans(s);
  // Each sample's cluster is the blob it came from, one cluster per blob.
  std::vector<int> blobOf(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    int best = 0;
    for (int b = 1; b < 5; ++b)
      if (sq(s[i], pixelVal{means[b][0], means[b][1], means[b][2]}) <
          sq(s[i], pixelVal{means[best][0], means[best][1], means[best][2]}))
        best = b;
    blobOf[i] = best;
  }
  std::vector<int> clusterOfBlob(5, -1);
  for (size_t i = 0; i < s.size(); ++i) {
    ASSERT_GE(r.labels[i], 0);
    ASSERT_LT(r.labels[i], 5);
    if (clusterOfBlob[blobOf[i]] < 0) clusterOfBlob[blobOf[i]] = r.labels[i];
    ASSERT_EQ(r.labels[i], clusterOfBlob[blobOf[i]]) << "sample " << i;
  }
  EXPECT_EQ(std::set<int>(clusterOfBlob.begin(), clusterOfBlob.end()).size(), 5u);
  // Centres are the means of their samples.
  for (int b = 0; b < 5; ++b) {
    pixelVal mean{0, 0, 0};
    int count = 0;
    for (size_t i = 0; i < s.size(); ++i)
      if (blobOf[i] == b) {
        mean.c0 += s[i].c0;
        mean.c1 += s[i].c1;
        mean.c2 += s[i].c2;
        ++count;
      }
    const pixelVal& c = r.centres[clusterOfBlob[b]];
    EXPECT_NEAR(c.c0, mean.c0 / count, 1e-9);
    EXPECT_NEAR(c.c1, mean.c1 / count, 1e-9);
    EXPECT_NEAR(c.c2, mean.c2 / count, 1e-9);
  }
  // Four threads per iteration; blobs this clear settle well before ten.
  EXPECT_EQ(r.threads % 4, 0);
  EXPECT_GE(r.threads, 8);
  EXPECT_LT(r.threads, 40);
}

TEST(KMeans, FiveIdenticalSamplesStopAfterTwoIterations) {
  const std::vector<pixelVal> s(5, pixelVal{50, 60, 70});
  const std::vector<int> seeds = expectedSeeds(s, 5);
  EXPECT_EQ(std::vector<int>(seeds.begin() + 1, seeds.end()), std::vector<int>(4, 0));
  const KMeansRun r = runKMeans(s);
  EXPECT_EQ(r.labels, (std::vector<int>{4, 0, 0, 0, 0}));
  for (const pixelVal& c : r.centres) EXPECT_TRUE(same(c, s[0]));
  EXPECT_EQ(r.threads, 8);
}

TEST(KMeans, EmptiedClustersKeepTheirCentreAndReclaimTheirSeed) {
  // Two values, three samples each: after two distinct seeds the total is 0
  // and the remaining seeds repeat sample 0, so their clusters stay empty.
  const pixelVal a{10, 10, 10}, b{200, 100, 0};
  const std::vector<pixelVal> s{a, b, a, b, b, a};
  const std::vector<int> seeds = expectedSeeds(s, 5);
  const KMeansRun r = runKMeans(s);

  std::vector<int> expected(s.size());
  std::vector<bool> empty(5, true);
  for (size_t i = 0; i < s.size(); ++i) {
    int best = 0;
    for (int k = 1; k < 5; ++k)
      if (sq(s[i], s[seeds[k]]) < sq(s[i], s[seeds[best]])) best = k;
    expected[i] = best;
    empty[best] = false;
  }
  int emptied = 0;
  for (int k = 0; k < 5; ++k) {
    EXPECT_TRUE(same(r.centres[k], s[seeds[k]])) << "cluster " << k;
    if (empty[k]) {
      expected[seeds[k]] = k;
      ++emptied;
    }
  }
  EXPECT_EQ(emptied, 3);
  EXPECT_EQ(r.labels, expected);
  EXPECT_EQ(r.threads, 8);
}

TEST(KMeans, FewerThanFourSamplesAreAllLabelled) {
  const std::vector<pixelVal> pool{{0, 0, 0}, {100, 0, 0}, {0, 200, 50}};
  for (size_t n = 1; n <= 3; ++n) {
    const std::vector<pixelVal> s(pool.begin(), pool.begin() + n);
    const KMeansRun r = runKMeans(s);
    for (size_t i = 0; i < n; ++i) {
      ASSERT_GE(r.labels[i], 0) << "n=" << n;
      ASSERT_LT(r.labels[i], 5);
      EXPECT_TRUE(same(r.centres[r.labels[i]], s[i])) << "n=" << n << " sample " << i;
    }
  }
}

TEST(KMeans, LabelsAreNearestCentresOverRandomInputs) {
  // Wherever the loop stopped because the error repeated, the labels of the
  // last assignment are the nearest final centres (ties low) and each centre
  // is its cluster's mean.
  std::mt19937 rng(4);
  std::uniform_int_distribution<int> size(4, 300);
  std::uniform_real_distribution<double> u(0, 255);
  int checked = 0;
  for (int trial = 0; trial < 40; ++trial) {
    std::vector<pixelVal> s;
    const int n = size(rng);
    for (int i = 0; i < n; ++i) s.push_back(pixelVal{u(rng), u(rng), u(rng)});
    const KMeansRun r = runKMeans(s, 100);
    ASSERT_EQ(r.threads % 4, 0);
    if (r.threads == 400) continue;  // did not settle
    ++checked;
    std::vector<pixelVal> sum(5, pixelVal{0, 0, 0});
    std::vector<int> count(5, 0), expected(n);
    for (int i = 0; i < n; ++i) {
      int best = 0;
      for (int k = 1; k < 5; ++k)
        if (sq(s[i], r.centres[k]) < sq(s[i], r.centres[best])) best = k;
      expected[i] = best;
      sum[best].c0 += s[i].c0;
      sum[best].c1 += s[i].c1;
      sum[best].c2 += s[i].c2;
      ++count[best];
    }
    // Empty clusters (duplicate seeds among few samples) reclaim their seed.
    const std::vector<int> seeds = expectedSeeds(s, 5);
    for (int k = 0; k < 5; ++k)
      if (count[k] == 0) expected[seeds[k]] = k;
    ASSERT_EQ(r.labels, expected) << "trial " << trial;
    for (int k = 0; k < 5; ++k) {
      if (count[k] == 0) continue;
      EXPECT_NEAR(r.centres[k].c0, sum[k].c0 / count[k], 1e-9);
      EXPECT_NEAR(r.centres[k].c2, sum[k].c2 / count[k], 1e-9);
    }
  }
  EXPECT_GT(checked, 30);
}

TEST(KMeans, SameInputSameResult) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(0, 255);
  std::vector<pixelVal> s;
  for (int i = 0; i < 4001; ++i) s.push_back(pixelVal{u(rng), u(rng), u(rng)});
  const KMeansRun first = runKMeans(s);
  for (int repeat = 0; repeat < 3; ++repeat) {
    srand(1234 + repeat);
    rand();
    const KMeansRun again = runKMeans(s);
    EXPECT_EQ(seedsOf(s, 5), expectedSeeds(s, 5));
    EXPECT_EQ(again.labels, first.labels);
    for (int k = 0; k < 5; ++k) EXPECT_TRUE(same(again.centres[k], first.centres[k]));
  }
}

TEST(KMeans, IterationLimitAndRefusal) {
  std::mt19937 rng(6);
  std::uniform_real_distribution<double> u(0, 255);
  std::vector<pixelVal> s;
  for (int i = 0; i < 2000; ++i) s.push_back(pixelVal{u(rng), u(rng), u(rng)});
  EXPECT_EQ(runKMeans(s, 3).threads, 12);
  // The first error is compared with the largest double: only an epsilon
  // that large stops after one iteration.
  EXPECT_EQ(runKMeans(s, 10, 1e300).threads, 8);
  EXPECT_EQ(runKMeans(s, 10, DBL_MAX).threads, 4);

  LogCapture log;
  int label = -7;
  double c[5][3];
  double* centres[5] = {c[0], c[1], c[2], c[3], c[4]};
  k_means(nullptr, &label, 0, 0.0, 10, centres);
  EXPECT_EQ(label, -7);
  EXPECT_EQ(log.count(6, "Error", "k_means: 0 samples"), 1) << log.dump();
}

TEST(SampleLists, MeanErrorDistanceAndOrder) {
  EXPECT_TRUE(same(findMean({}), pixelVal{0, 0, 0}));
  EXPECT_EQ(findSSE({}), 0.0);
  const std::vector<pixelVal> s{{0, 0, 0}, {2, 4, 6}, {4, 2, 0}};
  EXPECT_TRUE(same(findMean(s), pixelVal{2, 2, 2}));
  // (4+4+4) + (0+4+16) + (4+0+4)
  EXPECT_DOUBLE_EQ(findSSE(s), 40.0);
  EXPECT_DOUBLE_EQ(distSq(pixelVal{1, 2, 3}, pixelVal{4, 6, 3}), 25.0);

  std::vector<vec4> v{{{0, 0, 0, 3}}, {{1, 0, 0, -1}}, {{2, 0, 0, 2}}, {{3, 0, 0, 2}}};
  std::stable_sort(v.begin(), v.end(), order);
  EXPECT_EQ(v[0].v[0], 1);
  EXPECT_EQ(v[1].v[0], 2);
  EXPECT_EQ(v[2].v[0], 3);
  EXPECT_EQ(v[3].v[0], 0);
  const vec4 nan{{0, 0, 0, std::nan("")}}, one{{0, 0, 0, 1}};
  EXPECT_TRUE(order(nan, one));
  EXPECT_TRUE(order(one, nan));
  EXPECT_FALSE(order(one, one));
}

TEST(SampleLists, VariancePartition) {
  // Equal variances on all channels: channel 0; the sample at the mean goes high.
  std::vector<pixelVal> low{{-1, -1, -1}}, high;
  varPartition({{0, 0, 0}, {1, 1, 1}, {2, 2, 2}}, low, high);
  EXPECT_EQ(g_maxVarDir, 0);
  ASSERT_EQ(low.size(), 2u);  // appended after what was there
  EXPECT_TRUE(same(low[1], pixelVal{0, 0, 0}));
  ASSERT_EQ(high.size(), 2u);
  EXPECT_TRUE(same(high[0], pixelVal{1, 1, 1}));

  // Largest variance on channel 2.
  low.clear();
  high.clear();
  varPartition({{5, 0, 10}, {6, 1, 90}, {5, 0, 20}, {6, 1, 80}}, low, high);
  EXPECT_EQ(g_maxVarDir, 2);
  EXPECT_EQ(low.size(), 2u);
  EXPECT_EQ(high.size(), 2u);
  EXPECT_EQ(high[0].c2, 90);

  g_maxVarDir = 2;
  varPartition({}, low, high);
  EXPECT_EQ(g_maxVarDir, 0);
}

TEST(SampleLists, VariancePartitionInitialiser) {
  // 0..15 on channel 0: halves, then the widest list split until five remain:
  // [4..7] [8..11] [12..15] [0,1] [2,3].
  std::vector<pixelVal> s;
  for (int i = 0; i < 16; ++i) s.push_back(pixelVal{double(i), 0, 0});
  double c[5][3];
  double* centres[5] = {c[0], c[1], c[2], c[3], c[4]};
  varParInit(s, centres);
  const double expected[5] = {5.5, 9.5, 13.5, 0.5, 2.5};
  for (int k = 0; k < 5; ++k) {
    EXPECT_DOUBLE_EQ(c[k][0], expected[k]) << k;
    EXPECT_EQ(c[k][1], 0.0);
  }
  // Identical samples leave empty halves; no division by zero reaches the centres.
  varParInit(std::vector<pixelVal>(3, pixelVal{7, 8, 9}), centres);
  for (int k = 0; k < 4; ++k) EXPECT_TRUE(c[k][0] == 0 && c[k][1] == 0 && c[k][2] == 0) << k;
  EXPECT_TRUE(c[4][0] == 7 && c[4][1] == 8 && c[4][2] == 9);
}

}  // namespace
