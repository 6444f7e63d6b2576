// Five-component Gaussian mixture of three-dimensional colour samples.
//
// Densities are the Gaussian without its (2*pi)^(-3/2) factor: every consumer
// (t-link weights, criteria) is tuned to these unscaled values.
// After any change of weights, means or covariances, call setDeterminant()
// and then setInverseCovariance() before querying. Queries only read the
// model and may run on several threads at once.
#pragma once

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

class SEGCORE_EXPORT ZIRKSEColorModel {
 public:
  // All components absent (weight 0); every density is 0.
  ZIRKSEColorModel();

  // Determinant and 1/sqrt(determinant) of each present component. An exact
  // zero determinant keeps the previous factor; absent components get 0.
  void setDeterminant();
  // Inverse covariances. A determinant not above DBL_EPSILON is repaired by
  // loading the diagonal with ZIRKSEMarker::m_noiseLevel until it is.
  void setInverseCovariance();

  double gaussianProb(int k, pixelVal x);           // unweighted density of component k
  double gaussianProbGreyScale(int k, pixelVal x);  // 1-D density on channel 0
  double GMMProb(pixelVal x);                       // weighted mixture density (hot path)
  double GMMProbGreyScale(pixelVal x);              // weighted 1-D mixture on channel 0
  // Expectation-maximisation; nothing with fewer than 5 samples.
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
