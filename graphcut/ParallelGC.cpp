// Parallel block max-flow: partition, block solves, pairwise merges.
//
// Every block's search stays inside the block because the arcs between
// blocks are absent while it runs; a merge gives a pair its stored arcs back
// and queues both ends of each, so the lower block's search picks up exactly
// where the two block solves stopped. Merge threads of one pass work on
// disjoint pairs, whose regions still share no arc.
//
// Speed (2026-11, two shared x86-64 cores): no gain over the serial solver
// at 2 to 8 blocks, on 320x240 photo graphs or on a 4032x400 band; merges
// re-search from every restored arc, and the cores are few.
#include "graphcut/ParallelGC.h"

#include <android/log.h>
#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "graphcut/ZIRKSEGraph.h"

namespace {

constexpr int32_t kMaxBlocks = 64;

// Block grid for n blocks: cols x rows with cols * rows = n. A divisor met at
// the first try is passed over on purpose (8 gives 4 x 2, not 2 x 4).
void chooseBlockGrid(int32_t n, int32_t* cols, int32_t* rows) {
  const int32_t s = static_cast<int32_t>(ceilf(sqrtf(static_cast<float>(n))));
  int32_t k = 1;
  for (;;) {
    int32_t c = s + k;
    if (n % c == 0) {
      k += 1;
      if (c == n) {
        *cols = c;
        *rows = 1;
        return;
      }
      continue;
    }
    while (n % c != 0) --c;
    const int32_t r = static_cast<int32_t>(ceilf(static_cast<float>(n) / static_cast<float>(c)));
    k += 1;
    if (c * r == n) {
      *cols = c;
      *rows = r;
      return;
    }
  }
}

inline int32_t headOf(const ZIRKSEGraph* g, int32_t arc) {
  return ((arc + 1) >> 3) + g->m_neighbourOffset[(arc + 1) & 7];
}

// The eight arcs leaving node p in the solver's neighbour order; -2 outside the grid.
void neighbourArcs(int32_t p, int32_t w, int32_t h, int32_t list[8]) {
  const int32_t x = p % w, y = p / w;
  const int32_t base = 8 * p, down = 8 * (p + w);
  const bool left = x > 0, right = x < w - 1, up = y > 0, below = y < h - 1;
  list[0] = left ? base : -2;
  list[1] = (left && up) ? base + 2 : -2;
  list[2] = up ? base + 4 : -2;
  list[3] = (up && right) ? base + 6 : -2;
  list[4] = right ? base + 9 : -2;
  list[5] = (right && below) ? down + 11 : -2;
  list[6] = below ? down + 5 : -2;
  list[7] = (left && below) ? down - 1 : -2;
}

void deleteStore(blockEdges* store) {
  if (store == nullptr) return;
  for (removedArc* r = store->first; r != nullptr;) {
    removedArc* next = r->next;
    delete r;
    r = next;
  }
  delete store;
}

// Empties a block's queues and unlinks their nodes, so that they can be queued again.
void emptyQueues(ZIRKSEGraph* block) {
  while (nodes* n = block->GetTopActiveQueueNode()) n->next = nullptr;
  while (block->GetTopOrphanQueueNode() != nullptr) {
  }
}

void runAssignIds(void* arg) {
  const blockThreadArgs* a = static_cast<const blockThreadArgs*>(arg);
  a->solver->AssignIDs(a->row, a->col);
}

void runPartition(void* arg) {
  const blockThreadArgs* a = static_cast<const blockThreadArgs*>(arg);
  a->solver->PartitionGraph(a->row, a->col);
}

void runBlockSolve(void* arg) {
  const blockSolveArgs* a = static_cast<const blockSolveArgs*>(arg);
  a->solver->m_blocks[a->block]->maxFlowSerialCall();
}

void runMerge(void* arg) {
  const mergeThreadArgs* a = static_cast<const mergeThreadArgs*>(arg);
  const int lo = a->solver->MergeBlocks(a->blockA, a->blockB);
  a->solver->m_blocks[lo]->maxFlowSerialCall();
}

// Starts one thread per argument record and joins them all. A thread that
// cannot be created runs its work on the calling thread instead.
template <typename Args>
void runAll(std::vector<Args>& args, void* (*entry)(void*), void (*work)(void*)) {
  std::vector<pthread_t> threads(args.size());
  std::vector<char> started(args.size(), 0);
  for (size_t i = 0; i < args.size(); ++i) {
    started[i] = pthread_create(&threads[i], nullptr, entry, &args[i]) == 0;
    if (!started[i]) work(&args[i]);
  }
  for (size_t i = 0; i < args.size(); ++i) {
    if (started[i]) pthread_join(threads[i], nullptr);
  }
}

}  // namespace

ParallelGC::ParallelGC(ZIRKSEGraph* graph, int numBlocks)
    : m_graph(graph),
      m_numBlocks(0),
      m_blocks(nullptr),
      m_merged(nullptr),
      m_pairEdges(nullptr),
      m_nodes(nullptr),
      m_arcs(nullptr),
      m_nodeCount(0),
      m_width(0),
      m_height(0),
      m_blockCols(0),
      m_blockRows(0),
      m_blockWidth(0),
      m_blockHeight(0),
      m_pendingLock(),
      m_lockReady(false) {
  if (graph == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "ParallelGC: no graph");
    return;
  }
  int32_t n = numBlocks;
  if (n < 1 || n > kMaxBlocks) {
    n = n < 1 ? 1 : kMaxBlocks;
    __android_log_print(ANDROID_LOG_ERROR, "Error", "ParallelGC: %d blocks asked, %d used",
                        numBlocks, n);
  }
  m_numBlocks = n;
  m_nodes = graph->m_nodes;
  m_arcs = graph->m_arcs;
  m_nodeCount = graph->m_nodeCount;
  m_width = graph->m_width;
  m_height = graph->m_height;
  chooseBlockGrid(n, &m_blockCols, &m_blockRows);
  m_blockWidth = (m_width + m_blockCols - 1) / m_blockCols;
  m_blockHeight = (m_height + m_blockRows - 1) / m_blockRows;

  m_blocks = new ZIRKSEGraph*[n];
  for (int32_t row = 0; row < m_blockRows; ++row) {
    for (int32_t col = 0; col < m_blockCols; ++col) {
      m_blocks[col + m_blockCols * row] =
          new ZIRKSEGraph(graph, row, col, m_blockWidth, m_blockHeight);
    }
  }
  m_merged = new bool[n]();
  m_pairEdges = new blockEdges**[n];
  for (int32_t i = 0; i < n; ++i) m_pairEdges[i] = new blockEdges*[n]();
}

ParallelGC::~ParallelGC() {
  if (m_lockReady) sem_destroy(&m_pendingLock);
  // Every live store is in m_pending (a store leaves it only when deleted).
  for (blockEdges* store : m_pending) deleteStore(store);
  m_pending.clear();
  if (m_pairEdges != nullptr) {
    for (int32_t i = 0; i < m_numBlocks; ++i) delete[] m_pairEdges[i];
    delete[] m_pairEdges;
  }
  if (m_blocks != nullptr) {
    // The views borrow the graph's arrays; deleting them frees nothing of it.
    for (int32_t i = 0; i < m_numBlocks; ++i) delete m_blocks[i];
    delete[] m_blocks;
  }
  delete[] m_merged;
}

float ParallelGC::maxFlow() {
  if (m_numBlocks < 1 || !m_graph->prepareForSolve()) return 0.0f;
  const int32_t n = m_numBlocks;
  if (!m_lockReady) {
    sem_init(&m_pendingLock, 0, 1);
    m_lockReady = true;
  }
  for (blockEdges* store : m_pending) deleteStore(store);
  m_pending.clear();

  // 1. Block ids on the block borders.
  std::vector<blockThreadArgs> blockArgs;
  for (int32_t row = 0; row < m_blockRows; ++row) {
    for (int32_t col = 0; col < m_blockCols; ++col) {
      blockArgs.push_back({this, col + m_blockCols * row, row, col});
    }
  }
  runAll(blockArgs, &ParallelGC::ThreadAssignBlockIDs, &runAssignIds);
  for (int32_t i = 0; i < n; ++i) std::fill(m_pairEdges[i], m_pairEdges[i] + n, nullptr);

  // 2. Arcs between blocks out of the graph, into one store per pair.
  runAll(blockArgs, &ParallelGC::ThreadPartition, &runPartition);

  // 3. Every block by itself. Each is initialised just before its thread
  // starts; running blocks never touch another block's nodes.
  {
    std::vector<pthread_t> threads(n);
    std::vector<char> started(n, 0);
    std::vector<blockSolveArgs> args(n);
    for (int32_t i = 0; i < n; ++i) {
      args[i] = {this, i};
      m_blocks[i]->InitBlock();
      started[i] = pthread_create(&threads[i], nullptr, &ParallelGC::ThreadMaxFlow, &args[i]) == 0;
      if (!started[i]) runBlockSolve(&args[i]);
    }
    for (int32_t i = 0; i < n; ++i) {
      if (started[i]) pthread_join(threads[i], nullptr);
    }
  }

  // 4. Merge passes over disjoint pairs until one block is left. Blocks that
  // share no arc never get a store; once no store is pending they are all
  // solved for good and the passes end.
  int32_t remaining = n;
  while (remaining > 1) {
    std::vector<mergeThreadArgs> pairs;
    for (blockEdges* store : m_pending) {
      const int32_t a = store->blockA, b = store->blockB;
      if (m_merged[a] || m_merged[b]) continue;
      m_merged[a] = m_merged[b] = true;
      pairs.push_back({this, static_cast<int32_t>(pairs.size()), a, b});
    }
    if (pairs.empty()) break;
    runAll(pairs, &ParallelGC::ThreadMerge, &runMerge);
    for (const mergeThreadArgs& p : pairs) MakeNeighbourChanges(p.blockA, p.blockB);
    remaining -= static_cast<int32_t>(pairs.size());
    std::fill(m_merged, m_merged + n, false);
  }
  return 0.0f;
}

void ParallelGC::AssignIDs(int row, int col) {
  const int32_t id = col + m_blockCols * row;
  const int32_t x0 = m_blockWidth * col, x1 = x0 + m_blockWidth - 1;
  const int32_t y0 = m_blockHeight * row, y1 = y0 + m_blockHeight - 1;
  for (int32_t y = y0; y <= y1 && y < m_height; ++y) {
    const bool edgeRow = y == y0 || y == y1;
    for (int32_t x = x0; x <= x1 && x < m_width; ++x) {
      if (!edgeRow && x != x0 && x != x1) continue;
      const int64_t index = static_cast<int64_t>(y) * m_width + x;
      if (index >= m_nodeCount) continue;
      m_nodes[index].tree = id;
    }
  }
}

void ParallelGC::PartitionGraph(int row, int col) {
  const int32_t self = col + m_blockCols * row;
  const int32_t x0 = m_blockWidth * col, right = m_blockWidth * (col + 1) - 1;
  const int32_t y0 = m_blockHeight * row, bottom = m_blockHeight * (row + 1) - 1;
  nodes* const base = m_nodes;
  // Node at (x, y), or null outside the grid or the added nodes.
  auto at = [&](int32_t x, int32_t y) -> nodes* {
    if (x >= m_width || y >= m_height) return nullptr;
    const int64_t index = static_cast<int64_t>(y) * m_width + x;
    return index < m_nodeCount ? base + index : nullptr;
  };
  // One pair: remove the arcs of the given nodes towards block `other`.
  auto pair = [&](int32_t otherRow, int32_t otherCol, int32_t xa, int32_t ya, int32_t xb,
                  int32_t yb) {
    const int32_t other = otherCol + m_blockCols * otherRow;
    blockEdges* store = new blockEdges{self, other, nullptr};
    int removed = 0;
    for (int32_t y = ya; y <= yb; ++y) {
      for (int32_t x = xa; x <= xb; ++x) {
        if (nodes* node = at(x, y)) removed += RemoveAndStoreEdges(node, store);
      }
    }
    if (removed > 0) {
      m_pairEdges[self][other] = m_pairEdges[other][self] = store;
      sem_wait(&m_pendingLock);
      m_pending.push_back(store);
      sem_post(&m_pendingLock);
    } else {
      delete store;
      m_pairEdges[self][other] = m_pairEdges[other][self] = nullptr;
    }
  };
  const bool hasRight = col <= m_blockCols - 2;
  const bool hasBelow = row <= m_blockRows - 2;
  if (hasRight && row >= 1) pair(row - 1, col + 1, right, y0, right, y0);
  if (hasRight) pair(row, col + 1, right, y0, right, bottom);
  if (hasRight && hasBelow) pair(row + 1, col + 1, right, bottom, right, bottom);
  if (hasBelow) pair(row + 1, col, x0, bottom, right, bottom);
}

int ParallelGC::RemoveAndStoreEdges(nodes* node, blockEdges* store) {
  int32_t list[8];
  neighbourArcs(static_cast<int32_t>(node - m_nodes), m_width, m_height, list);
  int removed = 0;
  for (int k = 0; k < 8; ++k) {
    const int32_t a = list[k];
    if (a < 0) continue;
    // The head's block first: arcs towards other blocks belong to other
    // threads, so their capacities are not even read here.
    if (m_nodes[headOf(m_graph, a)].tree != store->blockB) continue;
    if (m_arcs[a] == kAbsentArc) continue;
    store->first = new removedArc{a, a ^ 1, m_arcs[a], m_arcs[a ^ 1], store->first};
    m_arcs[a] = kAbsentArc;
    m_arcs[a ^ 1] = kAbsentArc;
    ++removed;
  }
  return removed;
}

int ParallelGC::MergeBlocks(int a, int b) {
  const int lo = std::min(a, b), hi = std::max(a, b);
  ZIRKSEGraph* block = m_blocks[lo];
  emptyQueues(block);
  block->m_flow = 0.0f;
  blockEdges* store = m_pairEdges[lo][hi];
  if (store == nullptr) return lo;
  for (removedArc* r = store->first; r != nullptr;) {
    m_arcs[r->arc] = r->cap;
    m_arcs[r->sister] = r->sisterCap;
    block->AddToActiveQueue(m_nodes + headOf(m_graph, r->sister));
    block->AddToActiveQueue(m_nodes + headOf(m_graph, r->arc));
    removedArc* next = r->next;
    delete r;
    r = next;
  }
  store->first = nullptr;
  return lo;
}

void ParallelGC::MakeNeighbourChanges(int a, int b) {
  const int32_t lo = std::min(a, b), hi = std::max(a, b);
  auto unpend = [this](blockEdges* store) {
    auto it = std::find(m_pending.begin(), m_pending.end(), store);
    if (it != m_pending.end()) m_pending.erase(it);
  };
  if (blockEdges* merged = m_pairEdges[lo][hi]) {
    unpend(merged);
    deleteStore(merged);
  }
  m_pairEdges[lo][hi] = m_pairEdges[hi][lo] = nullptr;

  // The higher block's stores now belong to the lower one.
  for (int32_t k = 0; k < m_numBlocks; ++k) {
    blockEdges* moved = m_pairEdges[hi][k];
    if (moved == nullptr) continue;
    if (moved->blockA == hi) moved->blockA = lo;
    if (moved->blockB == hi) moved->blockB = lo;
    blockEdges* kept = m_pairEdges[lo][k];
    if (kept == nullptr) {
      m_pairEdges[lo][k] = m_pairEdges[k][lo] = moved;
    } else {
      removedArc* last = kept->first;
      while (last != nullptr && last->next != nullptr) last = last->next;
      if (last != nullptr) {
        last->next = moved->first;
        moved->first = nullptr;
      }
      // With no record in the kept store there is nothing to append to: the
      // moved records are dropped with their store and those arcs stay out of
      // the graph.
      unpend(moved);
      deleteStore(moved);
    }
    m_pairEdges[hi][k] = m_pairEdges[k][hi] = nullptr;
  }
}

void* ParallelGC::ThreadAssignBlockIDs(void* arg) {
  runAssignIds(arg);
  pthread_exit(nullptr);
}

void* ParallelGC::ThreadPartition(void* arg) {
  runPartition(arg);
  pthread_exit(nullptr);
}

void* ParallelGC::ThreadMaxFlow(void* arg) {
  runBlockSolve(arg);
  pthread_exit(nullptr);
}

void* ParallelGC::ThreadMerge(void* arg) {
  runMerge(arg);
  pthread_exit(nullptr);
}
