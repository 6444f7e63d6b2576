// Reference computations for the colour-model tests, written independently of
// the code under test: determinant and inverse by Gauss-Jordan elimination
// with partial pivoting, and the unscaled Gaussian density from them.
#pragma once

#include <cmath>
#include <random>
#include <utility>

#include "colormodel/ZIRKSEColorModel.h"

namespace oracle {

struct Mat3 {
  double a[3][3];
};

// Determinant and inverse together; returns false for a singular matrix.
inline bool invert(const Mat3& m, Mat3* inverse, double* det) {
  double w[3][6];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 6; ++j) w[i][j] = j < 3 ? m.a[i][j] : (j - 3 == i ? 1.0 : 0.0);
  double d = 1.0;
  for (int col = 0; col < 3; ++col) {
    int pivot = col;
    for (int r = col + 1; r < 3; ++r)
      if (std::fabs(w[r][col]) > std::fabs(w[pivot][col])) pivot = r;
    if (w[pivot][col] == 0.0) return false;
    if (pivot != col) {
      for (int j = 0; j < 6; ++j) std::swap(w[pivot][j], w[col][j]);
      d = -d;
    }
    const double p = w[col][col];
    d *= p;
    for (int j = 0; j < 6; ++j) w[col][j] /= p;
    for (int r = 0; r < 3; ++r) {
      if (r == col) continue;
      const double f = w[r][col];
      for (int j = 0; j < 6; ++j) w[r][j] -= f * w[col][j];
    }
  }
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) inverse->a[i][j] = w[i][j + 3];
  *det = d;
  return true;
}

inline Mat3 fromRowMajor(const double* c) {
  Mat3 m;
  for (int i = 0; i < 9; ++i) m.a[i / 3][i % 3] = c[i];
  return m;
}

// exp(-0.5 (x-mu)^T S^-1 (x-mu)) / sqrt(det S), without (2 pi)^(-3/2).
inline double density(const double mean[3], const Mat3& cov, const pixelVal& x) {
  Mat3 inv;
  double det = 0;
  if (!invert(cov, &inv, &det)) return 0.0;
  const double d[3] = {x.c0 - mean[0], x.c1 - mean[1], x.c2 - mean[2]};
  double q = 0;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) q += d[i] * inv.a[i][j] * d[j];
  return std::exp(-0.5 * q) / std::sqrt(det);
}

// Random symmetric positive-definite matrix: A A^T + s I, entries of A in
// [-scale, scale].
inline Mat3 randomSpd(std::mt19937& rng, double scale, double s) {
  std::uniform_real_distribution<double> u(-scale, scale);
  double a[3][3];
  for (auto& row : a)
    for (double& v : row) v = u(rng);
  Mat3 m;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double sum = 0;
      for (int k = 0; k < 3; ++k) sum += a[i][k] * a[j][k];
      m.a[i][j] = sum + (i == j ? s : 0.0);
    }
  return m;
}

// Samples of one Gaussian blob with a diagonal spread.
inline void blob(std::mt19937& rng, const double mean[3], double sd, int count,
                 std::vector<pixelVal>* out) {
  std::normal_distribution<double> g(0.0, sd);
  for (int i = 0; i < count; ++i)
    out->push_back(pixelVal{mean[0] + g(rng), mean[1] + g(rng), mean[2] + g(rng)});
}

}  // namespace oracle
