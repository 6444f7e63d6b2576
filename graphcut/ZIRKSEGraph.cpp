// Grid flow graph and its serial two-tree max-flow.
//
// The solver, in three stages that repeat until no active node is left:
//   growth       pop an active node and scan its eight arcs in the fixed
//                neighbour order; free neighbours join its tree, a neighbour
//                of the other tree closes an augmenting path, and a
//                neighbour of the same tree that would be nearer its
//                terminal through this node takes it as parent;
//   augmentation push the bottleneck along the path; nodes whose parent arc
//                (or terminal link) saturates become orphans;
//   adoption     each orphan takes the neighbour nearest its terminal, or
//                becomes free and frees its children.
// Distances to the terminal are kept per node with the step at which they
// were confirmed, so adoption walks a chain only as far as the first node
// confirmed in the current step (block views of the parallel solver keep no
// distances and walk whole chains). Before the trees grow, a fresh grid
// gathers its terminal capacities in small blocks and routes them in bulk,
// and every one-link path source -> p -> q -> sink is saturated. Whatever
// order the paths are found in, the cut read from the trees is the minimum
// cut whose sink side is exactly the nodes that still reach the sink.
// Nothing is allocated here after construction; queues are intrusive links
// in the node records. A block view (second constructor) runs the same
// solver over its own queues on arrays it borrows from its parent. A band
// graph (graphcut/BandGraph.h) runs it over its stored rows.
//
// Memory: 32 bytes of node, 8 of distance bookkeeping and 64 bytes of
// reserved arc floats per node (half the arc floats are used).

#include "graphcut/ZIRKSEGraph.h"

#include <android/log.h>
#include <sys/time.h>

#include <cmath>
#include <cstddef>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <system_error>
#include <thread>

#include "engine/ZIRKSEMarker.h"
#include "graphcut/ParallelGC.h"
#include "support/ZIRKMemory.h"
#include "support/ZIRKRows.h"
#include "support/ZIRKTimer.h"

namespace {

// Neighbour-list entry of a position outside the grid.
constexpr int32_t kNoNeighbour = -2;
// Chain length of a candidate whose chain ends in an orphan or a free node.
constexpr int32_t kInfiniteDistance = 2147483647;
// Level of a node whose turn in a routing wave's downhill pass has come
// (no real level: levels count up from 0).
constexpr int32_t kPassedWave = -1;
// Bulk routing before a fresh solve: at most this many waves on a band
// graph and on a grid, ending early when a wave cancels less than this
// share of what the first one did. The long thin bands gain from many
// waves; the grids' augmenting paths are short, and more waves there cost
// more than they save.
constexpr int kBandWaves = 64;
constexpr int kGridWaves = 16;
constexpr double kWaveStop = 0.02;
// Side of the square blocks in which a fresh grid gathers its terminal
// capacities before it solves (see gatherInBlocks).
constexpr int32_t kGatherBlock = 8;
// A fresh fill of at least this many nodes writes them on two threads, in
// chunks of this many rows.
constexpr int32_t kThreadedFillNodes = 16384;
constexpr int kFillChunkRows = 16;
// Terminal capacities at or above this are taken for fixed pixels (the
// segmenter gives them 1000) when a fresh grid's work is shared out.
constexpr float kFixedCapacity = 500.0f;
// A part of a fresh grid stops after one augmentation for this many of its
// nodes and leaves the rest to the joins (see ZIRK_solveInParts).
constexpr int32_t kFreshPartNodesPerAugment = 16;
// A join of parts that needs more than one augmentation for this many of
// its nodes is carrying much flow across the seam along long paths: it
// routes in bulk over the joined nodes and starts its trees anew.
constexpr int32_t kJoinNodesPerAugment = 4;
// Arc offsets from 8p of the up-left, up, up-right and right entries.
constexpr int32_t kUpperSteps[4] = {2, 4, 6, 9};
// The time budget of one segmentation, in milliseconds.
constexpr double kBudgetMs = 10000.0;
// Solver steps between two readings of the clock.
constexpr int kClockSteps = 32;

void logError(const char* text) { __android_log_print(ANDROID_LOG_ERROR, "Error", "%s", text); }

// IEEE fmin, with -0.0 taken over +0.0 when both compare equal.
inline float minCap(float a, float b) {
  if (b != b) return a;
  if (a != a) return b;
  if (a < b) return a;
  if (b < a) return b;
  return std::signbit(a) ? a : b;
}

// Flow along arc a of a symmetric link: half the difference of its two residuals.
inline float linkFlow(const float* arcs, int32_t a) { return 0.5f * (arcs[a ^ 1] - arcs[a]); }

inline int32_t headOf(const int32_t* offset, int32_t arc) {
  return ((arc + 1) >> 3) + offset[(arc + 1) & 7];
}

// The eight arcs leaving node p in the order left, up-left, up, up-right,
// right, down-right, down, down-left; kNoNeighbour outside the grid.
inline void neighbourList(int32_t p, int32_t width, int32_t height, int32_t list[8]) {
  const int32_t x = p % width;
  const int32_t y = p / width;
  const int32_t base = 8 * p;
  const int32_t down = 8 * (p + width);
  const bool left = x > 0, right = x < width - 1, up = y > 0, below = y < height - 1;
  list[0] = left ? base : kNoNeighbour;
  list[1] = (left && up) ? base + kUpperSteps[0] : kNoNeighbour;
  list[2] = up ? base + kUpperSteps[1] : kNoNeighbour;
  list[3] = (up && right) ? base + kUpperSteps[2] : kNoNeighbour;
  list[4] = right ? base + kUpperSteps[3] : kNoNeighbour;
  list[5] = (right && below) ? down + 11 : kNoNeighbour;
  list[6] = below ? down + 5 : kNoNeighbour;
  list[7] = (left && below) ? down - 1 : kNoNeighbour;
}

// Milliseconds since the timer started, without writing to it: block views
// poll the budget from several threads at once.
double elapsedMsReadOnly(const ZIRKTimer* timer) {
  if (timer == nullptr) return -0.001;
  struct timeval now = timer->stop;
  if (timer->stopped == 0) gettimeofday(&now, nullptr);
  const double us = (static_cast<double>(now.tv_sec) - static_cast<double>(timer->start.tv_sec)) * 1e6 +
                    (static_cast<double>(now.tv_usec) - static_cast<double>(timer->start.tv_usec));
  return us * 0.001;
}

inline void setFree(nodes* n) {
  n->parent = ORPHAN;
  n->tree = FREE;
  n->tr_cap = 0.0f;
  n->next = nullptr;
  n->nextOrphan = nullptr;
}

// Sets a node's tree from its terminal capacity, as the solver starts it.
inline void setByTerminal(nodes* n) {
  if (n->tr_cap > 0.0f) {
    n->parent = TERMINAL;
    n->tree = SOURCE;
  } else if (n->tr_cap == 0.0f) {
    n->parent = ORPHAN;
    n->tree = FREE;
  } else {
    n->parent = TERMINAL;
    n->tree = SINK;
  }
}

}  // namespace

// The solver reads every grid node and every arc slot of the grid: those
// never added are filled as free nodes and absent arcs, so nothing
// uninitialised is read.
bool ZIRKSEGraph::prepareForSolve() {
  if (m_nodes == nullptr || m_arcs == nullptr) {
    logError("ZIRKSEGraph::maxFlow: the graph has no arrays");
    return false;
  }
  const int64_t gridNodes = static_cast<int64_t>(m_width) * m_height;
  const int64_t nodeRoom = m_nodeMax - m_nodes;
  const int64_t arcRoom = m_arcMax - m_arcs;
  if (m_width < 1 || m_height < 1 || 8 * gridNodes + 16 > INT32_MAX || gridNodes > nodeRoom ||
      8 * gridNodes > arcRoom) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "ZIRKSEGraph::maxFlow: a %dx%d grid does not fit %lld nodes and %lld arcs",
                        m_width, m_height, static_cast<long long>(nodeRoom),
                        static_cast<long long>(arcRoom));
    return false;
  }
  for (int64_t a = m_arcCount; a < 8 * gridNodes; ++a) m_arcs[a] = kAbsentArc;
  // A node never added is cut off from the grid: its own slots and those of
  // the later nodes hold every arc that touches it.
  for (int64_t i = m_nodeCount; i < gridNodes; ++i) {
    setFree(m_nodes + i);
    for (int k = 0; k < 8; ++k) m_arcs[8 * i + k] = kAbsentArc;
  }
  // A full grid whose arc array has room for one more row (and a node) after
  // the last gets that room filled with absent arcs and the slots of links
  // that leave the grid marked absent, whatever was written there (the
  // solver never followed them). Every list entry of a border node then
  // falls on an absent slot, the grid's own or the padding, and the solver
  // reads a node's eight arcs without finding its column and row.
  m_padded = false;
  const int64_t padEnd = 8 * (gridNodes + m_width + 1);
  if (m_bandUp != nullptr || m_numBlocks > 1 || !m_ownsArrays || padEnd > arcRoom) return true;
  for (int64_t a = 8 * gridNodes; a < padEnd; ++a) m_arcs[a] = kAbsentArc;
  for (int64_t y = 0; y < m_height; ++y) {
    float* const first = m_arcs + 8 * (y * m_width);
    float* const last = m_arcs + 8 * (y * m_width + m_width - 1);
    for (int k = 0; k < 4; ++k) first[k] = kAbsentArc;  // left, up-left
    last[6] = last[7] = kAbsentArc;                      // up-right
  }
  for (int64_t a = 0; a < 8 * static_cast<int64_t>(m_width); ++a) {
    if ((a & 7) >= 2) m_arcs[a] = kAbsentArc;  // the top row's upper links
  }
  m_padded = true;
  return true;
}

ZIRKSEGraph::ZIRKSEGraph(int maxNodes, int maxEdges, int width, int height, int numBlocks)
    : m_nodeCount(0),
      m_arcCount(0),
      m_nodes(nullptr),
      m_nodeLast(nullptr),
      m_nodeMax(nullptr),
      m_arcs(nullptr),
      m_arcLast(nullptr),
      m_arcMax(nullptr),
      m_flow(0.0f),
      m_activeFirst(nullptr),
      m_activeLast(nullptr),
      m_orphanFirst(nullptr),
      m_orphanLast(nullptr),
      m_neighbourOffset{-1, -1, 0, -width - 1, 0, -width, 0, 1 - width},
      m_numBlocks(numBlocks),
      m_blockWidth(0),
      m_blockHeight(0),
      m_blockRow(0),
      m_blockCol(0),
      m_width(width),
      m_height(height),
      m_ownsArrays(true) {
  const size_t nodeCount = static_cast<size_t>(maxNodes > 16 ? maxNodes : 16);
  const size_t arcCount = 2 * static_cast<size_t>(maxEdges > 16 ? maxEdges : 16);
  m_nodes = static_cast<nodes*>(ZIRK_Malloc_Msg(nodeCount * sizeof(nodes), "ZIRKSEGraph", 53));
  m_arcs = static_cast<float*>(ZIRK_Malloc_Msg(arcCount * sizeof(float), "ZIRKSEGraph", 54));
  m_stamp = static_cast<int32_t*>(ZIRK_Malloc_Msg(nodeCount * sizeof(int32_t), "ZIRKSEGraph", 55));
  m_dist = static_cast<int32_t*>(ZIRK_Malloc_Msg(nodeCount * sizeof(int32_t), "ZIRKSEGraph", 56));
  if (m_nodes == nullptr || m_arcs == nullptr || m_stamp == nullptr || m_dist == nullptr) {
    // All or none: a half-built graph would only refuse later calls anyway.
    if (m_nodes != nullptr) ZIRK_Free_Msg(m_nodes, "~ZIRKSEGraph", 128);
    if (m_arcs != nullptr) ZIRK_Free_Msg(m_arcs, "~ZIRKSEGraph", 129);
    if (m_stamp != nullptr) ZIRK_Free_Msg(m_stamp, "~ZIRKSEGraph", 132);
    if (m_dist != nullptr) ZIRK_Free_Msg(m_dist, "~ZIRKSEGraph", 133);
    m_nodes = nullptr;
    m_arcs = nullptr;
    m_stamp = nullptr;
    m_dist = nullptr;
    return;
  }
  m_nodeLast = m_nodes;
  m_nodeMax = m_nodes + nodeCount;
  m_arcLast = m_arcs;
  m_arcMax = m_arcs + arcCount;
}

ZIRKSEGraph::ZIRKSEGraph(ZIRKSEGraph* parent, int blockRow, int blockCol, int blockWidth,
                         int blockHeight)
    : m_nodeCount(parent->m_nodeCount),
      m_arcCount(parent->m_arcCount),
      m_nodes(parent->m_nodes),
      m_nodeLast(parent->m_nodeLast),
      m_nodeMax(parent->m_nodeMax),
      m_arcs(parent->m_arcs),
      m_arcLast(parent->m_arcLast),
      m_arcMax(parent->m_arcMax),
      m_flow(parent->m_flow),
      m_activeFirst(nullptr),
      m_activeLast(nullptr),
      m_orphanFirst(nullptr),
      m_orphanLast(nullptr),
      m_neighbourOffset{-1, -1, 0, -parent->m_width - 1, 0, -parent->m_width, 0,
                        1 - parent->m_width},
      m_numBlocks(0),
      m_blockWidth(blockWidth),
      m_blockHeight(blockHeight),
      m_blockRow(blockRow),
      m_blockCol(blockCol),
      m_width(parent->m_width),
      m_height(parent->m_height),
      m_ownsArrays(false) {}

ZIRKSEGraph::~ZIRKSEGraph() {
  // A block view leaves the borrowed arrays, and their contents, alone.
  if (!m_ownsArrays) return;
  reset();
  if (m_nodes != nullptr) ZIRK_Free_Msg(m_nodes, "~ZIRKSEGraph", 128);
  if (m_arcs != nullptr) ZIRK_Free_Msg(m_arcs, "~ZIRKSEGraph", 129);
  if (m_bandUp != nullptr) ZIRK_Free_Msg(m_bandUp, "~ZIRKSEGraph", 130);
  if (m_bandDown != nullptr) ZIRK_Free_Msg(m_bandDown, "~ZIRKSEGraph", 131);
  if (m_stamp != nullptr) ZIRK_Free_Msg(m_stamp, "~ZIRKSEGraph", 132);
  if (m_dist != nullptr) ZIRK_Free_Msg(m_dist, "~ZIRKSEGraph", 133);
  if (m_fillNet != nullptr) ZIRK_Free_Msg(m_fillNet, "~ZIRKSEGraph", 134);
  m_fillNet = nullptr;
  m_stamp = nullptr;
  m_dist = nullptr;
  m_nodes = nullptr;
  m_arcs = nullptr;
  m_bandUp = nullptr;
  m_bandDown = nullptr;
}

void ZIRKSEGraph::reset() {
  resetNew();
  m_nodeCount = 0;
  m_arcCount = 0;
  m_nodeLast = m_nodes;
  m_arcLast = m_arcs;
}

void ZIRKSEGraph::resetQueuesAndFlow() {
  m_flow = 0.0f;
  m_activeFirst = m_activeLast = nullptr;
  m_orphanFirst = m_orphanLast = nullptr;
}

void ZIRKSEGraph::resetNew() {
  for (nodes* n = m_nodes; n != nullptr && n < m_nodeLast; ++n) setFree(n);
  for (float* a = m_arcs; a != nullptr && a < m_arcLast; ++a) *a = 0.0f;
  resetQueuesAndFlow();
}

void ZIRKSEGraph::addNode(int count) {
  if (count < 1) return;
  if (m_nodes == nullptr || m_nodeMax - m_nodeLast < count) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "ZIRKSEGraph::addNode: %d more nodes do not fit (%d of %d used)", count,
                        m_nodeCount, m_nodes == nullptr ? 0 : static_cast<int>(m_nodeMax - m_nodes));
    return;
  }
  for (nodes* n = m_nodeLast; n < m_nodeLast + count; ++n) setFree(n);
  m_nodeLast += count;
  m_nodeCount += count;
}

void ZIRKSEGraph::addEdge(int /*from*/, int /*to*/, float cap, float revCap, bool absent) {
  if (m_arcs == nullptr || m_arcMax - m_arcLast < 2) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "ZIRKSEGraph::addEdge: the arc array is full (%d floats)", m_arcCount);
    return;
  }
  m_arcLast[0] = absent ? kAbsentArc : cap;
  m_arcLast[1] = absent ? kAbsentArc : revCap;
  m_arcLast += 2;
  m_arcCount += 2;
}

void ZIRKSEGraph::addToEdge(int from, int to, float cap, float revCap) {
  if (from < 0 || m_width < 1 || m_height < 1 ||
      static_cast<int64_t>(from) >= static_cast<int64_t>(m_width) * m_height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "ZIRKSEGraph::addToEdge: node %d is outside the grid", from);
    return;
  }
  int32_t list[8];
  neighbourList(from, m_width, m_height, list);
  for (int k = 0; k < 8; ++k) {
    const int32_t a = list[k];
    // Only arcs written by addEdge exist; an unwritten slot counts as absent.
    if (a == kNoNeighbour || (a | 1) >= m_arcCount || m_arcs[a] == kAbsentArc) continue;
    if (headOf(m_neighbourOffset, a) != to) continue;
    m_arcs[a] += cap;
    m_arcs[a ^ 1] += revCap;
    return;
  }
}

void ZIRKSEGraph::addtWeights(int node, float capSource, float capSink) {
  if (node < 0 || node >= m_nodeCount) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "ZIRKSEGraph::addtWeights: node %d is not in the graph (%d nodes)", node,
                        m_nodeCount);
    return;
  }
  nodes* n = m_nodes + node;
  const float d = n->tr_cap;
  if (d > 0.0f) {
    capSource += d;
  } else {
    capSink -= d;
  }
  m_flow += minCap(capSource, capSink);
  n->tr_cap = capSource - capSink;
}

int ZIRKSEGraph::getTreeofNode(int node) {
  if (node < 0 || node >= m_nodeCount) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "ZIRKSEGraph::getTreeofNode: node %d is not in the graph (%d nodes)", node,
                        m_nodeCount);
    return 0;
  }
  return m_nodes[node].tree == SINK ? 1 : 0;
}

float ZIRKSEGraph::maxFlow() {
  if (m_numBlocks > 1) {
    ParallelGC solver(this, m_numBlocks);
    return solver.maxFlow();
  }
  maxflowInit();
  return maxFlowSerialCall();
}

void ZIRKSEGraph::InitBlock() {
  m_flow = 0.0f;
  m_activeFirst = m_activeLast = nullptr;
  m_orphanFirst = m_orphanLast = nullptr;
  const int64_t firstCol = static_cast<int64_t>(m_blockWidth) * m_blockCol;
  const int64_t firstRow = static_cast<int64_t>(m_blockHeight) * m_blockRow;
  const int64_t corner = firstCol + firstRow * m_width;
  for (int32_t r = 0; r < m_blockHeight; ++r) {
    for (int32_t c = 0; c < m_blockWidth; ++c) {
      const int64_t index = corner + static_cast<int64_t>(r) * m_width + c;
      // Rows past the grid are skipped too (nodes added beyond the grid are not solved).
      if (firstCol + c >= m_width || index >= m_nodeCount || firstRow + r >= m_height) {
        continue;
      }
      nodes* n = m_nodes + index;
      n->next = nullptr;
      n->nextOrphan = nullptr;
      setByTerminal(n);
      if (n->tree != FREE) AddToActiveQueue(n);
    }
  }
}

void ZIRKSEGraph::AddToActiveQueue(nodes* node) {
  if (node->next != nullptr) return;
  node->next = node;
  if (m_activeLast != nullptr) {
    m_activeLast->next = node;
  } else {
    m_activeFirst = node;
  }
  m_activeLast = node;
}

nodes* ZIRKSEGraph::GetTopActiveQueueNode() {
  nodes* n = m_activeFirst;
  if (n == nullptr) return nullptr;
  if (n == m_activeLast) {
    m_activeFirst = m_activeLast = nullptr;
  } else {
    m_activeFirst = n->next;
  }
  return n;
}

void ZIRKSEGraph::AddToOrphanQueue(nodes* node) {
  node->parent = ORPHAN;
  if (node->nextOrphan != nullptr) return;
  node->nextOrphan = node;
  if (m_orphanLast != nullptr) {
    m_orphanLast->nextOrphan = node;
  } else {
    m_orphanFirst = node;
  }
  m_orphanLast = node;
}

nodes* ZIRKSEGraph::GetTopOrphanQueueNode() {
  nodes* n = m_orphanFirst;
  if (n == nullptr) return nullptr;
  if (n == m_orphanLast) {
    m_orphanFirst = m_orphanLast = nullptr;
  } else {
    m_orphanFirst = n->nextOrphan;
  }
  n->nextOrphan = nullptr;
  return n;
}

namespace {

// The eight arcs of a node whose slots start at `base`, the slots of the
// node below it at `below`, in neighbourList's order.
inline void arcList(int32_t base, int32_t below, int32_t out[8]) {
  out[0] = base;
  out[1] = base + kUpperSteps[0];
  out[2] = base + kUpperSteps[1];
  out[3] = base + kUpperSteps[2];
  out[4] = base + kUpperSteps[3];
  out[5] = below + 11;
  out[6] = below + 5;
  out[7] = below - 1;
}

// How the solver finds a node's eight arcs and an arc's head. A full grid
// computes both from the node index and the width. A band graph numbers a
// subset of grid pixels row by row and stores, per node, the index of the
// node above and below; every neighbour of a pixel that has links is itself
// a node, so the left and right neighbours are the previous and next index
// and the diagonal ones sit beside the node above or below.
template <bool Padded>
struct GridTopology {
  const int32_t* offset;
  int32_t width;
  int32_t height;
  int32_t head(int32_t arc) const { return headOf(offset, arc); }
  // A padded grid (see prepareForSolve) needs no bounds: an entry that
  // leaves the grid lands on an absent slot.
  void list(int32_t p, int32_t out[8]) const {
    if (!Padded) {
      neighbourList(p, width, height, out);
      return;
    }
    arcList(8 * p, 8 * (p + width), out);
  }
  // The head of arc, entry k of p's list: on a grid a fixed step from p,
  // cheaper than decoding the arc.
  int32_t entryHead(int32_t p, int k, int32_t /*arc*/) const { return p + delta[k]; }
  int32_t delta[8];  // node steps of the list entries, from the width
};

struct BandTopology {
  const int32_t* up;
  const int32_t* down;
  int32_t head(int32_t arc) const {
    const int32_t q = arc >> 3;
    const int32_t k = arc & 7;
    if (k & 1) return q;       // odd slots lead into their own node
    if (k == 0) return q - 1;  // left
    return up[q] + (k >> 1) - 2;  // up-left, up, up-right
  }
  void list(int32_t p, int32_t out[8]) const { arcList(8 * p, 8 * down[p], out); }
  // The head of arc, entry k of p's list.
  int32_t entryHead(int32_t /*p*/, int /*k*/, int32_t arc) const { return head(arc); }
};

// Length of the parent chain from the head of `arc` to its terminal, counted
// from 1 for the arc itself; kInfiniteDistance when the chain ends in an
// orphan or a free node.
template <class Topology>
int32_t chainDistance(const nodes* base, const Topology& topo, int32_t arc) {
  int32_t d = 1;
  for (int32_t cur = arc; cur != TERMINAL;) {
    cur = base[topo.head(cur)].parent;
    ++d;
    if (cur == ORPHAN) return kInfiniteDistance;
  }
  return d;
}

// The solver's stages over one topology. SinkSide selects the tree an
// orphan belongs to: arcs are then read in the other direction.
template <class Topology>
struct Solver {
  ZIRKSEGraph& g;
  Topology topo;
  // run() stops after this many augmentations when not negative, and then
  // sets `limited`; the graph is left between two steps, a valid state to
  // route from or to start new trees on.
  int64_t augmentLimit = -1;
  bool limited = false;

  void augment(int32_t arc) {
    float* const arcs = g.m_arcs;
    nodes* const base = g.m_nodes;
    nodes* const t = base + topo.head(arc);
    nodes* const s = base + topo.head(arc ^ 1);

    // Bottleneck: the middle arc, the sink chain with its root, the source chain with its root.
    float b = arcs[arc];
    nodes* n = t;
    for (; n->parent >= 0; n = base + topo.head(n->parent)) b = minCap(b, arcs[n->parent]);
    b = minCap(b, -n->tr_cap);
    for (n = s; n->parent >= 0; n = base + topo.head(n->parent)) {
      b = minCap(b, arcs[n->parent ^ 1]);
    }
    b = minCap(b, n->tr_cap);

    arcs[arc] -= b;
    arcs[arc ^ 1] += b;

    // Sink side first, from t towards the terminal.
    for (n = t; n->parent >= 0;) {
      const int32_t pa = n->parent;
      arcs[pa] -= b;
      arcs[pa ^ 1] += b;
      nodes* up = base + topo.head(pa);
      if (arcs[pa] == 0.0f) g.AddToOrphanQueue(n);
      n = up;
    }
    n->tr_cap += b;
    if (n->tr_cap == 0.0f) g.AddToOrphanQueue(n);

    // Then the source side, from s towards the terminal.
    for (n = s; n->parent >= 0;) {
      const int32_t pa = n->parent;
      arcs[pa ^ 1] -= b;
      arcs[pa] += b;
      nodes* up = base + topo.head(pa);
      if (arcs[pa ^ 1] == 0.0f) g.AddToOrphanQueue(n);
      n = up;
    }
    n->tr_cap -= b;
    if (n->tr_cap == 0.0f) g.AddToOrphanQueue(n);

    g.m_flow += b;
  }

  // An orphan of `tree` looks for a new parent: a neighbour of the same tree
  // with residual capacity towards the orphan's terminal side and the
  // shortest chain; the first in list order wins ties. With none, the
  // orphan leaves the tree; neighbours of the tree that could regrow into it
  // become active, its children become orphans. Orphans of the tree still
  // queued are activated as well: one adopted later must scan towards this
  // node again, or the node could stay free although it reaches the tree,
  // and the cut read from the trees would not be minimal.
  template <int32_t Tree>
  void adopt(nodes* orphan) {
    float* const arcs = g.m_arcs;
    nodes* const base = g.m_nodes;
    int32_t list[8];
    const int32_t o = static_cast<int32_t>(orphan - base);
    topo.list(o, list);
    // Source tree: the neighbour must send into the orphan (reverse arc);
    // sink tree: the orphan must send into the neighbour (the arc itself).
    const int32_t towards = Tree == SOURCE ? 1 : 0;

    int32_t best = kInfiniteDistance;
    int32_t bestArc = ORPHAN;
    for (int k = 0; k < 8; ++k) {
      const int32_t a = list[k];
      if (a == kNoNeighbour || !(arcs[a ^ towards] > 0.0f)) continue;  // absent or saturated
      const nodes* q = base + topo.entryHead(o, k, a);
      if (q->parent == ORPHAN || q->tree != Tree) continue;
      const int32_t d = g.m_stamp != nullptr ? markedDistance(a) : chainDistance(base, topo, a);
      if (d != kInfiniteDistance && d < best) {
        best = d;
        bestArc = a;
      }
    }
    if (bestArc != ORPHAN) {
      orphan->parent = bestArc;
      if (g.m_stamp != nullptr) {
        g.m_stamp[o] = g.m_time;
        g.m_dist[o] = best;
      }
      return;
    }

    orphan->parent = ORPHAN;
    orphan->tree = FREE;
    for (int k = 0; k < 8; ++k) {
      const int32_t a = list[k];
      if (a == kNoNeighbour || arcs[a] == kAbsentArc) continue;
      nodes* q = base + topo.entryHead(o, k, a);
      if (q->tree != Tree) continue;
      if (arcs[a ^ towards] != 0.0f) g.AddToActiveQueue(q);
      if (q->parent == ORPHAN) continue;
      if (q->parent != TERMINAL && base + topo.head(q->parent) == orphan) g.AddToOrphanQueue(q);
    }
  }

  // Distance from the head of `arc` to its terminal, counted from 1 for the
  // arc itself, reusing distances confirmed during this step; every node of
  // a chain that reaches the terminal gets its distance confirmed.
  // kInfiniteDistance when the chain ends in an orphan or a free node.
  int32_t markedDistance(int32_t arc) {
    nodes* const base = g.m_nodes;
    int32_t* const stamp = g.m_stamp;
    int32_t* const dist = g.m_dist;
    const int32_t now = g.m_time;
    const int32_t first = topo.head(arc);
    int32_t d = 0;
    for (int32_t j = first;;) {
      if (stamp[j] == now) {
        d += dist[j];
        break;
      }
      const int32_t pa = base[j].parent;
      ++d;
      if (pa == TERMINAL) {
        stamp[j] = now;
        dist[j] = 1;
        break;
      }
      if (pa == ORPHAN) return kInfiniteDistance;
      j = topo.head(pa);
    }
    const int32_t total = d + 1;
    for (int32_t j = first; stamp[j] != now; j = topo.head(base[j].parent)) {
      stamp[j] = now;
      dist[j] = d--;
    }
    return total;
  }

  // A new step: distances confirmed before it count no more. Before the
  // counter could overflow, every confirmation is dropped.
  void nextStep() {
    if (g.m_time == INT32_MAX - 1 && g.m_stamp != nullptr) {
      for (int64_t i = 0, n = g.m_nodeLast - g.m_nodes; i < n; ++i) g.m_stamp[i] = 0;
      g.m_time = 0;
    }
    ++g.m_time;
  }

  // Before the trees grow: every path source -> p -> q -> sink through one
  // link is saturated at once (the cheapest augmentations there are).
  // Over nodes lo..hi - 1; their pushes stay among them when no arc leads
  // out of them (a part with its seams held).
  void pushTerminalPairs(int32_t lo, int32_t hi) {
    float* const arcs = g.m_arcs;
    nodes* const base = g.m_nodes;
    int32_t list[8];
    for (nodes* p = base + lo; p < base + hi; ++p) {
      if (p->tr_cap <= 0.0f) continue;
      topo.list(static_cast<int32_t>(p - base), list);
      for (int k = 0; k < 8 && p->tr_cap > 0.0f; ++k) {
        const int32_t a = list[k];
        if (a == kNoNeighbour) continue;
        const float c = arcs[a];
        if (!(c > 0.0f)) continue;  // absent (negative) or saturated
        nodes* q = base + topo.entryHead(static_cast<int32_t>(p - base), k, a);
        if (q->tr_cap >= 0.0f) continue;
        const float f = minCap(minCap(p->tr_cap, -q->tr_cap), c);
        arcs[a] -= f;
        arcs[a ^ 1] += f;
        p->tr_cap -= f;
        q->tr_cap += f;
        g.m_flow += f;
      }
    }
  }

  // Waves of bulk routing before the trees grow, over nodes lo..hi - 1
  // (no arc leads out of them). Each wave labels every node with its
  // distance to the nearest node of sink capacity along arcs with residual
  // capacity, then hands source capacity downhill, farthest nodes first: a
  // node passes what it holds along its arcs to neighbours one step nearer,
  // where it cancels against sink capacity or moves on, and what does not
  // fit there to neighbours of its own distance whose turn is still to come
  // (where most flow ends at the box's border, that halves a serial first
  // cut: the excess left stuck for the next wave was what the later waves
  // and the trees spent their time on). Moving source
  // capacity from p to q along an arc p -> q changes no cut's value (p's
  // loss and the arc's loss are q's gain, on whichever sides p and q fall),
  // so the minimum cuts stay those of the graph as filled, while flow that
  // many long augmenting paths would carry in small amounts moves in bulk.
  // The waves stop when one cancels little. stamp and dist serve as queue
  // and labels; the trees are started afterwards, which resets both.
  void routeExcess(int32_t lo, int32_t hi, int maxWaves) {
    float* const arcs = g.m_arcs;
    nodes* const base = g.m_nodes;
    int32_t* const queue = g.m_stamp + lo;
    int32_t* const dist = g.m_dist;
    int32_t list[8];
    double firstWave = -1.0;
    for (int wave = 0; wave < maxWaves && !ZIRKSEMarker::m_exitApp && !budgetSpent(); ++wave) {
      // 1. Distances, breadth first from every node of sink capacity.
      int32_t tail = 0;
      for (int32_t i = lo; i < hi; ++i) {
        dist[i] = kInfiniteDistance;
        if (base[i].tr_cap < 0.0f) {
          dist[i] = 0;
          queue[tail++] = i;
        }
      }
      for (int32_t head = 0; head < tail; ++head) {
        const int32_t v = queue[head];
        topo.list(v, list);
        for (int k = 0; k < 8; ++k) {
          const int32_t a = list[k];
          if (a == kNoNeighbour) continue;
          const float c = arcs[a ^ 1];  // residual from the neighbour into v
          if (!(c > 0.0f)) continue;  // absent (negative) or saturated
          const int32_t u = topo.entryHead(v, k, a);
          if (dist[u] != kInfiniteDistance) continue;
          dist[u] = dist[v] + 1;
          queue[tail++] = u;
        }
      }
      // 2. Downhill, farthest first. What a node can not send down goes
      // on to neighbours of its own level that are still to come, which
      // pass it down in turn, instead of waiting for the next wave. A node
      // is marked passed (kPassedWave) when its turn comes, so nothing is
      // handed to it afterwards.
      double cancelled = 0.0;
      for (int32_t i = tail - 1; i >= 0; --i) {
        const int32_t u = queue[i];
        nodes* const pu = base + u;
        const int32_t level = dist[u];
        dist[u] = kPassedWave;
        if (pu->tr_cap <= 0.0f || level == 0) continue;
        topo.list(u, list);
        for (int32_t to = level - 1; to <= level && pu->tr_cap > 0.0f; ++to) {
          for (int k = 0; k < 8 && pu->tr_cap > 0.0f; ++k) {
          const int32_t a = list[k];
          if (a == kNoNeighbour) continue;
          const float c = arcs[a];
          if (!(c > 0.0f)) continue;  // absent (negative) or saturated
          const int32_t v = topo.entryHead(u, k, a);
          if (dist[v] != to) continue;
          const float f = minCap(pu->tr_cap, c);
          arcs[a] -= f;
          arcs[a ^ 1] += f;
          pu->tr_cap -= f;
          nodes* const pv = base + v;
          if (pv->tr_cap < 0.0f) {
            const float met = minCap(f, -pv->tr_cap);
            g.m_flow += met;
            cancelled += met;
          }
          pv->tr_cap += f;
          }
        }
      }
      if (firstWave < 0.0) firstWave = cancelled;
      if (cancelled <= firstWave * kWaveStop) return;
    }
  }

  // Growth from `current`: free neighbours join its tree; a neighbour of the
  // other tree closes a path, whose middle arc (source side to sink side) is
  // returned; -1 when none.
  template <int32_t Tree>
  int32_t grow(nodes* current) {
    float* const arcs = g.m_arcs;
    nodes* const base = g.m_nodes;
    int32_t* const stamp = g.m_stamp;
    int32_t* const dist = g.m_dist;
    int32_t list[8];
    const int32_t p = static_cast<int32_t>(current - base);
    topo.list(p, list);
    const int32_t outwards = Tree == SOURCE ? 0 : 1;
    for (int k = 0; k < 8; ++k) {
      const int32_t a = list[k];
      if (a == kNoNeighbour) continue;
      const float c = arcs[a ^ outwards];
      if (!(c > 0.0f)) continue;  // absent (negative) or saturated
      const int32_t qi = topo.entryHead(p, k, a);
      nodes* q = base + qi;
      if (q->tree == FREE) {
        q->tree = Tree;
        q->parent = a ^ 1;
        if (stamp != nullptr) {
          stamp[qi] = stamp[p];
          dist[qi] = dist[p] + 1;
        }
        g.AddToActiveQueue(q);
      } else if (q->tree == (Tree == SOURCE ? SINK : SOURCE)) {
        return a ^ outwards;
      } else if (stamp != nullptr && q->parent >= 0 && stamp[qi] <= stamp[p] &&
                 dist[qi] > dist[p] + 1) {
        // A neighbour of the same tree that is nearer its terminal through
        // this node takes it as parent: shorter trees, shorter paths.
        q->parent = a ^ 1;
        stamp[qi] = stamp[p];
        dist[qi] = dist[p] + 1;
      }
    }
    return -1;
  }

  // True when the time budget is spent, which then cancels the whole
  // segmentation, not only this solve.
  bool budgetSpent() {
    const double elapsed = g.m_ownsArrays ? get_elapsed_time_in_millisec(g_cancelTimer)
                                          : elapsedMsReadOnly(g_cancelTimer);
    if (elapsed <= kBudgetMs) return false;
    ZIRKSEMarker::m_exitApp = true;
    return true;
  }

  float run() {
    if (ZIRKSEMarker::m_exitApp) return g.m_flow;
    nodes* current = nullptr;
    uint32_t steps = 0;
    for (;;) {
      // 1. The node to scan: the one that just closed a path, or the next active one.
      if (current == nullptr) {
        current = g.GetTopActiveQueueNode();
        if (current == nullptr) return g.m_flow;
      }
      current->next = nullptr;

      // 2. Growth.
      int32_t middle = -1;
      if (current->tree == SOURCE) {
        middle = grow<SOURCE>(current);
      } else if (current->tree == SINK) {
        middle = grow<SINK>(current);
      }

      if (middle < 0) {
        current = nullptr;
      } else {
        // 3. Augmentation. The node stays current (marked queued but unlinked)
        // and is scanned again, since it may close further paths.
        current->next = current;
        nextStep();
        augment(middle);
        // 4. Adoption.
        while (!ZIRKSEMarker::m_exitApp && g.m_orphanFirst != nullptr) {
          nodes* o = g.GetTopOrphanQueueNode();
          if (o->tree == SINK) {
            adopt<SINK>(o);
          } else if (o->tree == SOURCE) {
            adopt<SOURCE>(o);
          }
        }
        if (augmentLimit >= 0 && --augmentLimit < 0) {
          limited = true;
          // The current node may close further paths: it goes back to the queue.
          current->next = nullptr;
          g.AddToActiveQueue(current);
          return g.m_flow;
        }
      }

      // 5. Cancellation and the time budget; a spent budget cancels the whole
      // segmentation, not only this solve.
      // The clock is read every kClockSteps steps (a step takes microseconds).
      if (ZIRKSEMarker::m_exitApp) return g.m_flow;
      if (steps++ % kClockSteps != 0) continue;
      if (budgetSpent()) return g.m_flow;
    }
  }
};

}  // namespace

// The band graph's solver runs over its stored rows; every other graph
// (and every block view) over the grid.
template <class Call>
auto withSolver(ZIRKSEGraph& g, Call call) {
  if (g.m_bandUp != nullptr && g.m_bandDown != nullptr) {
    Solver<BandTopology> solver{g, BandTopology{g.m_bandUp, g.m_bandDown}};
    return call(solver);
  }
  const int32_t w = g.m_width;
  if (g.m_padded) {
    Solver<GridTopology<true>> solver{
        g, {g.m_neighbourOffset, w, g.m_height, {-1, -w - 1, -w, -w + 1, 1, w + 1, w, w - 1}}};
    return call(solver);
  }
  Solver<GridTopology<false>> solver{
      g, {g.m_neighbourOffset, w, g.m_height, {-1, -w - 1, -w, -w + 1, 1, w + 1, w, w - 1}}};
  return call(solver);
}

float ZIRKSEGraph::maxFlowSerialCall() {
  return withSolver(*this, [](auto& s) { return s.run(); });
}

void ZIRKSEGraph::AugmentPath(int arc) {
  withSolver(*this, [arc](auto& s) { s.augment(arc); });
}

void ZIRKSEGraph::ProcessSourceOrphans(nodes* orphan) {
  withSolver(*this, [orphan](auto& s) { s.template adopt<SOURCE>(orphan); });
}

void ZIRKSEGraph::ProcessSinkOrphans(nodes* orphan) {
  withSolver(*this, [orphan](auto& s) { s.template adopt<SINK>(orphan); });
}

namespace {

// Total finite sink capacity of nodes lo..hi - 1: what is left to the sink.
// An infinite one stays infinite whatever is handed on, so it is left out.
double sinkCapacity(const nodes* base, int64_t lo, int64_t hi) {
  double total = 0.0;
  for (const nodes* n = base + lo; n < base + hi; ++n)
    if (n->tr_cap < 0.0f && std::isfinite(n->tr_cap)) total -= static_cast<double>(n->tr_cap);
  return total;
}

// Pushes terminal capacity of p to its neighbour q through arc a (p -> q):
// source capacity along a, sink capacity against it (q then sends to p),
// as far as the arc's residual allows.
inline void handOn(nodes* base, float* arcs, int32_t p, int32_t q, int32_t a) {
  float& from = base[p].tr_cap;
  float& to = base[q].tr_cap;
  if (arcs[a] == kAbsentArc) return;
  if (from > 0.0f) {
    const float f = minCap(from, arcs[a]);
    arcs[a] -= f;
    arcs[a ^ 1] += f;
    from -= f;
    to += f;
  } else if (from < 0.0f) {
    const float f = minCap(-from, arcs[a ^ 1]);
    arcs[a ^ 1] -= f;
    arcs[a] += f;
    from += f;
    to -= f;
  }
}

// Before a fresh solve of a full grid, over its rows y0..y1 - 1: in each
// kGatherBlock square (counted from row y0), every node hands its terminal
// capacity on towards the block's centre, along its row to the centre
// column, then along that column to the centre, as far as the links allow.
// Moving capacity along an arc changes no cut's value (see routeExcess), so
// the minimum cuts stay those of the graph as filled. The segmenter's
// terminal capacities are small beside its links (a few units against about
// 35): a path from a single node carries one or two units, and the same long
// path is walked again for the next. Gathered, opposite capacities within a
// block cancel at once and one path carries a block's worth. No arc leaves
// the rows. Returns the flow this routes to the sink (the fall of the rows'
// total sink capacity).
double gatherInBlocks(const ZIRKSEGraph& g, int32_t y0, int32_t y1) {
  const int32_t w = g.m_width;
  nodes* const base = g.m_nodes;
  float* const arcs = g.m_arcs;
  const int64_t lo = static_cast<int64_t>(y0) * w, hi = static_cast<int64_t>(y1) * w;
  const double before = sinkCapacity(base, lo, hi);
  for (int32_t by = y0; by < y1; by += kGatherBlock) {
    const int32_t last = std::min(by + kGatherBlock, y1) - 1;
    const int32_t cy = (by + last) / 2;
    for (int32_t bx = 0; bx < w; bx += kGatherBlock) {
      const int32_t x1 = std::min(bx + kGatherBlock, w) - 1;
      const int32_t cx = (bx + x1) / 2;
      // Rows towards the centre column: rightwards through the right
      // neighbour's reversed left arc, leftwards through the node's own.
      for (int32_t y = by; y <= last; ++y) {
        const int32_t row = y * w;
        for (int32_t p = row + bx; p < row + cx; ++p) handOn(base, arcs, p, p + 1, 8 * (p + 1) + 1);
        for (int32_t p = row + x1; p > row + cx; --p) handOn(base, arcs, p, p - 1, 8 * p);
      }
      // The centre column towards the centre, likewise through the up arcs.
      for (int32_t p = by * w + cx; p < cy * w + cx; p += w) handOn(base, arcs, p, p + w, 8 * (p + w) + 5);
      for (int32_t p = last * w + cx; p > cy * w + cx; p -= w) handOn(base, arcs, p, p - w, 8 * p + 4);
    }
  }
  return before - sinkCapacity(base, lo, hi);
}

// The start shared by every solve: queues emptied, unfilled slots filled,
// a fresh full grid's terminal capacities gathered in blocks, and with
// `pairs` one-link paths saturated (a solve in parts does that in each
// part, on its thread). False when nothing may be solved.
bool startSolve(ZIRKSEGraph* g, bool pairs) {
  g->m_activeFirst = g->m_activeLast = nullptr;
  g->m_orphanFirst = g->m_orphanLast = nullptr;
  if (!g->prepareForSolve()) return false;
  const bool grid = g->m_bandUp == nullptr && g->m_numBlocks <= 1 &&
                    static_cast<int64_t>(g->m_width) * g->m_height == g->m_nodeCount;
  if (grid && !g->m_warmFill && !ZIRKSEMarker::m_exitApp)
    g->m_flow += static_cast<float>(gatherInBlocks(*g, 0, g->m_height));
  // A cancelled solve leaves the graph as it was filled.
  if (pairs && !ZIRKSEMarker::m_exitApp) {
    const int32_t n = static_cast<int32_t>(g->m_nodeLast - g->m_nodes);
    withSolver(*g, [n](auto& s) { s.pushTerminalPairs(0, n); });
  }
  g->m_time = 0;
  return true;
}

// Nodes lo..hi - 1 of the graph start their trees from their terminal
// capacity, into the queue of `view` (the graph itself or a part of it).
void startTrees(ZIRKSEGraph* g, ZIRKSEGraph* view, int64_t lo, int64_t hi) {
  for (nodes* n = g->m_nodes + lo; n < g->m_nodes + hi; ++n) {
    // Links left by an earlier, cancelled solve would keep a node out of the queues.
    n->next = nullptr;
    n->nextOrphan = nullptr;
    setByTerminal(n);
    if (g->m_stamp != nullptr) {
      g->m_stamp[n - g->m_nodes] = 0;
      g->m_dist[n - g->m_nodes] = 1;
    }
    if (n->tree != FREE) view->AddToActiveQueue(n);
  }
}

}  // namespace

void ZIRKSEGraph::maxflowInit() {
  if (!startSolve(this, true)) return;  // empty queue: the solve ends at once
  const int64_t grid = static_cast<int64_t>(m_width) * m_height;
  const int64_t count = m_nodeCount < grid ? m_nodeCount : grid;
  const int waves = m_bandUp != nullptr ? kBandWaves : (m_warmFill ? 0 : kGridWaves);
  if (waves > 0 && m_stamp != nullptr) {
    withSolver(*this, [count, waves](auto& s) { s.routeExcess(0, static_cast<int32_t>(count), waves); });
  }
  startTrees(this, this, 0, count);
}

float ZIRK_solveInParts(ZIRKSEGraph* g, const std::vector<int32_t>& parts,
                        const std::vector<int32_t>& seams) {
  const size_t count = parts.size() < 2 ? 0 : parts.size() - 1;
  const bool band = g->m_bandUp != nullptr && g->m_bandDown != nullptr;
  // A grid is parted only when every grid node is in the graph.
  const bool wholeGrid = static_cast<int64_t>(g->m_width) * g->m_height == g->m_nodeCount;
  if ((!band && (!wholeGrid || g->m_numBlocks > 1)) || g->m_stamp == nullptr || count < 2 ||
      seams.size() + 1 != count) {
    return g->maxFlow();
  }
  // A band routes on every solve; a grid only on a fresh fill, as maxflowInit does.
  const int waves = band ? kBandWaves : (g->m_warmFill ? 0 : kGridWaves);
  // Each part saturates its one-link paths, routes and starts its trees on
  // its own thread (the seams' one-link paths are left to the joins).
  if (!startSolve(g, false) || ZIRKSEMarker::m_exitApp) return g->m_flow;

  // 1. Hold back the links between parts: those of each part's first row
  // to the row above, kept per seam.
  struct Held {
    int32_t arc;
    float cap;
  };
  std::vector<std::vector<Held>> held(count - 1);
  float* const arcs = g->m_arcs;
  for (size_t i = 1; i < count; ++i) {
    for (int32_t p = parts[i]; p < seams[i - 1]; ++p) {
      for (int32_t k = 2; k < 8; ++k) {
        const int32_t a = 8 * p + k;
        if (arcs[a] == kAbsentArc) continue;
        held[i - 1].push_back(Held{a, arcs[a]});
        arcs[a] = kAbsentArc;  // no part looks across, not even at the other side's nodes
      }
    }
  }

  // 2. Rounds: each group of parts solves on its own thread, over its own
  // queues; groups share the arrays but touch disjoint nodes. After a round,
  // neighbouring groups are joined in pairs: the links of the seam between
  // them come back, their ends scan again, and the joined group solves on
  // from the flows and trees of both. The last round is the whole graph, so
  // the flow is maximal; the seams' work is spread over parallel rounds
  // instead of left to one serial solve.
  // A view borrows the arrays; it leaves them alone when it goes.
  auto makeView = [g](int32_t time) {
    std::unique_ptr<ZIRKSEGraph> v(new ZIRKSEGraph(g, 0, 0, 0, 0));
    v->m_bandUp = g->m_bandUp;
    v->m_bandDown = g->m_bandDown;
    v->m_stamp = g->m_stamp;
    v->m_dist = g->m_dist;
    v->m_padded = g->m_padded;
    v->m_flow = 0.0f;
    v->m_time = time;
    return v;
  };
  std::vector<size_t> first(count);  // first part of each group
  std::vector<std::unique_ptr<ZIRKSEGraph>> views;
  for (size_t i = 0; i < count; ++i) {
    first[i] = i;
    views.push_back(makeView(g->m_time));
  }
  // In the first round a part routes its nodes and starts their trees
  // before it solves.
  bool firstRound = true;
  for (;;) {
    auto solveGroup = [g, &parts, &views, &first, count, firstRound, waves, band](size_t i) {
      ZIRKSEGraph* v = views[i].get();
      const int32_t lo = parts[first[i]];
      const int32_t hi = parts[i + 1 < first.size() ? first[i + 1] : count];
      int route = waves;
      if (!firstRound) {
        // A join solves on from the groups' trees, up to its limit.
        bool limited = false;
        withSolver(*v, [lo, hi, &limited](auto& s) {
          s.augmentLimit = (hi - lo) / kJoinNodesPerAugment;
          s.run();
          limited = s.limited;
        });
        if (!limited || ZIRKSEMarker::m_exitApp) return;
        route = band ? kBandWaves : kGridWaves;
        v->m_activeFirst = v->m_activeLast = nullptr;
        v->m_orphanFirst = v->m_orphanLast = nullptr;
        if (!band) {
          v->m_flow += static_cast<float>(gatherInBlocks(*g, lo / g->m_width, hi / g->m_width));
        }
      }
      if (firstRound && !ZIRKSEMarker::m_exitApp) withSolver(*v, [lo, hi](auto& s) { s.pushTerminalPairs(lo, hi); });
      if (route > 0) withSolver(*v, [lo, hi, route](auto& s) { s.routeExcess(lo, hi, route); });
      startTrees(g, v, lo, hi);
      // A part of a fresh grid stops after a share of augmentations: what it
      // would still route along its own rows alone often goes across a seam
      // in the whole graph, along shorter paths. Its queue passes on to the
      // join.
      withSolver(*v, [lo, hi, firstRound, band, g](auto& s) {
        if (firstRound && !band && !g->m_warmFill)
          s.augmentLimit = (hi - lo) / kFreshPartNodesPerAugment;
        s.run();
      });
    };
    // The groups go to as many threads as there are cores (the calling
    // thread among them), each taking the next group when it is free: on
    // two cores three groups on three threads lost a fifth of their time
    // to the switching between them.
    const int groups = static_cast<int>(views.size());
    auto run = [&](int, int begin, int end) {
      for (int i = begin; i < end; ++i) solveGroup(static_cast<size_t>(i));
    };
    ZIRK_runInChunks(groups, 1, ZIRK_threadsFor(groups), [] { return 0; }, run);

    int32_t latest = g->m_time;
    for (const auto& v : views) {
      g->m_flow += v->m_flow;
      latest = std::max(latest, v->m_time);
    }
    g->m_time = latest;
    if (views.size() == 1 || ZIRKSEMarker::m_exitApp) break;

    // Groups 2j and 2j + 1 join; the seam before group 2j + 1 comes back.
    std::vector<size_t> joinedFirst;
    std::vector<std::unique_ptr<ZIRKSEGraph>> joined;
    for (size_t j = 0; j < views.size(); j += 2) {
      joinedFirst.push_back(first[j]);
      joined.push_back(makeView(latest));
      ZIRKSEGraph* v = joined.back().get();
      // Nodes that a group stopped short of scanning stay queued.
      for (size_t k = j; k < j + 2 && k < views.size(); ++k) {
        ZIRKSEGraph* old = views[k].get();
        if (old->m_activeFirst == nullptr) continue;
        if (v->m_activeLast != nullptr) {
          v->m_activeLast->next = old->m_activeFirst;
        } else {
          v->m_activeFirst = old->m_activeFirst;
        }
        v->m_activeLast = old->m_activeLast;
        old->m_activeFirst = old->m_activeLast = nullptr;
      }
      if (j + 1 == views.size()) continue;
      std::vector<Held>& seam = held[first[j + 1] - 1];
      for (const Held& h : seam) {
        arcs[h.arc] = h.cap;
        const int32_t p = h.arc >> 3;
        v->AddToActiveQueue(g->m_nodes + p);
        const int32_t k = h.arc & 7;
        const int32_t above = band ? g->m_bandUp[p] : p - g->m_width;
        v->AddToActiveQueue(g->m_nodes + above + (k >> 1) - 2);
      }
      seam.clear();  // given back: flow may cross it from now on
    }
    first.swap(joinedFirst);
    views.swap(joined);
    firstRound = false;
  }
  // A cancelled solve leaves seams still held: they come back all the same.
  for (const std::vector<Held>& seam : held) {
    for (const Held& h : seam) arcs[h.arc] = h.cap;
  }
  return g->m_flow;
}

float ZIRK_fillNodeInPlace(ZIRKSEGraph* g, int32_t p, bool terminals, float source, float sink,
                           const float links[4]) {
  nodes* const n = g->m_nodes + p;
  setFree(n);
  float* const a = g->m_arcs + 8 * static_cast<size_t>(p);
  for (int k = 0; k < 4; ++k) a[2 * k] = a[2 * k + 1] = links[k];
  if (!terminals) return 0.0f;
  n->tr_cap = source - sink;
  return minCap(source, sink);
}

void ZIRK_endFillInPlace(ZIRKSEGraph* g, int32_t n, const float* preFlow) {
  g->m_nodeLast = g->m_nodes + n;
  g->m_nodeCount = n;
  g->m_arcLast = g->m_arcs + 8 * static_cast<size_t>(n);
  g->m_arcCount = 8 * n;
  for (int32_t p = 0; p < n; ++p) g->m_flow += preFlow[p];
}

namespace {

// First rows of parts 1 .. parts - 1 of a grid of h rows (h >= 2 parts):
// equal shares of rows, or of the given running totals of work per row
// (work[y] = work of rows 0 .. y - 1, h + 1 entries), at least two rows a
// part.
std::vector<int32_t> partRows(int32_t h, int parts, const std::vector<double>* work) {
  std::vector<int32_t> rows;
  int32_t row = 0;
  for (int i = 1; i < parts; ++i) {
    if (work == nullptr || !((*work)[static_cast<size_t>(h)] > 0.0)) {
      row = static_cast<int32_t>(static_cast<int64_t>(h) * i / parts);
    } else {
      const double share = (*work)[static_cast<size_t>(h)] * i / parts;
      row += 2;
      while (row < h - 2 * (parts - i) && (*work)[static_cast<size_t>(row)] < share) ++row;
    }
    rows.push_back(row);
  }
  return rows;
}

}  // namespace

float ZIRK_solveGridInParts(ZIRKSEGraph* g, int parts) {
  const int32_t w = g->m_width, h = g->m_height;
  if (parts < 2 || h < 2 * parts) return g->maxFlow();
  // A fresh grid's parts take equal shares of its soft terminal capacity
  // (below kFixedCapacity): that is what they route and cut. Equal rows left
  // one part of the photos' slowest first cut at twice the other's time;
  // shares of the capacity took the photos' box max-flows from 25.9 to 24.2
  // ms. Refills keep equal rows (shares of their capacity were slower).
  std::vector<double> work;
  const bool fresh = !g->m_warmFill && g->m_bandUp == nullptr && g->m_nodes != nullptr &&
                     static_cast<int64_t>(w) * h <= g->m_nodeLast - g->m_nodes;
  if (fresh) {
    work.assign(static_cast<size_t>(h) + 1, 0.0);
    for (int32_t y = 0; y < h; ++y) {
      const nodes* const row = g->m_nodes + static_cast<int64_t>(y) * w;
      double sum = 0.0;
      for (int32_t x = 0; x < w; ++x)
        if (std::fabs(row[x].tr_cap) < kFixedCapacity) sum += std::fabs(row[x].tr_cap);
      work[static_cast<size_t>(y) + 1] = work[static_cast<size_t>(y)] + sum;
    }
  }
  std::vector<int32_t> starts{0}, seams;
  for (const int32_t row : partRows(h, parts, fresh ? &work : nullptr)) {
    starts.push_back(row * w);
    seams.push_back(row * w + w);
  }
  starts.push_back(w * h);
  return ZIRK_solveInParts(g, starts, seams);
}

namespace {

// The refill of ZIRK_fillGrid that keeps the last solve's flow, in one pass
// over the nodes, in two bands of rows on two threads for a large grid.
// Per node: its terminal residual moves by the change of capacity (an
// infinite one stays infinite; one that was infinite becomes the new net
// capacity less what the node sends through its links, counted from the
// old flows before anything moves), the new net capacity is stored, then
// its four links: the flow p -> q stays where it fits, the overflow returns
// to the terminals (p keeps what it can no longer send, q lacks it). Every
// node's residual gets the same additions in the same order as in two
// separate passes over all nodes and then all links: a node's own update
// comes first, then its links, then those of later nodes. The changes a
// band's first row makes to the row above, in the other band, are kept and
// added after both bands, in order. Null source and sink keep the terminal
// capacities.
void refillKeepingFlow(ZIRKSEGraph* g, const float* source, const float* sink, const float* links) {
  const int32_t w = g->m_width, h = g->m_height, n = w * h;
  float* const arcs = g->m_arcs;
  nodes* const base = g->m_nodes;
  float* const fillNet = g->m_fillNet;
  const bool terminals = source != nullptr && sink != nullptr;
  std::vector<std::pair<int32_t, float>> sentByInfinite;  // by node, ascending
  int32_t list[8];
  for (int32_t p = 0; p < n && terminals; ++p) {
    if (std::isfinite(fillNet[p])) continue;
    float sent = 0.0f;
    neighbourList(p, w, h, list);
    for (int k = 0; k < 8; ++k) {
      const int32_t a = list[k];
      if (a != kNoNeighbour && arcs[a] != kAbsentArc) sent += linkFlow(arcs, a);
    }
    sentByInfinite.emplace_back(p, sent);
  }
  struct Deferred {
    int32_t node;
    float change;
  };
  const int bands = n >= kThreadedFillNodes ? ZIRK_threadsFor(2) : 1;
  std::vector<std::vector<Deferred>> deferred(static_cast<size_t>(bands));
  const int32_t offset[4] = {-1, -w - 1, -w, -w + 1};
  // Slots take the bands from the last: when they run one after the other
  // (no helper free) the band above comes second, and only the kept
  // changes put its rows' additions in order, as when they run at once.
  auto band = [&](int slot) {
    const int b = bands - 1 - slot;
    const int32_t first = static_cast<int32_t>(static_cast<int64_t>(h) * b / bands) * w;
    const int32_t end = static_cast<int32_t>(static_cast<int64_t>(h) * (b + 1) / bands) * w;
    std::vector<Deferred>& later = deferred[static_cast<size_t>(b)];
    auto infinite = std::lower_bound(sentByInfinite.begin(), sentByInfinite.end(),
                                     std::make_pair(first, -HUGE_VALF));
    for (int32_t p = first; p < end; ++p) {
      float& residual = base[p].tr_cap;
      if (terminals) {
        const float net = source[p] - sink[p];
        if (infinite != sentByInfinite.end() && infinite->first == p) {
          residual = net - infinite->second;
          ++infinite;
        } else {
          residual += net - fillNet[p];
        }
        fillNet[p] = net;
      }
      for (int k = 0; k < 4; ++k) {
        const int32_t a = 8 * p + 2 * k;
        if (arcs[a] == kAbsentArc) continue;
        const float c = links[4 * static_cast<size_t>(p) + k];
        const float f = linkFlow(arcs, a);  // flow from p to its neighbour
        if (std::fabs(f) <= c) {
          arcs[a] = c - f;
          arcs[a ^ 1] = c + f;
          continue;
        }
        const int32_t q = p + offset[k];
        const float over = std::fabs(f) - c;
        float change;
        if (f > 0.0f) {
          arcs[a] = 0.0f;
          arcs[a ^ 1] = 2.0f * c;
          residual += over;
          change = -over;
        } else {
          arcs[a] = 2.0f * c;
          arcs[a ^ 1] = 0.0f;
          residual -= over;
          change = over;
        }
        if (q < first) {
          later.push_back(Deferred{q, change});
        } else {
          base[q].tr_cap += change;
        }
      }
    }
  };
  ZIRK_runSlots(bands, band);
  for (const std::vector<Deferred>& later : deferred)
    for (const Deferred& d : later) base[d.node].tr_cap += d.change;
}

}  // namespace

void ZIRK_fillGrid(ZIRKSEGraph* g, const float* source, const float* sink, const float* links,
                   bool keepFlow) {
  const int32_t w = g->m_width, h = g->m_height;
  const int32_t n = w * h;
  // Infinite capacities (a colour no model explains) carry over: see below.
  // A node with both infinite has none to carry (infinity minus infinity):
  // a fill with such a node now or in the last fill starts afresh.
  const bool sameTerminals = source == nullptr || sink == nullptr;
  const bool warmable = keepFlow && g->m_fillNet != nullptr &&
                        g->m_nodeCount == n && g->m_arcCount == 8 * n && g->m_bandUp == nullptr;
  bool defined = true;
  for (int32_t p = 0; p < n && defined && warmable && !sameTerminals; ++p)
    defined = !std::isnan(source[p] - sink[p]) && !std::isnan(g->m_fillNet[p]);
  const bool warm = warmable && defined;
  if (sameTerminals && !warm) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "ZIRK_fillGrid: no terminal capacities to keep");
    return;
  }
  g->m_warmFill = warm;
  if (!warm) {
    if (g->m_nodes == nullptr || g->m_arcs == nullptr || g->m_nodeMax - g->m_nodes < n ||
        g->m_arcMax - g->m_arcs < 8 * static_cast<int64_t>(n)) {
      __android_log_print(ANDROID_LOG_ERROR, "Error", "ZIRK_fillGrid: the graph can not hold a %dx%d grid",
                          w, h);
      return;
    }
    // Records and arcs past the grid, left from an earlier fill, are
    // cleared as reset() would clear them.
    for (nodes* x = g->m_nodes + n; x < g->m_nodeLast; ++x) setFree(x);
    for (float* a = g->m_arcs + 8 * static_cast<int64_t>(n); a < g->m_arcLast; ++a) *a = 0.0f;
    // Each node is written once, in chunks of rows on up to two threads (the
    // first touch of a new graph's pages is much of the time): the same
    // records, arcs and flow as reset, addNode, addtWeights and addEdge.
    g->resetQueuesAndFlow();
    std::vector<float> preFlow(static_cast<size_t>(n));
    const int threads = n >= kThreadedFillNodes ? ZIRK_threadsFor(2) : 1;
    ZIRK_runInChunks(h, kFillChunkRows, threads, [] { return 0; }, [&](int, int y0, int y1) {
      for (int32_t p = y0 * w; p < y1 * w; ++p) {
        const size_t i = static_cast<size_t>(p);
        preFlow[i] = ZIRK_fillNodeInPlace(g, p, true, source[i], sink[i], links + 4 * i);
      }
    });
    ZIRK_endFillInPlace(g, n, preFlow.data());
  } else {
    refillKeepingFlow(g, sameTerminals ? nullptr : source, sameTerminals ? nullptr : sink, links);
  }
  if (!keepFlow) return;
  if (g->m_fillNet == nullptr)
    g->m_fillNet = static_cast<float*>(ZIRK_Malloc_Msg(sizeof(float) * n, "ZIRK_fillGrid", 1));
  if (g->m_fillNet == nullptr) return;  // logged; next fill is fresh
  // (A refill keeping the flow has stored them already.)
  if (!sameTerminals && !warm)
    for (int32_t p = 0; p < n; ++p) g->m_fillNet[p] = source[p] - sink[p];
}
