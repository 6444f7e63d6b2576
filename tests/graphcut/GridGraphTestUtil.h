// Helpers for the grid-graph tests and the max-flow benchmark: an explicit
// grid graph, a plain max-flow oracle, cut capacity, a search-tree check,
// and graphs built from photos.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <queue>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "graphcut/ZIRKSEGraph.h"

namespace gridtest {

// One edge slot of a node: capacity towards the neighbour and back.
struct Slot {
  float cap = 0.0f, rev = 0.0f;
  bool absent = true;
};

// Terminal capacities per node and four edge slots per node: left, up-left, up, up-right.
struct GridGraph {
  explicit GridGraph(int width = 0, int height = 0)
      : w(width), h(height), src(w * h), snk(w * h), e(4 * w * h) {}
  int w, h;
  std::vector<float> src, snk;
  std::vector<Slot> e;
  int nodes() const { return w * h; }
};
using ImageGraph = GridGraph;

// Neighbour of node p through edge slot k, or -1 outside the grid.
inline int slotNeighbour(int w, int p, int k) {
  static const int kDx[4] = {-1, -1, 0, 1}, kDy[4] = {0, -1, -1, -1};
  const int x = p % w + kDx[k], y = p / w + kDy[k];
  return x >= 0 && x < w && y >= 0 ? y * w + x : -1;
}

// Random grid graph; integral: small integer capacities, so every sum is
// exact in float and the cut itself is determined. A third of the nodes
// hang from the source, a third from the sink, the rest are free or carry
// both links; a tenth of the slots are absent, a tenth of each direction 0.
inline GridGraph randomGrid(std::mt19937& rng, int w, int h, bool integral) {
  GridGraph s(w, h);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  auto value = [&](float scale) { return integral ? std::floor(u(rng) * scale) : u(rng) * scale; };
  for (int p = 0; p < w * h; ++p) {
    const float r = u(rng);
    s.src[p] = r < 0.33f ? value(12.0f) : (r < 0.5f ? value(6.0f) : 0.0f);
    s.snk[p] = r > 0.66f ? value(12.0f) : (r > 0.4f && r < 0.5f ? value(6.0f) : 0.0f);
    for (int k = 0; k < 4; ++k) {
      const float r2 = u(rng);
      s.e[4 * p + k] = Slot{r2 < 0.2f ? 0.0f : value(8.0f), u(rng) < 0.1f ? 0.0f : value(8.0f),
                            slotNeighbour(w, p, k) < 0 || r2 < 0.1f};
    }
  }
  return s;
}

// Fills a fresh graph from the description, in the order its contract asks.
inline void fill(ZIRKSEGraph& g, const GridGraph& s) {
  g.addNode(s.nodes());
  for (int p = 0; p < s.nodes(); ++p) g.addtWeights(p, s.src[p], s.snk[p]);
  for (int i = 0; i < 4 * s.nodes(); ++i)
    g.addEdge(i / 4, slotNeighbour(s.w, i / 4, i % 4), s.e[i].cap, s.e[i].rev, s.e[i].absent);
}

struct OracleResult {
  double flow = 0.0;
  std::vector<bool> sinkSide;  // per node: can still reach the sink in the residual graph
};

// Plain max-flow (shortest augmenting paths, double precision) on an explicit
// arc list; arc e and its partner e ^ 1; source and sink are nodes n, n + 1.
inline OracleResult solveWithOracle(const GridGraph& s) {
  const int n = s.nodes(), src = n, snk = n + 1;
  std::vector<std::vector<int>> adj(n + 2);
  std::vector<int> to;
  std::vector<double> res;
  auto arc = [&](int u, int v, double there, double back) {
    adj[u].push_back(static_cast<int>(to.size()));
    to.push_back(v), res.push_back(there);
    adj[v].push_back(static_cast<int>(to.size()));
    to.push_back(u), res.push_back(back);
  };
  for (int p = 0; p < n; ++p) {
    arc(src, p, s.src[p], 0.0);
    arc(p, snk, s.snk[p], 0.0);
    for (int k = 0; k < 4; ++k)
      if (!s.e[4 * p + k].absent) arc(p, slotNeighbour(s.w, p, k), s.e[4 * p + k].cap, s.e[4 * p + k].rev);
  }
  std::vector<int> via;  // breadth-first search; backward follows arcs into the reached nodes
  auto search = [&](int from, bool backward) {
    via.assign(n + 2, -1);
    via[from] = -2;
    std::queue<int> q;
    for (q.push(from); !q.empty(); q.pop())
      for (int e : adj[q.front()])
        if (via[to[e]] == -1 && res[backward ? e ^ 1 : e] > 1e-9) via[to[e]] = e, q.push(to[e]);
    return via[snk] != -1;
  };
  OracleResult r;
  while (search(src, false)) {
    double f = std::numeric_limits<double>::infinity();
    for (int v = snk; v != src; v = to[via[v] ^ 1]) f = std::min(f, res[via[v]]);
    for (int v = snk; v != src; v = to[via[v] ^ 1]) res[via[v]] -= f, res[via[v] ^ 1] += f;
    r.flow += f;
  }
  search(snk, true);
  for (int p = 0; p < n; ++p) r.sinkSide.push_back(via[p] != -1);
  return r;
}

// Capacity of the cut whose sink side is given, in the original graph.
inline double cutCapacity(const GridGraph& s, const std::vector<bool>& sinkSide) {
  double c = 0.0;
  for (int p = 0; p < s.nodes(); ++p) {
    c += sinkSide[p] ? s.src[p] : s.snk[p];
    for (int k = 0; k < 4; ++k) {
      const Slot& e = s.e[4 * p + k];
      const int q = slotNeighbour(s.w, p, k);
      if (!e.absent && sinkSide[p] != sinkSide[q]) c += sinkSide[q] ? e.cap : e.rev;
    }
  }
  return c;
}

inline std::vector<bool> sinkSideOf(ZIRKSEGraph& g, int n) {
  std::vector<bool> side(n);
  for (int p = 0; p < n; ++p) side[p] = g.getTreeofNode(p) == 1;
  return side;
}

// Invariants of the search trees after a solve: a tree node's parent arc
// leaves it (tail and head read from the slot table: even arcs leave node
// arc / 8), has residual capacity in the tree's direction and leads into the
// same tree; chains end at a terminal root of the right sign or a queued
// orphan; free nodes have no parent; both queues end at their tail without
// repeats; a finished solve leaves no residual arc out of the source tree or
// into the sink tree. Empty string when all hold.
inline std::string checkTrees(const ZIRKSEGraph& g) {
  std::ostringstream why;
  const int n = g.m_width * g.m_height;
  auto walk = [&](const nodes* v, const nodes* last, nodes* nodes::*link) {
    std::set<const nodes*> seen;
    const nodes* prev = nullptr;
    for (; v != nullptr && v != prev && seen.insert(v).second; v = v->*link) prev = v;
    if (v != prev || prev != last) why << "queue with a repeated node or a wrong tail; ";
    return seen;
  };
  const std::set<const nodes*> orphans = walk(g.m_orphanFirst, g.m_orphanLast, &nodes::nextOrphan);
  walk(g.m_activeFirst, g.m_activeLast, &nodes::next);
  for (int p = 0; p < n; ++p) {
    const nodes& v = g.m_nodes[p];
    if (v.tree != SOURCE && v.tree != SINK) {
      if (v.tree != FREE || v.parent != ORPHAN) why << "node " << p << " free with a parent; ";
      continue;
    }
    int cur = p;
    for (int steps = 0; g.m_nodes[cur].parent >= 0; ++steps) {
      const int a = g.m_nodes[cur].parent, q = slotNeighbour(g.m_width, a / 8, a % 8 / 2);
      const int tail = a % 2 == 0 ? a / 8 : q, head = a % 2 == 0 ? q : a / 8;
      if (steps > n || tail != cur || head < 0 || head >= n)
        return why.str() + "chain of node " + std::to_string(p) + " cycles or leaves the grid";
      if (!((v.tree == SOURCE ? g.m_arcs[a ^ 1] : g.m_arcs[a]) > 0.0f))
        why << "saturated parent arc at " << cur << "; ";
      if (g.m_nodes[head].tree != v.tree) why << "parent of node " << cur << " in another tree; ";
      cur = head;
    }
    const nodes& root = g.m_nodes[cur];
    if (root.parent == TERMINAL ? !(v.tree == SOURCE ? root.tr_cap > 0.0f : root.tr_cap < 0.0f)
                                : !orphans.count(&root))
      why << "chain of node " << p << " ends in node " << cur << ", no root or queued orphan; ";
  }
  for (int p = 0; g.m_activeFirst == nullptr && p < n; ++p) {
    for (int k = 0; k < 4; ++k) {
      const int q = slotNeighbour(g.m_width, p, k);
      for (int d = 0; q >= 0 && d < 2; ++d) {  // arc p -> q, then q -> p
        const int from = g.m_nodes[d ? q : p].tree, to = g.m_nodes[d ? p : q].tree;
        if (from != to && from != SINK && to != SOURCE && g.m_arcs[8 * p + 2 * k + d] > 0.0f)
          why << "residual arc " << 8 * p + 2 * k + d << " leaves the source tree or enters the sink tree; ";
      }
    }
  }
  return why.str();
}

// A graph from a photo, in the spirit of the segmentation: inside the
// rectangle t-links are -log of the other region's colour histogram, outside
// it the pixel is tied to the sink; edges weigh 50 exp(-beta |dI|^2) / distance.
inline GridGraph imageGraph(const cv::Mat& bgr, cv::Rect rect) {
  GridGraph g(bgr.cols, bgr.rows);
  const int n = g.nodes();
  rect &= cv::Rect(0, 0, g.w, g.h);
  auto colour = [&](int p) { return cv::Vec3d(bgr.at<cv::Vec3b>(p / g.w, p % g.w)); };
  auto bin = [&](int p) {
    const cv::Vec3d c = colour(p) / 32.0;
    return int(c[0]) * 64 + int(c[1]) * 8 + int(c[2]);
  };
  auto inside = [&](int p) { return rect.contains(cv::Point(p % g.w, p / g.w)); };
  std::vector<double> hist[2] = {std::vector<double>(512, 1.0), std::vector<double>(512, 1.0)};
  for (int p = 0; p < n; ++p) hist[inside(p)][bin(p)] += 1.0;  // Laplace-smoothed counts
  const double total[2] = {512.0 + n - rect.area(), 512.0 + rect.area()};
  for (int p = 0; p < n; ++p) {
    g.src[p] = inside(p) ? static_cast<float>(-std::log(hist[0][bin(p)] / total[0])) : 0.0f;
    g.snk[p] = inside(p) ? static_cast<float>(-std::log(hist[1][bin(p)] / total[1])) : 1000.0f;
  }
  std::vector<double> d2(4 * n, -1.0);
  double sum = 0.0, count = 0.0;
  for (int i = 0; i < 4 * n; ++i) {
    const int q = slotNeighbour(g.w, i / 4, i % 4);
    if (q < 0) continue;
    const cv::Vec3d d = colour(i / 4) - colour(q);
    sum += d2[i] = d.dot(d);
    count += 1.0;
  }
  const double beta = sum > 0.0 ? count / (2.0 * sum) : 0.0;
  for (int i = 0; i < 4 * n; ++i) {
    if (d2[i] < 0.0) continue;
    const float c = static_cast<float>(50.0 * std::exp(-beta * d2[i]) / (i % 2 == 1 ? std::sqrt(2.0) : 1.0));
    g.e[i] = Slot{c, c, false};
  }
  return g;
}

// The photo resized to w x h with its rectangle scaled along.
inline GridGraph photoGraph(const cv::Mat& bgr, int x1, int y1, int x2, int y2, int w, int h) {
  cv::Mat small;
  cv::resize(bgr, small, cv::Size(w, h), 0, 0, cv::INTER_AREA);
  const double sx = double(w) / bgr.cols, sy = double(h) / bgr.rows;
  const cv::Rect rect(int(x1 * sx), int(y1 * sy), std::max(1, int((x2 - x1 + 1) * sx)),
                      std::max(1, int((y2 - y1 + 1) * sy)));
  return imageGraph(small, rect);
}

}  // namespace gridtest
