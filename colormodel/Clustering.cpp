// k-means of colour samples (k-means++ seeding, assignment step in four
// quarters) and the sample-list utilities beside it.
//
// Cost of one k_means iteration: 5 squared distances per sample, in four
// quarters; a fit of many samples runs them in two halves on the engine's
// shared helpers (small fits run all four on the calling thread); at most
// 10 iterations for the live fit. Each quarter accumulates
// in locals and writes its own row of the accumulators once, so the rows
// share no hot cache line.
#include "colormodel/Clustering.h"

#include <android/log.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "support/ZIRKRows.h"

int32_t g_maxVarDir = 0;
// Fits of at least this many samples share the quarters with a helper.
// Starting four threads for every iteration had cost more than the work at
// working size (40,000 samples, 10 iterations: 2.7 ms on the calling thread
// against 11.6-17 ms threaded while other work ran); one helper thread for
// the whole fit took the photos' fresh fits from 2.8 to 2.4 ms a photo on
// two cores, the shared helpers, awake between iterations, to about 3.0
// from 3.5 (engine alone, 2026-11-26).
int32_t g_kmeansThreadedSamples = 16384;
int32_t g_kmeansIterations = 0;

namespace {

constexpr int kClusters = 5;
constexpr int kThreads = 4;
// 1 / 2^31: maps rand() onto [0, 1).
constexpr double kInvRandRange = 4.656612873077393e-10;

inline double squaredDistance(const double* a, const double* b) {
  return (a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
         (a[2] - b[2]) * (a[2] - b[2]);
}

// Integer part of a running total as a generator seed. A plain cast is
// undefined beyond the unsigned range; totals that large seed with UINT_MAX
// (the saturating conversion AArch64 performs) and NaN seeds with 0.
unsigned seedFromTotal(double total) {
  if (!(total >= 0.0)) return 0u;
  if (total >= 4294967296.0) return UINT_MAX;
  return static_cast<unsigned>(total);
}

double channel(const pixelVal& x, int c) { return c == 0 ? x.c0 : (c == 1 ? x.c1 : x.c2); }

// Error per sample of one list of varParInit. An empty list (a split that
// left one half empty) has no error per sample; -1 keeps it from being chosen
// while any non-empty list remains.
double errorPerSample(double error, size_t size) {
  return size > 0 ? error / static_cast<double>(size) : -1.0;
}

}  // namespace

bool order(vec4 a, vec4 b) { return !(a.v[3] >= b.v[3]); }

double distSq(pixelVal a, pixelVal b) {
  return (a.c0 - b.c0) * (a.c0 - b.c0) + (a.c1 - b.c1) * (a.c1 - b.c1) +
         (a.c2 - b.c2) * (a.c2 - b.c2);
}

pixelVal findMean(const std::vector<pixelVal>& samples) {
  pixelVal mean{0.0, 0.0, 0.0};
  if (samples.empty()) return mean;
  for (const pixelVal& x : samples) {
    mean.c0 += x.c0;
    mean.c1 += x.c1;
    mean.c2 += x.c2;
  }
  const double n = static_cast<double>(samples.size());
  mean.c0 /= n;
  mean.c1 /= n;
  mean.c2 /= n;
  return mean;
}

double findSSE(const std::vector<pixelVal>& samples) {
  if (samples.empty()) return 0.0;
  const pixelVal mean = findMean(samples);
  double sse = 0.0;
  for (const pixelVal& x : samples) sse += distSq(x, mean);
  return sse;
}

void varPartition(const std::vector<pixelVal>& in, std::vector<pixelVal>& low,
                  std::vector<pixelVal>& high) {
  const size_t n = in.size();
  if (n < 1) {
    g_maxVarDir = 0;
    return;
  }
  // 1. Channel of largest variance; ties keep the lower channel.
  double best = -1.0;
  int dir = 0;
  double threshold = 0.0;
  for (int c = 0; c < 3; ++c) {
    double sum = 0.0, sumSq = 0.0;
    for (const pixelVal& x : in) {
      const double v = channel(x, c);
      sum += v;
      sumSq += v * v;
    }
    const double mean = sum / static_cast<double>(n);
    const double variance = sumSq / static_cast<double>(n) - mean * mean;
    if (c == 0) threshold = mean;
    if (variance > best) {
      best = variance;
      dir = c;
      threshold = mean;
    }
  }
  g_maxVarDir = dir;
  // 2. Split at that channel's mean. Appending to an output that is also the
  // input would invalidate the loop, so such a call works on a copy.
  const std::vector<pixelVal> copy = (&in == &low || &in == &high) ? in : std::vector<pixelVal>();
  const std::vector<pixelVal>& src = copy.empty() ? in : copy;
  for (const pixelVal& x : src) (channel(x, dir) >= threshold ? high : low).push_back(x);
}

void varParInit(const std::vector<pixelVal>& samples, double** centres) {
  if (centres == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "varParInit: no centres");
    return;
  }
  std::vector<std::vector<pixelVal>> lists{samples};
  std::vector<double> errors{findSSE(samples)};
  for (int split = 0; split < kClusters - 1; ++split) {
    // 1. The list with the largest error per sample; ties keep the earlier.
    size_t chosen = 0;
    double bestRatio = errorPerSample(errors[0], lists[0].size());
    for (size_t i = 1; i < lists.size(); ++i) {
      const double ratio = errorPerSample(errors[i], lists[i].size());
      if (ratio > bestRatio) {
        bestRatio = ratio;
        chosen = i;
      }
    }
    // 2. Replace it by its two halves, appended at the end.
    std::vector<pixelVal> low, high;
    varPartition(lists[chosen], low, high);
    lists.erase(lists.begin() + static_cast<long>(chosen));
    errors.erase(errors.begin() + static_cast<long>(chosen));
    errors.push_back(findSSE(low));
    lists.push_back(std::move(low));
    errors.push_back(findSSE(high));
    lists.push_back(std::move(high));
  }
  for (int k = 0; k < kClusters; ++k) {
    const pixelVal mean = findMean(lists[k]);
    centres[k][0] = mean.c0;
    centres[k][1] = mean.c1;
    centres[k][2] = mean.c2;
  }
}

void chooseCentersKMeanspp(double** samples, int n, int k, int* seeds) {
  if (seeds == nullptr || k < 1) return;
  if (samples == nullptr || n < 1) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "chooseCentersKMeanspp: %d samples", n);
    for (int c = 0; c < k; ++c) seeds[c] = 0;
    return;
  }
  // 1. First seed, uniformly from a generator seeded with the sample count.
  srand(static_cast<unsigned>(n));
  const int r = rand();
  int first = static_cast<int>(n * (r * kInvRandRange));
  if (first < 0 || first >= n) first = n - 1;  // RAND_MAX above 2^31 - 1
  seeds[0] = first;

  // 2. Squared distance of every sample to its nearest seed so far.
  std::vector<double> d(static_cast<size_t>(n));
  double total = 0.0;
  for (int i = 0; i < n; ++i) {
    d[i] = squaredDistance(samples[i], samples[first]);
    total += d[i];
  }

  // 3. Each further seed with probability proportional to that distance; the
  // generator is reseeded from the running total.
  for (int c = 1; c < k; ++c) {
    srand(seedFromTotal(total));
    double target = total * kInvRandRange * rand();
    int i = 0;
    while (target > d[i] && i < n - 1) {
      target -= d[i];
      ++i;
    }
    double newTotal = 0.0;
    for (int j = 0; j < n; ++j) {
      const double dj = squaredDistance(samples[j], samples[i]);
      newTotal += d[j] < dj ? d[j] : dj;
      if (d[j] >= dj) d[j] = dj;
    }
    total = newTotal;
    seeds[c] = i;
  }
}

void* findMinDistance(void* argument) {
  kmeansThreadArgs* a = static_cast<kmeansThreadArgs*>(argument);
  const int q = a->n / kThreads;
  const int begin = a->t * q;
  const int end = a->t == kThreads - 1 ? a->n : (a->t + 1) * q;
  double sums[kClusters][3] = {};
  double counts[kClusters] = {};
  double error = 0.0;
  for (int i = begin; i < end; ++i) {
    const double* x = a->samples[i];
    double best = DBL_MAX;
    int label = 0;
    // Ties go to the lower centre.
    for (int k = 0; k < kClusters; ++k) {
      const double dist = squaredDistance(x, a->centres[k]);
      if (dist < best) {
        best = dist;
        label = k;
      }
    }
    a->labels[i] = label;
    sums[label][0] += x[0];
    sums[label][1] += x[1];
    sums[label][2] += x[2];
    counts[label] += 1.0;
    error += best;
  }
  for (int k = 0; k < kClusters; ++k) {
    for (int c = 0; c < 3; ++c) a->sums[a->t][k][c] += sums[k][c];
    a->counts[a->t][k] += counts[k];
  }
  a->errors[a->t] += error;
  return nullptr;
}

void k_means(double** samples, int* labels, int n, double epsilon, int maxIterations,
             double** centres) {
  if (samples == nullptr || labels == nullptr || centres == nullptr || n < 1) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "k_means: %d samples", n);
    return;
  }
  // Every label is defined even when no iteration runs.
  for (int i = 0; i < n; ++i) labels[i] = 0;

  // 1. Seeds become the first centres.
  int seeds[kClusters];
  chooseCentersKMeanspp(samples, n, kClusters, seeds);
  for (int k = 0; k < kClusters; ++k)
    for (int c = 0; c < 3; ++c) centres[k][c] = samples[seeds[k]][c];

  // Large fits run the four quarters of each assignment in two halves on
  // the shared helpers (the same quarters, so the same totals and labels);
  // below the threshold the handing over would cost more than the work.
  const bool halves = n >= g_kmeansThreadedSamples && ZIRK_threadsFor(2) > 1;
  double previousError = DBL_MAX;
  double sums[kThreads][kClusters][3];
  double counts[kThreads][kClusters];
  double errors[kThreads];
  for (int it = 0; it < maxIterations; ++it) {
    // 2. Assignment on four threads.
    if (g_kmeansIterations < INT32_MAX) ++g_kmeansIterations;
    std::memset(sums, 0, sizeof sums);
    std::memset(counts, 0, sizeof counts);
    std::memset(errors, 0, sizeof errors);
    kmeansThreadArgs args[kThreads];
    for (int t = 0; t < kThreads; ++t)
      args[t] = kmeansThreadArgs{samples, labels, n, centres, sums, counts, errors, t};
    ZIRK_runInBands(kThreads, halves ? 2 : 1, [&args](int begin, int end) {
      for (int t = begin; t < end; ++t) findMinDistance(&args[t]);
    });

    // 3. Totals over the threads, in thread order.
    double clusterSum[kClusters][3] = {};
    double clusterCount[kClusters] = {};
    double error = 0.0;
    for (int t = 0; t < kThreads; ++t) {
      for (int k = 0; k < kClusters; ++k) {
        for (int c = 0; c < 3; ++c) clusterSum[k][c] += sums[t][k][c];
        clusterCount[k] += counts[t][k];
      }
      error += errors[t];
    }

    // 4. New centres; an emptied cluster keeps its centre and its seed.
    for (int k = 0; k < kClusters; ++k) {
      for (int c = 0; c < 3; ++c) {
        if (clusterCount[k] > 0)
          centres[k][c] = clusterSum[k][c] / clusterCount[k];
        else
          labels[seeds[k]] = k;
      }
    }

    // 5. Stop when the error of this assignment repeats within epsilon.
    if (std::fabs(error - previousError) <= epsilon) break;
    previousError = error;
  }
}
