// Helpers for the grid-graph tests and the max-flow benchmark: an explicit
// grid graph, its fill, a plain max-flow oracle and cut capacity.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <queue>
#include <random>
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
// With `strayBorder`, the slots of links that would leave the grid get
// capacities instead of absent arcs: the solver must ignore them.
inline void fill(ZIRKSEGraph& g, const GridGraph& s, bool strayBorder = false) {
  g.addNode(s.nodes());
  for (int p = 0; p < s.nodes(); ++p) g.addtWeights(p, s.src[p], s.snk[p]);
  for (int i = 0; i < 4 * s.nodes(); ++i) {
    const int to = slotNeighbour(s.w, i / 4, i % 4);
    if (strayBorder && to < 0)
      g.addEdge(i / 4, to, 7.0f, 5.0f, false);
    else
      g.addEdge(i / 4, to, s.e[i].cap, s.e[i].rev, s.e[i].absent);
  }
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

}  // namespace gridtest
