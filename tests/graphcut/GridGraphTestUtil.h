// Helpers for the grid-graph tests and the max-flow benchmark: an explicit
// description of a grid graph, a plain max-flow oracle over an edge list, cut
// evaluation, a search-tree consistency check, and graphs built from photos.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <queue>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "graphcut/ZIRKSEGraph.h"

namespace gridtest {

// A grid graph as the caller builds it: per node its terminal capacities
// (possibly given in two addtWeights calls) and the four edge slots left,
// up-left, up, up-right with the capacity towards the neighbour and back.
struct GridSpec {
  int w = 0, h = 0;
  std::vector<float> src1, snk1, src2, snk2;  // two addtWeights calls per node
  std::vector<bool> twoCalls;
  std::vector<float> cap, rev;  // 4 per node
  std::vector<bool> absent;     // 4 per node (always true outside the grid)

  int nodes() const { return w * h; }
  float source(int p) const { return src1[p] + (twoCalls[p] ? src2[p] : 0.0f); }
  float sink(int p) const { return snk1[p] + (twoCalls[p] ? snk2[p] : 0.0f); }
};

// Neighbour of node p through edge slot k (0 left, 1 up-left, 2 up, 3 up-right), or -1.
inline int slotNeighbour(int w, int h, int p, int k) {
  const int x = p % w, y = p / w;
  (void)h;
  switch (k) {
    case 0: return x > 0 ? p - 1 : -1;
    case 1: return (x > 0 && y > 0) ? p - w - 1 : -1;
    case 2: return y > 0 ? p - w : -1;
    default: return (y > 0 && x < w - 1) ? p - w + 1 : -1;
  }
}

// Random grid graph. integral: capacities are small integers (every sum is
// exact in float, so the cut is determined exactly).
inline GridSpec randomSpec(std::mt19937& rng, int w, int h, bool integral) {
  GridSpec s;
  s.w = w;
  s.h = h;
  const int n = w * h;
  std::uniform_real_distribution<float> u01(0.0f, 1.0f);
  auto value = [&](float scale) {
    return integral ? static_cast<float>(static_cast<int>(u01(rng) * scale)) : u01(rng) * scale;
  };
  s.src1.resize(n);
  s.snk1.resize(n);
  s.src2.resize(n);
  s.snk2.resize(n);
  s.twoCalls.resize(n);
  s.cap.resize(4 * n);
  s.rev.resize(4 * n);
  s.absent.resize(4 * n);
  for (int p = 0; p < n; ++p) {
    const float r = u01(rng);
    // About a third of the nodes hang from the source, a third from the sink,
    // the rest are free or carry both links.
    s.src1[p] = r < 0.33f ? value(12.0f) : (r < 0.5f ? value(6.0f) : 0.0f);
    s.snk1[p] = (r > 0.66f) ? value(12.0f) : (r > 0.4f && r < 0.5f ? value(6.0f) : 0.0f);
    s.twoCalls[p] = u01(rng) < 0.15f;
    s.src2[p] = u01(rng) < 0.5f ? value(5.0f) : 0.0f;
    s.snk2[p] = u01(rng) < 0.5f ? value(5.0f) : 0.0f;
    for (int k = 0; k < 4; ++k) {
      const int q = slotNeighbour(w, h, p, k);
      const float r2 = u01(rng);
      s.absent[4 * p + k] = q < 0 || r2 < 0.1f;
      s.cap[4 * p + k] = r2 < 0.2f ? 0.0f : value(8.0f);
      s.rev[4 * p + k] = u01(rng) < 0.1f ? 0.0f : value(8.0f);
    }
  }
  return s;
}

// Fills a fresh graph from the description, in the order its contract asks.
inline void fill(ZIRKSEGraph& g, const GridSpec& s) {
  g.addNode(s.nodes());
  for (int p = 0; p < s.nodes(); ++p) {
    g.addtWeights(p, s.src1[p], s.snk1[p]);
    if (s.twoCalls[p]) g.addtWeights(p, s.src2[p], s.snk2[p]);
  }
  for (int p = 0; p < s.nodes(); ++p) {
    for (int k = 0; k < 4; ++k) {
      const int q = slotNeighbour(s.w, s.h, p, k);
      g.addEdge(p, q, s.cap[4 * p + k], s.rev[4 * p + k], s.absent[4 * p + k]);
    }
  }
}

// Plain max-flow on an explicit edge list: shortest augmenting paths found
// by breadth-first search, pushed in phases over the level graph (Dinic), in
// double precision.
class FlowOracle {
 public:
  explicit FlowOracle(int n) : m_adj(n) {}
  void addArc(int u, int v, double c) {
    m_adj[u].push_back(static_cast<int>(m_to.size()));
    m_to.push_back(v);
    m_res.push_back(c);
    m_adj[v].push_back(static_cast<int>(m_to.size()));
    m_to.push_back(u);
    m_res.push_back(0.0);
  }
  double maxFlow(int s, int t) {
    double total = 0.0;
    while (levels(s, t)) {
      m_it.assign(m_adj.size(), 0);
      for (;;) {
        const double f = push(s, t, std::numeric_limits<double>::infinity());
        if (f <= 0.0) break;
        total += f;
      }
    }
    return total;
  }
  // Nodes that can still reach t through arcs with residual capacity.
  std::vector<bool> reachesSink(int t) const {
    std::vector<bool> seen(m_adj.size(), false);
    std::vector<int> stack{t};
    seen[t] = true;
    while (!stack.empty()) {
      const int v = stack.back();
      stack.pop_back();
      for (int e : m_adj[v]) {
        // e leaves v; its partner (e ^ 1) enters v from m_to[e].
        const int u = m_to[e];
        if (!seen[u] && m_res[e ^ 1] > kEps) {
          seen[u] = true;
          stack.push_back(u);
        }
      }
    }
    return seen;
  }

 private:
  static constexpr double kEps = 1e-9;
  bool levels(int s, int t) {
    m_level.assign(m_adj.size(), -1);
    std::queue<int> q;
    m_level[s] = 0;
    q.push(s);
    while (!q.empty()) {
      const int v = q.front();
      q.pop();
      for (int e : m_adj[v]) {
        if (m_res[e] > kEps && m_level[m_to[e]] < 0) {
          m_level[m_to[e]] = m_level[v] + 1;
          q.push(m_to[e]);
        }
      }
    }
    return m_level[t] >= 0;
  }
  double push(int v, int t, double f) {
    if (v == t) return f;
    for (size_t& i = m_it[v]; i < m_adj[v].size(); ++i) {
      const int e = m_adj[v][i];
      const int u = m_to[e];
      if (m_res[e] <= kEps || m_level[u] != m_level[v] + 1) continue;
      const double d = push(u, t, std::min(f, m_res[e]));
      if (d > 0.0) {
        m_res[e] -= d;
        m_res[e ^ 1] += d;
        return d;
      }
    }
    return 0.0;
  }
  std::vector<std::vector<int>> m_adj;
  std::vector<int> m_to;
  std::vector<double> m_res;
  std::vector<int> m_level;
  std::vector<size_t> m_it;
};

struct OracleResult {
  double flow = 0.0;
  std::vector<bool> sinkSide;  // per grid node: can reach the sink in the residual graph
};

inline OracleResult solveWithOracle(const GridSpec& s) {
  const int n = s.nodes(), src = n, snk = n + 1;
  FlowOracle o(n + 2);
  for (int p = 0; p < n; ++p) {
    if (s.source(p) > 0.0f) o.addArc(src, p, s.source(p));
    if (s.sink(p) > 0.0f) o.addArc(p, snk, s.sink(p));
    for (int k = 0; k < 4; ++k) {
      if (s.absent[4 * p + k]) continue;
      const int q = slotNeighbour(s.w, s.h, p, k);
      o.addArc(p, q, s.cap[4 * p + k]);
      o.addArc(q, p, s.rev[4 * p + k]);
    }
  }
  OracleResult r;
  r.flow = o.maxFlow(src, snk);
  std::vector<bool> reach = o.reachesSink(snk);
  r.sinkSide.assign(reach.begin(), reach.begin() + n);
  return r;
}

// Capacity of the cut whose sink side is given, in the original graph.
inline double cutCapacity(const GridSpec& s, const std::vector<bool>& sinkSide) {
  double c = 0.0;
  for (int p = 0; p < s.nodes(); ++p) {
    c += sinkSide[p] ? s.source(p) : s.sink(p);
    for (int k = 0; k < 4; ++k) {
      if (s.absent[4 * p + k]) continue;
      const int q = slotNeighbour(s.w, s.h, p, k);
      if (!sinkSide[p] && sinkSide[q]) c += s.cap[4 * p + k];
      if (sinkSide[p] && !sinkSide[q]) c += s.rev[4 * p + k];
    }
  }
  return c;
}

inline std::vector<bool> sinkSideOf(ZIRKSEGraph& g, int n) {
  std::vector<bool> side(n);
  for (int p = 0; p < n; ++p) side[p] = g.getTreeofNode(p) == 1;
  return side;
}

// Tail and head of an arc, read from the slot table (independent of the
// graph's offset arithmetic): even slots leave node p, odd slots enter it.
inline void arcEnds(int w, int arc, int* tail, int* head) {
  static const int kDx[4] = {-1, -1, 0, 1};
  static const int kDy[4] = {0, -1, -1, -1};
  const int p = arc / 8, k = arc % 8;
  const int q = p + kDy[k / 2] * w + kDx[k / 2];
  *tail = (k % 2 == 0) ? p : q;
  *head = (k % 2 == 0) ? q : p;
}

// Invariants of the search trees after a solve: a tree node's parent arc
// leaves it, has residual capacity in the tree's direction and leads to a
// node of the same tree; chains end at a terminal root of the right sign;
// free nodes have no parent; parentless tree nodes are queued orphans; both
// queues are well formed and hold no node twice. Empty string when all hold.
inline std::string checkTrees(const ZIRKSEGraph& g) {
  std::ostringstream why;
  const int w = g.m_width, n = g.m_width * g.m_height;
  auto queueNodes = [&](nodes* first, nodes* last, bool orphanQueue, const char* name) {
    std::set<const nodes*> seen;
    const nodes* v = first;
    const nodes* prev = nullptr;
    while (v != nullptr) {
      if (!seen.insert(v).second) {
        why << name << " queue holds node " << (v - g.m_nodes) << " twice; ";
        break;
      }
      const nodes* nx = orphanQueue ? v->nextOrphan : v->next;
      prev = v;
      if (nx == v) break;
      v = nx;
      if (static_cast<int>(seen.size()) > n) break;
    }
    if (prev != last) why << name << " queue tail mismatch; ";
    return seen;
  };
  const std::set<const nodes*> orphans =
      queueNodes(g.m_orphanFirst, g.m_orphanLast, true, "orphan");
  queueNodes(g.m_activeFirst, g.m_activeLast, false, "active");
  for (int p = 0; p < n; ++p) {
    const nodes& v = g.m_nodes[p];
    if (v.tree == FREE) {
      if (v.parent != ORPHAN) why << "free node " << p << " has a parent; ";
      continue;
    }
    if (v.tree != SOURCE && v.tree != SINK) {
      why << "node " << p << " has tree " << v.tree << "; ";
      continue;
    }
    if (v.parent == ORPHAN) {
      if (!orphans.count(&v)) why << "tree node " << p << " has no parent and is not queued; ";
      continue;
    }
    // Walk to the root.
    int cur = p, steps = 0;
    while (g.m_nodes[cur].parent >= 0 && steps <= n) {
      const int a = g.m_nodes[cur].parent;
      int tail = 0, head = 0;
      arcEnds(w, a, &tail, &head);
      if (tail != cur) {
        why << "parent arc " << a << " of node " << cur << " does not leave it; ";
        return why.str();
      }
      const float residual = v.tree == SOURCE ? g.m_arcs[a ^ 1] : g.m_arcs[a];
      if (!(residual > 0.0f)) why << "parent arc of node " << cur << " is saturated; ";
      if (g.m_nodes[head].tree != v.tree) why << "parent of node " << cur << " in another tree; ";
      cur = head;
      ++steps;
    }
    if (steps > n) {
      why << "parent chain of node " << p << " cycles; ";
      return why.str();
    }
    const nodes& root = g.m_nodes[cur];
    if (root.parent == TERMINAL) {
      if (v.tree == SOURCE && !(root.tr_cap > 0.0f)) why << "source root " << cur << " has no capacity; ";
      if (v.tree == SINK && !(root.tr_cap < 0.0f)) why << "sink root " << cur << " has no capacity; ";
    } else if (!orphans.count(&root)) {
      why << "chain of node " << p << " ends in unqueued node " << cur << "; ";
    }
  }
  return why.str();
}

// ---- Graphs from photos: t-links from colour histograms, n-links from contrast.

// Terminal and edge capacities of an 8-connected image graph, as the
// segmentation builds them in spirit: inside the rectangle t-links are
// -log of the other region's colour histogram, outside it the pixel is fixed
// to the sink; edges weigh 50 * exp(-beta |dI|^2) / distance.
struct ImageGraph {
  int w = 0, h = 0;
  std::vector<float> source, sink;  // per node
  std::vector<float> edge;          // 4 per node; negative = absent
};

inline ImageGraph imageGraph(const cv::Mat& bgr, cv::Rect rect) {
  ImageGraph g;
  g.w = bgr.cols;
  g.h = bgr.rows;
  const int n = g.w * g.h;
  rect &= cv::Rect(0, 0, g.w, g.h);
  auto bin = [](const cv::Vec3b& c) { return (c[0] >> 5) * 64 + (c[1] >> 5) * 8 + (c[2] >> 5); };
  std::vector<double> fg(512, 1.0), bg(512, 1.0);  // Laplace-smoothed counts
  for (int y = 0; y < g.h; ++y) {
    for (int x = 0; x < g.w; ++x) {
      (rect.contains(cv::Point(x, y)) ? fg : bg)[bin(bgr.at<cv::Vec3b>(y, x))] += 1.0;
    }
  }
  double fgSum = 0.0, bgSum = 0.0;
  for (int i = 0; i < 512; ++i) {
    fgSum += fg[i];
    bgSum += bg[i];
  }
  g.source.resize(n);
  g.sink.resize(n);
  for (int y = 0; y < g.h; ++y) {
    for (int x = 0; x < g.w; ++x) {
      const int p = y * g.w + x;
      if (!rect.contains(cv::Point(x, y))) {
        g.source[p] = 0.0f;
        g.sink[p] = 1000.0f;
        continue;
      }
      const int b = bin(bgr.at<cv::Vec3b>(y, x));
      g.source[p] = static_cast<float>(-std::log(bg[b] / bgSum));
      g.sink[p] = static_cast<float>(-std::log(fg[b] / fgSum));
    }
  }
  static const int kDx[4] = {-1, -1, 0, 1};
  static const int kDy[4] = {0, -1, -1, -1};
  auto diff2 = [&](int x, int y, int k) {
    const cv::Vec3b a = bgr.at<cv::Vec3b>(y, x), b = bgr.at<cv::Vec3b>(y + kDy[k], x + kDx[k]);
    double d = 0.0;
    for (int c = 0; c < 3; ++c) d += (double(a[c]) - b[c]) * (double(a[c]) - b[c]);
    return d;
  };
  auto inside = [&](int x, int y, int k) {
    const int qx = x + kDx[k], qy = y + kDy[k];
    return qx >= 0 && qx < g.w && qy >= 0 && qy < g.h;
  };
  double sum = 0.0;
  long count = 0;
  for (int y = 0; y < g.h; ++y) {
    for (int x = 0; x < g.w; ++x) {
      for (int k = 0; k < 4; ++k) {
        if (!inside(x, y, k)) continue;
        sum += diff2(x, y, k);
        ++count;
      }
    }
  }
  const double beta = sum > 0.0 ? 1.0 / (2.0 * sum / count) : 0.0;
  g.edge.assign(4 * n, -1.0f);
  for (int y = 0; y < g.h; ++y) {
    for (int x = 0; x < g.w; ++x) {
      for (int k = 0; k < 4; ++k) {
        if (!inside(x, y, k)) continue;
        const double dist = (k % 2 == 1) ? std::sqrt(2.0) : 1.0;
        g.edge[4 * (y * g.w + x) + k] = static_cast<float>(50.0 * std::exp(-beta * diff2(x, y, k)) / dist);
      }
    }
  }
  return g;
}

// The photo resized to w x h with its rectangle scaled along.
inline ImageGraph photoGraph(const cv::Mat& bgr, int x1, int y1, int x2, int y2, int w, int h) {
  cv::Mat small;
  cv::resize(bgr, small, cv::Size(w, h), 0, 0, cv::INTER_AREA);
  const double sx = double(w) / bgr.cols, sy = double(h) / bgr.rows;
  const cv::Rect rect(int(x1 * sx), int(y1 * sy), std::max(1, int((x2 - x1 + 1) * sx)),
                      std::max(1, int((y2 - y1 + 1) * sy)));
  return imageGraph(small, rect);
}

inline void fill(ZIRKSEGraph& g, const ImageGraph& d) {
  const int n = d.w * d.h;
  g.addNode(n);
  for (int p = 0; p < n; ++p) g.addtWeights(p, d.source[p], d.sink[p]);
  for (int p = 0; p < n; ++p) {
    for (int k = 0; k < 4; ++k) {
      const float c = d.edge[4 * p + k];
      g.addEdge(p, -1, c, c, c < 0.0f);
    }
  }
}

// The image graph as an explicit description (for cut evaluation).
inline GridSpec toSpec(const ImageGraph& d) {
  GridSpec s;
  s.w = d.w;
  s.h = d.h;
  const int n = d.w * d.h;
  s.src1 = d.source;
  s.snk1 = d.sink;
  s.src2.assign(n, 0.0f);
  s.snk2.assign(n, 0.0f);
  s.twoCalls.assign(n, false);
  s.cap.resize(4 * n);
  s.rev.resize(4 * n);
  s.absent.resize(4 * n);
  for (int i = 0; i < 4 * n; ++i) {
    s.absent[i] = d.edge[i] < 0.0f;
    s.cap[i] = s.rev[i] = std::max(d.edge[i], 0.0f);
  }
  return s;
}

}  // namespace gridtest
