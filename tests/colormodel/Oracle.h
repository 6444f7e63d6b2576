// Reference computations for the colour-model tests, independent of the code
// under test: densities through OpenCV's Cholesky solve and determinant,
// moments of labelled samples by direct sums, random test data.
#pragma once

#include <opencv2/core.hpp>

#include <cmath>
#include <random>
#include <vector>

#include "colormodel/ZIRKSEColorModel.h"

namespace oracle {

inline cv::Vec3d vec(const pixelVal& x) { return cv::Vec3d(x.c0, x.c1, x.c2); }
inline pixelVal pixel(const cv::Vec3d& v) { return pixelVal{v[0], v[1], v[2]}; }

// exp(-0.5 (x-mu)^T S^-1 (x-mu)) / sqrt(det S), without (2 pi)^(-3/2).
inline double density(const double* mean, const double* cov, const pixelVal& x) {
  const cv::Matx33d s(cov);
  const cv::Vec3d d = vec(x) - cv::Vec3d(mean);
  return std::exp(-0.5 * d.dot(s.solve(d, cv::DECOMP_CHOLESKY))) / std::sqrt(cv::determinant(s));
}

// Appends samples of one Gaussian blob with a diagonal spread.
inline void blob(std::mt19937& rng, const double* mean, double sd, int count,
                 std::vector<pixelVal>* out) {
  std::normal_distribution<double> g(0.0, sd);
  for (int i = 0; i < count; ++i)
    out->push_back(pixelVal{mean[0] + g(rng), mean[1] + g(rng), mean[2] + g(rng)});
}

// Five separated blobs of different sizes and spreads, with their membership.
inline void fiveBlobs(unsigned seed, std::vector<pixelVal>* samples, std::vector<int>* member) {
  std::mt19937 rng(seed);
  const double means[5][3] = {
      {20, 30, 40}, {220, 40, 30}, {40, 210, 60}, {50, 60, 220}, {210, 200, 190}};
  const int sizes[5] = {300, 120, 200, 80, 250};
  for (int k = 0; k < 5; ++k) {
    blob(rng, means[k], 3.0 + k, sizes[k], samples);
    member->resize(samples->size(), k);
  }
}

// Share, mean and covariance of the samples weighted by w (0/1 weights:
// the population moments of the chosen samples).
struct Moments {
  double weight = 0.0;
  cv::Vec3d mean;
  cv::Matx33d cov;
};
inline Moments moments(const std::vector<pixelVal>& s, const std::vector<double>& w) {
  Moments m;
  double total = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    total += w[i];
    m.mean += w[i] * vec(s[i]);
  }
  m.mean /= total;
  for (size_t i = 0; i < s.size(); ++i)
    m.cov += w[i] / total * (vec(s[i]) - m.mean) * (vec(s[i]) - m.mean).t();
  m.weight = total / s.size();
  return m;
}
inline Moments moments(const std::vector<pixelVal>& s, const std::vector<int>& labels, int k) {
  std::vector<double> w;
  for (int label : labels) w.push_back(label == k ? 1.0 : 0.0);
  return moments(s, w);
}

}  // namespace oracle
