// Clustering of colour samples into the five components of a colour model.
//
// k_means: k-means++ seeding through the C library's srand/rand (seeded with
// the sample count, then with the running total of squared distances, so a
// given list always gets the same seeds), then Lloyd iterations whose
// assignment step runs on four POSIX threads over quarters of the samples.
// Also small sample-list utilities and a variance-partition initialiser.
#pragma once

#include <cstdint>
#include <vector>

#include "colormodel/ZIRKSEColorModel.h"
#include "support/export.h"

// Channel (0, 1 or 2) along which the last varPartition split.
extern SEGCORE_EXPORT int32_t g_maxVarDir;
// From this many samples k_means runs its four quarters in two halves on
// the shared helper threads; smaller fits run them one after the other on
// the calling thread, with the same result. Internal; tests lower it to
// compare the two.
extern int32_t g_kmeansThreadedSamples;
// Iterations k_means has run, counted for tests and benchmarks. Internal.
extern int32_t g_kmeansIterations;

// Three channels and a key (the fourth value) to sort by.
struct vec4 {
  double v[4];
};

// Sort comparison on the fourth value: !(a >= b), so it is also true when
// either value is NaN. Sorting with it gives ascending order.
SEGCORE_EXPORT bool order(vec4 a, vec4 b);

// Argument record of one assignment thread of k_means. Thread t handles the
// samples [t*q, (t+1)*q) with q = n/4, the last thread up to n; it writes
// only its label range and its own row of the accumulators.
struct kmeansThreadArgs {
  double** samples;        // n pointers to three doubles
  int* labels;             // n labels, written
  int n;
  double** centres;        // five pointers to three doubles, read
  double (*sums)[5][3];    // [thread][cluster][channel]
  double (*counts)[5];     // [thread][cluster], 1.0 per sample
  double* errors;          // [thread]: sum of squared distances to the chosen centres
  int t;                   // thread number 0..3
};

// Clusters n samples into 5: writes n labels (0..4) and the five centres.
// Stops after maxIterations or when the total squared error changes by no
// more than epsilon. A cluster that loses all its samples keeps its centre
// and gets its seed sample's label back. n < 1 is refused with a log line.
SEGCORE_EXPORT void k_means(double** samples, int* labels, int n, double epsilon,
                            int maxIterations, double** centres);
// k-means++ seeding: writes k sample indices into seeds. Reseeds the process-
// wide C library generator (srand), so it belongs to one thread at a time.
SEGCORE_EXPORT void chooseCentersKMeanspp(double** samples, int n, int k, int* seeds);
// Thread entry of the assignment step; args is a kmeansThreadArgs. Returns null.
SEGCORE_EXPORT void* findMinDistance(void* args);

// Squared Euclidean distance.
SEGCORE_EXPORT double distSq(pixelVal a, pixelVal b);
// Channel-wise mean; (0, 0, 0) for an empty list.
SEGCORE_EXPORT pixelVal findMean(const std::vector<pixelVal>& samples);
// Sum of squared distances to the list's mean; 0 for an empty list.
SEGCORE_EXPORT double findSSE(const std::vector<pixelVal>& samples);
// Appends the samples at or above the mean of the channel of largest variance
// to high and the others to low (ties between channels keep the lower one);
// records that channel in g_maxVarDir.
SEGCORE_EXPORT void varPartition(const std::vector<pixelVal>& in, std::vector<pixelVal>& low,
                                 std::vector<pixelVal>& high);
// Five centres from four successive splits of the list with the largest
// error per sample.
SEGCORE_EXPORT void varParInit(const std::vector<pixelVal>& samples, double** centres);
