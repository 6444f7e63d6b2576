// The live-wire search against a plain O(N^2) Dijkstra over link costs that
// the test derives itself from the colours and labels. The search drives its
// min-heap through push, pop, key decrease and ties: heap faults show here.
#include "livewire/LiveWire.h"

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <random>
#include <vector>

namespace {

// Neighbour offsets in link-slot order: down-right, right, up-right, up, ...
const int kDr[8] = {1, 0, -1, -1, -1, 0, 1, 1};
const int kDc[8] = {1, 1, 1, 0, -1, -1, -1, 0};

// Directed link costs as documented: outside DBL_MAX; a step between object
// (2, 4) and background (1, 3) costs 0 but makes the pixel's down-right step
// DBL_MAX; otherwise sqrt(((1-a)/3)*|dcolour|^2 + a*|dstep|^2).
std::vector<std::vector<double>> linkCosts(const cv::Mat& colour, const cv::Mat& labels, double alpha) {
  const int w = colour.cols, h = colour.rows;
  auto side = [&](int r, int c) {  // +1 object, -1 background, 0 neither
    const int l = labels.at<uint8_t>(r, c);
    return l == 2 || l == 4 ? 1 : (l == 1 || l == 3 ? -1 : 0);
  };
  std::vector<std::vector<double>> cost(static_cast<size_t>(w) * h, std::vector<double>(8, 0.0));
  for (int v = 0; v < w * h; ++v) {
    const int r = v / w, c = v % w;
    bool blocked = false;
    for (int k = 0; k < 8; ++k) {
      const int qr = r + kDr[k], qc = c + kDc[k];
      if (qr < 0 || qr >= h || qc < 0 || qc >= w) {
        cost[v][k] = DBL_MAX;
      } else if (side(r, c) * side(qr, qc) < 0) {
        blocked = true;  // the cost stays 0
      } else {
        const cv::Vec3d d = cv::Vec3d(colour.at<cv::Vec3b>(r, c)) - cv::Vec3d(colour.at<cv::Vec3b>(qr, qc));
        cost[v][k] = std::sqrt((1 - alpha) / 3 * d.dot(d) + alpha * (kDr[k] * kDr[k] + kDc[k] * kDc[k]));
      }
    }
    if (blocked) cost[v][0] = DBL_MAX;
  }
  return cost;
}

// Textbook Dijkstra, picking the cheapest unsettled pixel by a linear scan.
// DBL_MAX links are never usable; NaN links (alpha above 1) fail every comparison.
std::vector<double> plainDijkstra(const std::vector<std::vector<double>>& cost, int w, int h, int seed) {
  std::vector<double> dist(cost.size(), DBL_MAX);
  std::vector<bool> done(cost.size(), false);
  dist[seed] = 0;
  for (;;) {
    int u = -1;
    for (int i = 0; i < w * h; ++i)
      if (!done[i] && dist[i] < DBL_MAX && (u < 0 || dist[i] < dist[u])) u = i;
    if (u < 0) return dist;
    done[u] = true;
    for (int k = 0; k < 8; ++k) {
      const int qr = u / w + kDr[k], qc = u % w + kDc[k];
      if (qr >= 0 && qr < h && qc >= 0 && qc < w && cost[u][k] != DBL_MAX)
        dist[qr * w + qc] = std::min(dist[qr * w + qc], dist[u] + cost[u][k]);
    }
  }
}

bool near(double a, double b) { return std::fabs(a - b) <= 1e-9 * (1 + std::fabs(b)); }

// Random images (few colour levels give ties; one to six label kinds), seeds
// in corners or anywhere. Costs equal the reference distances; a reached
// pixel's parent is a neighbour whose distance plus the link is its own, the
// chain ends at the seed; unreached pixels (alpha 2 makes some) have parent -1.
TEST(LiveWire, CostsAndParentsMatchAPlainDijkstraOnRandomImages) {
  std::mt19937 rng(2024);
  int unreached = 0;
  for (int trial = 0; trial < 360; ++trial) {
    const int w = 1 + static_cast<int>(rng() % 14), h = 1 + static_cast<int>(rng() % 14);
    cv::Mat colour(h, w, CV_8UC3), labels(h, w, CV_8U), costMap(h, w, CV_64F);
    const int levels = trial % 3 == 0 ? 2 : 256, kinds = 1 + static_cast<int>(rng() % 6);
    const uint8_t labelSet[] = {0, 1, 2, 3, 4, 7};
    for (int i = 0; i < w * h; ++i) {
      for (int ch = 0; ch < 3; ++ch)
        colour.data[3 * i + ch] = static_cast<uint8_t>((rng() % levels) * (255 / (levels - 1)));
      labels.data[i] = labelSet[rng() % kinds];
    }
    const double alpha = trial % 6 == 5 ? 2.0 : std::uniform_real_distribution<double>(0, 1)(rng);
    const int corner = static_cast<int>(rng() % 5);
    const int seedRow = corner == 4 ? static_cast<int>(rng() % h) : (corner & 1 ? h - 1 : 0);
    const int seedCol = corner == 4 ? static_cast<int>(rng() % w) : (corner & 2 ? w - 1 : 0);
    IplImage ci = cvIplImage(colour), li = cvIplImage(labels), mi = cvIplImage(costMap);
    const std::vector<int> parents = find_parent_info(&ci, &li, seedRow, seedCol, alpha, &mi);
    EXPECT_EQ(find_parent_info(&ci, &li, seedRow, seedCol, alpha), parents);

    const int seed = seedRow * w + seedCol;
    const auto cost = linkCosts(colour, labels, alpha);
    const std::vector<double> dist = plainDijkstra(cost, w, h, seed);
    ASSERT_EQ(parents.size(), dist.size());
    for (int v = 0; v < w * h; ++v) {
      SCOPED_TRACE(::testing::Message() << "trial " << trial << " pixel " << v << " seed " << seed);
      const double got = costMap.at<double>(v / w, v % w);
      ASSERT_TRUE(near(got, dist[v])) << got << " vs " << dist[v];
      const int p = parents[v];
      if (dist[v] == DBL_MAX || v == seed) {
        ASSERT_EQ(p, v == seed ? seed : -1);
        unreached += p == -1;
        continue;
      }
      ASSERT_GE(p, 0);
      int slot = -1;
      for (int k = 0; k < 8; ++k)
        if (p / w + kDr[k] == v / w && p % w + kDc[k] == v % w) slot = k;
      ASSERT_GE(slot, 0) << "parent " << p << " is no neighbour";
      ASSERT_TRUE(near(dist[p] + cost[p][slot], dist[v]));
      int steps = 0, at = v;
      while (at != seed && at >= 0 && steps++ <= w * h) at = parents[at];
      ASSERT_EQ(at, seed) << "parent chain does not reach the seed";
    }
  }
  EXPECT_GT(unreached, 0);  // the case was exercised
}

}  // namespace
