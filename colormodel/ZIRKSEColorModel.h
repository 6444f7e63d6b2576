// Five-component Gaussian mixture of three-dimensional colour samples.
//
// Densities are the Gaussian without its (2*pi)^(-3/2) factor: every consumer
// (t-link weights, criteria) is tuned to these unscaled values.
// Call order: after any change of weights, means or covariances, call
// setDeterminant() and then setInverseCovariance() before querying (the fits
// of TrainingData.h end with setDeterminant only; the caller chooses the
// noise level for the loading). Queries only read the model and may run on
// several threads at once while nobody changes it.
// A component is absent when its weight is not above 0, and contributes
// nothing to any colour density when its determinant is exactly 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "support/export.h"

// One sample: for colour images the three channel bytes in storage order; for
// grey images (intensity, horizontal texture, vertical texture).
struct pixelVal {
  double c0;
  double c1;
  double c2;
};

// Per-cluster statistics of labelled samples (labels 0..4, not range-checked).
struct SEGCORE_EXPORT ClusterInfo {
  int32_t count[5];      // samples of cluster k
  double sum[3][5];      // [channel][cluster] sums
  double sumProd[9][5];  // [i*3+j][cluster] sums of x_i * x_j

  ClusterInfo(std::vector<int> labels, std::vector<pixelVal> samples);
};

// Adds n labelled samples to the statistics, as the constructor does, without
// copying the lists.
void ZIRK_addToClusters(ClusterInfo& info, const int* labels, const pixelVal* samples, size_t n);

class SEGCORE_EXPORT ZIRKSEColorModel {
 public:
  // All components absent (weight 0); every density is 0.
  ZIRKSEColorModel();

  // Determinant and 1/sqrt(determinant) of each present component. An exact
  // zero determinant keeps the previous factor; absent components get 0.
  void setDeterminant();
  // Inverse covariances. A determinant not above DBL_EPSILON is repaired by
  // adding ZIRKSEMarker::m_noiseLevel to the diagonal (written back into
  // m_covariance) until it is. A noise level that is not positive falls back
  // to 0.1 with a log line; a non-finite covariance switches the component
  // off (determinant 0) with a log line.
  void setInverseCovariance();

  double gaussianProb(int k, pixelVal x);           // unweighted density of component k
  // 1-D density on channel 0 with variance m_covariance[k][0]; checks neither
  // weight nor determinant (a zero variance gives inf or NaN).
  double gaussianProbGreyScale(int k, pixelVal x);
  double GMMProb(pixelVal x);                       // weighted mixture density (hot path)
  double GMMProbGreyScale(pixelVal x);              // weighted 1-D mixture on channel 0
  // Expectation-maximisation; nothing with fewer than 5 samples. Factors and
  // inverses are refreshed only after the last iteration, so later E-steps
  // use those the model had on entry.
  void EM(std::vector<pixelVal> samples, int iterations);
  // True when the model describes a simple region.
  bool colorModelCriteria();
  // Component of highest unweighted density; ties to the lower index.
  int assignCluster(pixelVal x);

  double m_weight[5];            // mixing weight; <= 0 means absent
  double m_mean[5][3];
  double m_covariance[5][9];     // row-major 3x3
  double m_determinant[5];       // 0 marks a component that does not contribute
  double m_normFactor[5];        // 1/sqrt(determinant)
  double m_invCovariance[5][9];  // row-major 3x3
};

// assignCluster() of a model that does not change while it runs, with no
// exponential: components are ranked by the logarithm of their density
// (log of the factor less half the quadratic form, computed as the model
// computes it), and a component that leads the next by a clear margin is
// the one of highest density, whatever the rounding of the densities.
// Anything else (a tie or near-tie, a NaN, a density near the range of
// doubles, a factor that is not positive and finite) takes the model's own
// formula, so the answer is always assignCluster's. Built once per fit;
// holds a reference to the model.
class NearestComponent {
 public:
  explicit NearestComponent(const ZIRKSEColorModel& model);
  int operator()(const pixelVal& x) const;

 private:
  const ZIRKSEColorModel& m_model;
  bool m_present[5];    // determinant not 0: the component has a density
  bool m_usable;        // every present component's factor is positive and finite
  double m_logNorm[5];  // log(normFactor) of a present component
};
