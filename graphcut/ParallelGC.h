// Parallel block max-flow over one ZIRKSEGraph.
//
// The pixel grid is cut into a cols x rows grid of rectangular blocks, each a
// block view of the graph (shared node and arc arrays, own queues and flow).
// The solve runs in phases, one POSIX thread per block or per pair, joined
// before the next phase:
//   1. block ids are written into the `tree` field of every block's border;
//   2. every arc between two blocks is taken out (capacity set to absent) and
//      kept in the store of its pair of blocks;
//   3. every block is solved by itself;
//   4. merge passes: disjoint pairs of blocks get their stored arcs back and
//      the lower block's search continues over both, until one block is left
//      (or the remaining blocks share no arc).
// The result is the node trees; maxFlow() reports 0.0f, not a flow value.
//
// Entered from ZIRKSEGraph::maxFlow() when the graph asks for more than one
// block; the segmentation itself always solves serially.
#pragma once

#include <semaphore.h>

#include <cstdint>
#include <vector>

#include "graphcut/ZIRKSEGraph.h"
#include "support/export.h"

// One arc taken out between two blocks, with the residual capacities it had.
struct removedArc {
  int32_t arc;      // arc index
  int32_t sister;   // arc ^ 1
  float cap;        // capacity of arc when removed
  float sisterCap;  // capacity of sister when removed
  removedArc* next;
};

// The arcs removed between one pair of blocks (created only when there is at least one).
struct blockEdges {
  int32_t blockA;     // the block that created the store (renamed on merges)
  int32_t blockB;     // the other block
  removedArc* first;  // newest record first
};

// Thread arguments of the id and partition phases.
struct blockThreadArgs {
  class ParallelGC* solver;
  int32_t slot;
  int32_t row;
  int32_t col;
};

// Thread arguments of the block solves.
struct blockSolveArgs {
  class ParallelGC* solver;
  int32_t block;
};

// Thread arguments of one merge.
struct mergeThreadArgs {
  class ParallelGC* solver;
  int32_t slot;
  int32_t blockA;
  int32_t blockB;
};

class SEGCORE_EXPORT ParallelGC {
 public:
  // Chooses the block grid for numBlocks blocks (kept within 1..64; other
  // values are logged and clamped) and creates the block views.
  ParallelGC(ZIRKSEGraph* graph, int numBlocks);
  // Deletes the block views (they do not own the arrays), the stores still
  // held and the bookkeeping arrays.
  ~ParallelGC();
  ParallelGC(const ParallelGC&) = delete;
  ParallelGC& operator=(const ParallelGC&) = delete;

  // Runs every phase; the trees of the graph's nodes hold the cut afterwards.
  // Returns 0.0f whatever the cut.
  float maxFlow();

  // Writes the block id into the tree field of the block's border nodes.
  void AssignIDs(int row, int col);
  // Takes out the arcs between this block and its up-right, right,
  // down-right and lower neighbours, one store per pair.
  void PartitionGraph(int row, int col);
  // Removes the node's arcs that lead to nodes whose tree field holds
  // store->blockB; returns how many were removed.
  int RemoveAndStoreEdges(nodes* node, blockEdges* store);
  // Restores the arcs stored between a and b, queues their ends in the lower
  // block and returns the lower block's id.
  int MergeBlocks(int a, int b);
  // After a merge of a and b: drops their store and hands the stores of the
  // higher block to the lower one.
  void MakeNeighbourChanges(int a, int b);

  // Thread entries; each unpacks its argument record and ends with pthread_exit.
  static void* ThreadAssignBlockIDs(void* arg);
  static void* ThreadPartition(void* arg);
  static void* ThreadMaxFlow(void* arg);
  static void* ThreadMerge(void* arg);

  ZIRKSEGraph* m_graph;      // the graph being solved (not owned)
  int32_t m_numBlocks;       // n
  ZIRKSEGraph** m_blocks;    // n block views, id = column + m_blockCols * row
  bool* m_merged;            // n flags: merged in the current pass
  blockEdges*** m_pairEdges; // n x n, symmetric: store of the pair, or null
  nodes* m_nodes;            // the graph's arrays
  float* m_arcs;
  int32_t m_nodeCount;
  int32_t m_width;
  int32_t m_height;
  int32_t m_blockCols;
  int32_t m_blockRows;
  int32_t m_blockWidth;      // ceil(width / cols)
  int32_t m_blockHeight;     // ceil(height / rows)
  std::vector<blockEdges*> m_pending;  // stores still to merge, in creation order
  sem_t m_pendingLock;                 // guards m_pending during the partition
  bool m_lockReady;                    // m_pendingLock was initialised
};
