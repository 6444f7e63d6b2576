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
#include <vector>

#include "Oracle.h"
#include "colormodel/Clustering.h"
#include "common/LogCapture.h"

// Counts the threads the code under test starts: four per k-means iteration
// (forwarding to the real function, or to a sanitizer's interceptor).
namespace {
std::atomic<int> g_threadsStarted{0};
}
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                              void* arg) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const Create real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  ++g_threadsStarted;
  return real(thread, attr, start, arg);
}

namespace {

double sq(const pixelVal& a, const pixelVal& b) {
  return (a.c0 - b.c0) * (a.c0 - b.c0) + (a.c1 - b.c1) * (a.c1 - b.c1) +
         (a.c2 - b.c2) * (a.c2 - b.c2);
}
bool same(const pixelVal& a, const pixelVal& b) {
  return a.c0 == b.c0 && a.c1 == b.c1 && a.c2 == b.c2;
}

// k-means++ seeds as the walk describes them: the generator seeded with n,
// then with the integer part of the running total (saturated to the unsigned
// range); each distance is recomputed as the minimum over all seeds so far.
std::vector<int> expectedSeeds(const std::vector<pixelVal>& s, int k) {
  const int n = static_cast<int>(s.size());
  const double scale = std::ldexp(1.0, -31);
  srand(static_cast<unsigned>(n));
  std::vector<int> seeds{static_cast<int>(n * (rand() * scale))};
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

std::vector<int> seedsOf(std::vector<pixelVal> samples, int k) {
  std::vector<double*> ptrs;
  for (pixelVal& p : samples) ptrs.push_back(&p.c0);
  std::vector<int> seeds(k, -1);
  chooseCentersKMeanspp(ptrs.data(), static_cast<int>(samples.size()), k, seeds.data());
  return seeds;
}

struct KMeansRun {
  std::vector<int> labels;
  std::vector<pixelVal> centres;
  int iterations = 0;
};

KMeansRun runKMeans(std::vector<pixelVal> samples, int maxIterations = 10, double epsilon = 0.0) {
  std::vector<double*> ptrs;
  for (pixelVal& p : samples) ptrs.push_back(&p.c0);
  KMeansRun r;
  r.labels.assign(samples.size(), -1);
  r.centres.assign(5, pixelVal{-1, -1, -1});
  double* centres[5] = {&r.centres[0].c0, &r.centres[1].c0, &r.centres[2].c0, &r.centres[3].c0,
                        &r.centres[4].c0};
  const int before = g_threadsStarted;
  const int32_t iterationsBefore = g_kmeansIterations;
  k_means(ptrs.data(), r.labels.data(), static_cast<int>(samples.size()), epsilon, maxIterations,
          centres);
  r.iterations = g_kmeansIterations - iterationsBefore;
  const bool threaded = static_cast<int>(samples.size()) >= g_kmeansThreadedSamples;
  EXPECT_EQ(g_threadsStarted - before, threaded ? 4 * r.iterations : 0);
  return r;
}

TEST(KMeans, SeedsFollowTheWalkOverTheGenerator) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> u(0, 255), wide(0, 1e5);
  for (int n : {1, 2, 3, 7, 64, 1000, 5000}) {
    std::vector<pixelVal> s;
    for (int i = 0; i < n; ++i) s.push_back(pixelVal{u(rng), u(rng), u(rng)});
    EXPECT_EQ(seedsOf(s, 5), expectedSeeds(s, 5)) << "n=" << n;
    EXPECT_EQ(seedsOf(s, 8), expectedSeeds(s, 8)) << "n=" << n;
  }
  std::vector<pixelVal> big;  // totals far above the unsigned range
  for (int i = 0; i < 500; ++i) big.push_back(pixelVal{wide(rng), wide(rng), wide(rng)});
  EXPECT_EQ(seedsOf(big, 5), expectedSeeds(big, 5));
}

// Each sample ends in the cluster of the blob it came from, one cluster per
// blob, each centre the mean of its blob; the same input gives the same
// result whatever state the C library's generator was left in. The
// iteration limit and epsilon end the loop.
TEST(KMeans, RecoversFiveSeparatedBlobsDeterministically) {
  std::vector<pixelVal> s;
  std::vector<int> blobOf;
  oracle::fiveBlobs(3, &s, &blobOf);
  const KMeansRun r = runKMeans(s);
  std::vector<int> clusterOfBlob(5, -1);
  for (size_t i = 0; i < s.size(); ++i) {
    if (clusterOfBlob[blobOf[i]] < 0) clusterOfBlob[blobOf[i]] = r.labels[i];
    ASSERT_EQ(r.labels[i], clusterOfBlob[blobOf[i]]) << "sample " << i;
  }
  for (int b = 0; b < 5; ++b) {
    ASSERT_EQ(std::count(clusterOfBlob.begin(), clusterOfBlob.end(), clusterOfBlob[b]), 1);
    const cv::Vec3d mean = oracle::moments(s, blobOf, b).mean;
    EXPECT_LT(cv::norm(oracle::vec(r.centres[clusterOfBlob[b]]) - mean), 1e-9);
  }
  // Blobs this clear settle early. A lower limit is kept; the first error
  // is compared with the largest double, so only an epsilon that large stops
  // after one iteration.
  ASSERT_TRUE(r.iterations >= 3 && r.iterations < 10) << r.iterations;
  EXPECT_EQ(runKMeans(s, r.iterations - 1).iterations, r.iterations - 1);
  EXPECT_EQ(runKMeans(s, 10, 1e300).iterations, 2);
  EXPECT_EQ(runKMeans(s, 10, DBL_MAX).iterations, 1);
  // The same whether the generator was used before, and whether the
  // quarters run on four threads or one after the other.
  const int32_t threshold = g_kmeansThreadedSamples;
  for (int repeat = 0; repeat < 3; ++repeat) {
    srand(1234 + repeat);
    rand();
    g_kmeansThreadedSamples = repeat == 2 ? 1 : threshold;
    const KMeansRun again = runKMeans(s);
    EXPECT_EQ(again.labels, r.labels);
    for (int k = 0; k < 5; ++k) EXPECT_TRUE(same(again.centres[k], r.centres[k]));
  }
  g_kmeansThreadedSamples = threshold;
}

// Inputs whose clusters never move: one to three distinct samples, five
// identical ones, two values three times each. Every sample goes to its
// nearest seed (ties low), each centre stays on its seed sample, and a
// cluster left empty gives its seed sample its label back, in cluster order.
// The second iteration repeats the error and ends the loop.
TEST(KMeans, EmptiedClustersKeepTheirCentreAndReclaimTheirSeed) {
  const pixelVal a{10, 10, 10}, b{200, 100, 0}, c{0, 200, 50};
  const std::vector<pixelVal> inputs[] = {
      {a}, {a, b}, {a, b, c}, std::vector<pixelVal>(5, a), {a, b, a, b, b, a}};
  for (const std::vector<pixelVal>& s : inputs) {
    const std::vector<int> seeds = expectedSeeds(s, 5);
    std::vector<int> expected(s.size());
    std::vector<bool> empty(5, true);
    for (size_t i = 0; i < s.size(); ++i) {
      int best = 0;
      for (int k = 1; k < 5; ++k)
        if (sq(s[i], s[seeds[k]]) < sq(s[i], s[seeds[best]])) best = k;
      expected[i] = best;
      empty[best] = false;
    }
    for (int k = 0; k < 5; ++k)
      if (empty[k]) expected[seeds[k]] = k;
    const KMeansRun r = runKMeans(s);
    EXPECT_EQ(r.labels, expected) << s.size() << " samples";
    for (int k = 0; k < 5; ++k)
      EXPECT_TRUE(same(r.centres[k], s[seeds[k]])) << s.size() << " samples, cluster " << k;
    EXPECT_EQ(r.iterations, 2);
  }
  // Five identical samples: the total is 0 after the first seed, so seeds
  // 1..4 repeat sample 0 and cluster 4 takes sample 0 back.
  EXPECT_EQ(runKMeans(std::vector<pixelVal>(5, a)).labels, (std::vector<int>{4, 0, 0, 0, 0}));
}

TEST(KMeans, NoSamplesAreRefused) {
  LogCapture log;
  int label = -7;
  double c[5][3];
  double* centres[5] = {c[0], c[1], c[2], c[3], c[4]};
  k_means(nullptr, &label, 0, 0.0, 10, centres);
  EXPECT_EQ(label, -7);
  EXPECT_EQ(log.count(6, "Error", "k_means: 0 samples"), 1) << log.dump();
}

// Utilities outside the live fit: the sort order and the variance-partition
// initialiser.
TEST(SampleLists, OrderAndVariancePartition) {
  // Ascending on the fourth value; true whenever a NaN is involved.
  const vec4 nan{{0, 0, 0, std::nan("")}}, one{{0, 0, 0, 1}}, two{{0, 0, 0, 2}};
  EXPECT_TRUE(order(one, two) && !order(two, one) && !order(one, one));
  EXPECT_TRUE(order(nan, one) && order(one, nan));

  // 0..15 on channel 0: halves, then the widest list split at its mean
  // until five remain: [4..7] [8..11] [12..15] [0,1] [2,3].
  std::vector<pixelVal> line;
  for (int i = 0; i < 16; ++i) line.push_back(pixelVal{double(i), 0, 0});
  double c[5][3];
  double* centres[5] = {c[0], c[1], c[2], c[3], c[4]};
  varParInit(line, centres);
  const double expected[5] = {5.5, 9.5, 13.5, 0.5, 2.5};
  for (int k = 0; k < 5; ++k) EXPECT_TRUE(c[k][0] == expected[k] && c[k][1] == 0.0) << k;
  // A split follows the channel of largest variance, ties to the lower one.
  std::vector<pixelVal> low, high;
  varPartition({{5, 0, 10}, {6, 1, 90}, {5, 0, 20}, {6, 1, 80}}, low, high);
  EXPECT_TRUE(g_maxVarDir == 2 && high.size() == 2 && high[0].c2 == 90);
  // Identical samples leave empty halves; no division by zero reaches the centres.
  varParInit(std::vector<pixelVal>(3, pixelVal{7, 8, 9}), centres);
  for (int k = 0; k < 4; ++k) EXPECT_TRUE(c[k][0] == 0 && c[k][1] == 0 && c[k][2] == 0) << k;
  EXPECT_TRUE(c[4][0] == 7 && c[4][1] == 8 && c[4][2] == 9);
}

}  // namespace
