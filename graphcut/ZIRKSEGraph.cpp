// Grid flow graph and its serial two-tree max-flow.
//
// The solver, in three stages that repeat until no active node is left:
//   growth       pop an active node and scan its eight arcs in the fixed
//                neighbour order; free neighbours join its tree, a neighbour
//                of the other tree closes an augmenting path;
//   augmentation push the bottleneck along the path; nodes whose parent arc
//                (or terminal link) saturates become orphans;
//   adoption     each orphan takes the neighbour with the shortest chain to
//                its terminal (chains walked every time, no caching), or
//                becomes free and frees its children.
// Nothing is allocated here after construction; queues are intrusive links
// in the node records. A block view (second constructor) runs the same
// solver over its own queues on arrays it borrows from its parent.
//
// Memory: 32 bytes of node and 64 bytes of reserved arc floats per pixel
// (half the arc floats are used). Speed (2026-11, x86-64 2.6 GHz, one of two
// shared cores): 320x240 photo graphs take 2 to 700 ms a solve, median 72 ms;
// augmentation (walking both chains twice) and the adoption chain walks take
// over 80% of it. A 4032x400 band takes about 2.5 s.

#include "graphcut/ZIRKSEGraph.h"

#include <android/log.h>
#include <sys/time.h>

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "engine/ZIRKSEMarker.h"
#include "graphcut/ParallelGC.h"
#include "support/ZIRKMemory.h"
#include "support/ZIRKTimer.h"

namespace {

// Neighbour-list entry of a position outside the grid.
constexpr int32_t kNoNeighbour = -2;
// Chain length of a candidate whose chain ends in an orphan or a free node.
constexpr int32_t kInfiniteDistance = 2147483647;
// Arc offsets from 8p of the up-left, up, up-right and right entries.
constexpr int32_t kUpperSteps[4] = {2, 4, 6, 9};
// The time budget of one segmentation, in milliseconds.
constexpr double kBudgetMs = 10000.0;

void logError(const char* text) { __android_log_print(ANDROID_LOG_ERROR, "Error", "%s", text); }

// IEEE fmin, with -0.0 taken over +0.0 when both compare equal.
inline float minCap(float a, float b) {
  if (b != b) return a;
  if (a != a) return b;
  if (a < b) return a;
  if (b < a) return b;
  return std::signbit(a) ? a : b;
}

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
  if (m_nodes == nullptr || m_arcs == nullptr) {
    // Both or neither: a half-built graph would only refuse later calls anyway.
    if (m_nodes != nullptr) ZIRK_Free_Msg(m_nodes, "~ZIRKSEGraph", 128);
    if (m_arcs != nullptr) ZIRK_Free_Msg(m_arcs, "~ZIRKSEGraph", 129);
    m_nodes = nullptr;
    m_arcs = nullptr;
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
  m_nodes = nullptr;
  m_arcs = nullptr;
}

void ZIRKSEGraph::reset() {
  resetNew();
  m_nodeCount = 0;
  m_arcCount = 0;
  m_nodeLast = m_nodes;
  m_arcLast = m_arcs;
}

void ZIRKSEGraph::resetNew() {
  for (nodes* n = m_nodes; n != nullptr && n < m_nodeLast; ++n) setFree(n);
  for (float* a = m_arcs; a != nullptr && a < m_arcLast; ++a) *a = 0.0f;
  m_flow = 0.0f;
  m_activeFirst = m_activeLast = nullptr;
  m_orphanFirst = m_orphanLast = nullptr;
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

void ZIRKSEGraph::maxflowInit() {
  m_activeFirst = m_activeLast = nullptr;
  m_orphanFirst = m_orphanLast = nullptr;
  if (!prepareForSolve()) return;  // empty queue: the solve ends at once
  const int64_t grid = static_cast<int64_t>(m_width) * m_height;
  const int64_t count = m_nodeCount < grid ? m_nodeCount : grid;
  for (nodes* n = m_nodes; n < m_nodes + count; ++n) {
    // Links left by an earlier, cancelled solve would keep a node out of the queues.
    n->next = nullptr;
    n->nextOrphan = nullptr;
    setByTerminal(n);
    if (n->tree != FREE) AddToActiveQueue(n);
  }
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

float ZIRKSEGraph::maxFlowSerialCall() {
  if (ZIRKSEMarker::m_exitApp) return m_flow;
  float* const arcs = m_arcs;
  nodes* const base = m_nodes;
  const int32_t* const offset = m_neighbourOffset;
  int32_t list[8];
  nodes* current = nullptr;
  for (;;) {
    // 1. The node to scan: the one that just closed a path, or the next active one.
    if (current == nullptr) {
      current = GetTopActiveQueueNode();
      if (current == nullptr) return m_flow;
    }
    current->next = nullptr;

    // 2. Growth: free neighbours join the node's tree; the other tree closes a path.
    int32_t middle = -1;
    if (current->tree == SOURCE) {
      neighbourList(static_cast<int32_t>(current - base), m_width, m_height, list);
      for (int k = 0; k < 8; ++k) {
        const int32_t a = list[k];
        if (a == kNoNeighbour) continue;
        const float c = arcs[a];
        if (c == kAbsentArc || c == 0.0f) continue;
        nodes* q = base + headOf(offset, a);
        if (q->tree == FREE) {
          q->tree = SOURCE;
          q->parent = a ^ 1;
          AddToActiveQueue(q);
        } else if (q->tree == SINK) {
          middle = a;
          break;
        }
      }
    } else if (current->tree == SINK) {
      neighbourList(static_cast<int32_t>(current - base), m_width, m_height, list);
      for (int k = 0; k < 8; ++k) {
        const int32_t a = list[k];
        if (a == kNoNeighbour) continue;
        const float c = arcs[a ^ 1];
        if (c == kAbsentArc || c == 0.0f) continue;
        nodes* q = base + headOf(offset, a);
        if (q->tree == FREE) {
          q->tree = SINK;
          q->parent = a ^ 1;
          AddToActiveQueue(q);
        } else if (q->tree == SOURCE) {
          middle = a ^ 1;
          break;
        }
      }
    }

    if (middle < 0) {
      current = nullptr;
    } else {
      // 3. Augmentation. The node stays current (marked queued but unlinked)
      // and is scanned again, since it may close further paths.
      current->next = current;
      AugmentPath(middle);
      // 4. Adoption.
      while (!ZIRKSEMarker::m_exitApp && m_orphanFirst != nullptr) {
        nodes* o = GetTopOrphanQueueNode();
        if (o->tree == SINK) {
          ProcessSinkOrphans(o);
        } else if (o->tree == SOURCE) {
          ProcessSourceOrphans(o);
        }
      }
    }

    // 5. Cancellation and the time budget; a spent budget cancels the whole
    // segmentation, not only this solve.
    const double elapsed = m_ownsArrays ? get_elapsed_time_in_millisec(g_cancelTimer)
                                        : elapsedMsReadOnly(g_cancelTimer);
    if (elapsed > kBudgetMs || ZIRKSEMarker::m_exitApp) {
      ZIRKSEMarker::m_exitApp = true;
      return m_flow;
    }
  }
}

void ZIRKSEGraph::AugmentPath(int arc) {
  float* const arcs = m_arcs;
  nodes* const base = m_nodes;
  const int32_t* const offset = m_neighbourOffset;
  nodes* const t = base + headOf(offset, arc);
  nodes* const s = base + headOf(offset, arc ^ 1);

  // Bottleneck: the middle arc, the sink chain with its root, the source chain with its root.
  float b = arcs[arc];
  nodes* n = t;
  for (; n->parent >= 0; n = base + headOf(offset, n->parent)) b = minCap(b, arcs[n->parent]);
  b = minCap(b, -n->tr_cap);
  for (n = s; n->parent >= 0; n = base + headOf(offset, n->parent)) {
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
    nodes* up = base + headOf(offset, pa);
    if (arcs[pa] == 0.0f) AddToOrphanQueue(n);
    n = up;
  }
  n->tr_cap += b;
  if (n->tr_cap == 0.0f) AddToOrphanQueue(n);

  // Then the source side, from s towards the terminal.
  for (n = s; n->parent >= 0;) {
    const int32_t pa = n->parent;
    arcs[pa ^ 1] -= b;
    arcs[pa] += b;
    nodes* up = base + headOf(offset, pa);
    if (arcs[pa ^ 1] == 0.0f) AddToOrphanQueue(n);
    n = up;
  }
  n->tr_cap -= b;
  if (n->tr_cap == 0.0f) AddToOrphanQueue(n);

  m_flow += b;
}

// Length of the parent chain from the head of `arc` to its terminal, counted
// from 1 for the arc itself; kInfiniteDistance when the chain ends in an
// orphan or a free node.
static int32_t chainDistance(const nodes* base, const int32_t* offset, int32_t arc) {
  int32_t d = 1;
  for (int32_t cur = arc; cur != TERMINAL;) {
    cur = base[headOf(offset, cur)].parent;
    ++d;
    if (cur == ORPHAN) return kInfiniteDistance;
  }
  return d;
}

void ZIRKSEGraph::ProcessSourceOrphans(nodes* orphan) {
  float* const arcs = m_arcs;
  nodes* const base = m_nodes;
  const int32_t* const offset = m_neighbourOffset;
  int32_t list[8];
  neighbourList(static_cast<int32_t>(orphan - base), m_width, m_height, list);

  // A new parent: a source-tree neighbour that can still send into the orphan,
  // with the shortest chain; the first in list order wins ties.
  int32_t best = kInfiniteDistance;
  int32_t bestArc = ORPHAN;
  for (int k = 0; k < 8; ++k) {
    const int32_t a = list[k];
    if (a == kNoNeighbour || arcs[a] == kAbsentArc || arcs[a ^ 1] == 0.0f) continue;
    const nodes* q = base + headOf(offset, a);
    if (q->parent == ORPHAN || q->tree != SOURCE) continue;
    const int32_t d = chainDistance(base, offset, a);
    if (d != kInfiniteDistance && d < best) {
      best = d;
      bestArc = a;
    }
  }
  if (bestArc != ORPHAN) {
    orphan->parent = bestArc;
    return;
  }

  // None: the orphan leaves the tree; neighbours of the tree that could
  // regrow into it become active, its children become orphans. Orphans of
  // the tree still queued are activated as well: one adopted later must scan
  // towards this node again, or the node could stay free although it reaches
  // the tree, and the cut read from the trees would not be minimal.
  orphan->parent = ORPHAN;
  orphan->tree = FREE;
  for (int k = 0; k < 8; ++k) {
    const int32_t a = list[k];
    if (a == kNoNeighbour || arcs[a] == kAbsentArc) continue;
    nodes* q = base + headOf(offset, a);
    if (q->tree != SOURCE) continue;
    if (arcs[a ^ 1] != 0.0f) AddToActiveQueue(q);
    if (q->parent == ORPHAN) continue;
    if (q->parent != TERMINAL && base + headOf(offset, q->parent) == orphan) AddToOrphanQueue(q);
  }
}

void ZIRKSEGraph::ProcessSinkOrphans(nodes* orphan) {
  float* const arcs = m_arcs;
  nodes* const base = m_nodes;
  const int32_t* const offset = m_neighbourOffset;
  int32_t list[8];
  neighbourList(static_cast<int32_t>(orphan - base), m_width, m_height, list);

  // A new parent: a sink-tree neighbour the orphan can still send into.
  int32_t best = kInfiniteDistance;
  int32_t bestArc = ORPHAN;
  for (int k = 0; k < 8; ++k) {
    const int32_t a = list[k];
    if (a == kNoNeighbour || arcs[a] == kAbsentArc || arcs[a] == 0.0f) continue;
    const nodes* q = base + headOf(offset, a);
    if (q->parent == ORPHAN || q->tree != SINK) continue;
    const int32_t d = chainDistance(base, offset, a);
    if (d != kInfiniteDistance && d < best) {
      best = d;
      bestArc = a;
    }
  }
  if (bestArc != ORPHAN) {
    orphan->parent = bestArc;
    return;
  }

  // None: as for the source tree, with the arcs in the other direction.
  orphan->parent = ORPHAN;
  orphan->tree = FREE;
  for (int k = 0; k < 8; ++k) {
    const int32_t a = list[k];
    if (a == kNoNeighbour || arcs[a] == kAbsentArc) continue;
    nodes* q = base + headOf(offset, a);
    if (q->tree != SINK) continue;
    if (arcs[a] != 0.0f) AddToActiveQueue(q);
    if (q->parent == ORPHAN) continue;
    if (q->parent != TERMINAL && base + headOf(offset, q->parent) == orphan) AddToOrphanQueue(q);
  }
}
