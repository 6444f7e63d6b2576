// Grid flow graph and its serial minimum-cut solver.
//
// One node per pixel of a width x height grid (pixel (x, y) is node
// y*width + x), each joined to its eight neighbours. A node stores the arcs of
// the four edges to its earlier neighbours in fixed slots, so an arc's head is
// computed from its index and no adjacency lists exist:
//   arc a = 8p + k; even slots leave p, the next odd slot is the reverse;
//   sister(a) = a ^ 1; head(a) = ((a + 1) >> 3) + m_neighbourOffset[(a + 1) & 7]
//   slot 0/1 left, 2/3 up-left, 4/5 up, 6/7 up-right.
// A capacity of -2.0f marks an absent arc (real capacities are never negative).
//
// The solver grows a source tree and a sink tree breadth-first, augments along
// each path found and re-adopts orphans to the neighbour nearest the
// terminal (distances kept per node). It polls ZIRKSEMarker::m_exitApp and the budget of
// g_cancelTimer; when the budget is spent it raises m_exitApp itself, so the
// whole segmentation stops. No allocation happens after construction.
//
// Source side = object. getTreeofNode() returns 1 for the sink (background).
//
// Memory: a 32-byte node record (64-bit targets), 8 bytes of distance
// bookkeeping and 64 bytes of arc floats per pixel (the arc array is
// reserved at twice the 8 floats a node uses; the unused half is never
// touched).
//
// Call order: construct (or reset), addNode(w*h), addtWeights per node, four
// addEdge calls per node in node order, maxFlow, getTreeofNode per node.
// Capacities are checked: a call that would write past the arrays logs one
// line (tag "Error") and does nothing. A solve on a graph whose arrays cannot
// hold the whole grid is refused the same way; nodes or arc slots of the grid
// that were never added are treated as free nodes and absent arcs.
#pragma once

#include <cstdint>

#include "support/export.h"

// Tree membership of a node.
enum : int32_t { SOURCE = 0, SINK = 1, FREE = 2 };
// Special parent values.
enum : int32_t { TERMINAL = -1, ORPHAN = -3 };

#include <vector>

// The capacity that marks an absent arc.
constexpr float kAbsentArc = -2.0f;

// One node record.
struct nodes {
  int32_t parent;     // arc to the parent, TERMINAL, or ORPHAN (orphans and free nodes)
  int32_t tree;       // SOURCE, SINK or FREE (a block id while partitioning)
  float tr_cap;       // residual terminal capacity: > 0 from the source, < 0 to the sink
  nodes* next;        // active queue link; null = not queued; the tail points to itself
  nodes* nextOrphan;  // orphan queue link, same convention
};

class ParallelGC;

class SEGCORE_EXPORT ZIRKSEGraph {
 public:
  // Allocates max(16, maxNodes) nodes and 2*max(16, maxEdges) arc floats.
  // Callers pass maxNodes = w*h, maxEdges = 8*w*h and numBlocks = 0 (serial);
  // more than one block hands maxFlow() to the parallel solver. On allocation
  // failure the arrays stay null (logged); callers test m_nodes / m_arcs.
  ZIRKSEGraph(int maxNodes, int maxEdges, int width, int height, int numBlocks);
  // A block view of parent: shares its arrays, owns only its queues and flow.
  ZIRKSEGraph(ZIRKSEGraph* parent, int blockRow, int blockCol, int blockWidth, int blockHeight);
  ~ZIRKSEGraph();
  ZIRKSEGraph(const ZIRKSEGraph&) = delete;
  ZIRKSEGraph& operator=(const ZIRKSEGraph&) = delete;

  // Clears every added node and written arc and empties the graph.
  void reset();
  // Clears values but keeps the node and arc counts.
  void resetNew();
  // Empties both queues and sets the flow to 0, nothing else.
  void resetQueuesAndFlow();
  // Appends count free nodes. Refuses (logs) past the capacity.
  void addNode(int count);
  // Appends the next two arc slots of the current node: cap (node to
  // neighbour) and revCap (neighbour to node), or two absent arcs. Placement
  // is by call order only: four calls a node, nodes in index order, slots
  // left, up-left, up, up-right. Refuses (logs) past the capacity.
  void addEdge(int from, int to, float cap, float revCap, bool absent);
  // Adds to the existing arc from -> to and its reverse; nothing when `to` is
  // not a present neighbour of `from`.
  void addToEdge(int from, int to, float cap, float revCap);
  // Adds terminal capacities; the smaller of the two counts as flow at once.
  void addtWeights(int node, float capSource, float capSink);
  // 1 when the node ended in the sink tree (background), else 0.
  int getTreeofNode(int node);

  // Solves the cut; returns the flow (0.0f from the parallel solver).
  float maxFlow();
  // Puts terminal-connected nodes into their trees and the active queue.
  void maxflowInit();
  // Growth, augmentation and adoption until no path is left, cancelled, or out of budget.
  float maxFlowSerialCall();
  // Prepares a block view for maxFlowSerialCall.
  void InitBlock();

  void AddToActiveQueue(nodes* node);
  nodes* GetTopActiveQueueNode();
  void AddToOrphanQueue(nodes* node);
  nodes* GetTopOrphanQueueNode();
  void AugmentPath(int arc);
  void ProcessSourceOrphans(nodes* orphan);
  void ProcessSinkOrphans(nodes* orphan);

  int32_t m_nodeCount;    // nodes added so far
  int32_t m_arcCount;     // arc floats written so far
  nodes* m_nodes;         // node array
  nodes* m_nodeLast;      // one past the last added node
  nodes* m_nodeMax;       // one past the capacity
  float* m_arcs;          // residual capacities, 8 per node
  float* m_arcLast;       // next free arc float
  float* m_arcMax;        // one past the capacity
  float m_flow;           // pre-flow of addtWeights plus every augmentation
  nodes* m_activeFirst;
  nodes* m_activeLast;
  nodes* m_orphanFirst;
  nodes* m_orphanLast;
  int32_t m_neighbourOffset[8];  // head offsets by (a + 1) & 7
  int32_t m_numBlocks;           // above 1: maxFlow runs the parallel solver
  int32_t m_blockWidth;          // block geometry of a block view
  int32_t m_blockHeight;
  int32_t m_blockRow;
  int32_t m_blockCol;
  int32_t m_width;   // grid width
  int32_t m_height;  // grid height
  // True for a graph made by the first constructor (it frees its arrays);
  // false for a block view, which only borrows its parent's arrays.
  bool m_ownsArrays;
  // A band graph (see graphcut/BandGraph.h): its nodes are a subset of a
  // pixel grid numbered row by row, and these hold, per node, the index of
  // the node directly above and below (-1: none). Null for a full grid.
  // Owned by the graph.
  int32_t* m_bandUp = nullptr;
  int32_t* m_bandDown = nullptr;
  // Bookkeeping of the serial solve: per node, the step at which its
  // distance to its terminal was last confirmed, and that distance, so that
  // an orphan finds its nearest valid parent without walking every chain to
  // the root. Null in block views, whose solves walk the chains.
  int32_t* m_stamp = nullptr;
  int32_t* m_dist = nullptr;
  int32_t m_time = 0;
  // The terminal capacities of the last fill through ZIRK_fillGrid (per node
  // its source minus sink capacity), kept when the next fill may start from
  // this solve's flow. Null otherwise. The links need no copy: both arcs of
  // a link have the same capacity, so its flow is half the difference of
  // their residuals.
  float* m_fillNet = nullptr;
  // Set by a fill that kept the previous flow: that solve starts close to
  // its end and skips the bulk routing of a fresh graph.
  bool m_warmFill = false;
  // Set by prepareForSolve when the arc array holds a row of absent arcs
  // after the grid and the grid's border slots are absent (see there).
  bool m_padded = false;

  // Checks that the arrays hold the whole width x height grid and marks grid
  // nodes and arc slots never added as free nodes and absent arcs. A full
  // grid whose arc array has room for a row after it also gets that row of
  // absent arcs and its border slots marked absent (m_padded), so that the
  // solver needs no bounds checks. Logs and returns false when the grid
  // does not fit (nothing may be solved then). maxflowInit() and the
  // parallel solver call it.
  bool prepareForSolve();
};

// Filling a freshly reset graph of n nodes in place, several threads
// writing disjoint nodes: node p becomes a free node with, when `terminals`,
// the terminal capacities addtWeights would give it, and its four link
// pairs (left, up-left, up, up-right; kAbsentArc: absent) as addEdge would
// write them; returns the pre-flow addtWeights would add (0 without
// terminals). ZIRK_endFillInPlace then sets the counts and adds the
// pre-flows in node order. Every node 0 .. n - 1 must be written.
float ZIRK_fillNodeInPlace(ZIRKSEGraph* g, int32_t p, bool terminals, float source, float sink,
                           const float links[4]);
void ZIRK_endFillInPlace(ZIRKSEGraph* g, int32_t n, const float* preFlow);

// Solves a band graph (m_bandUp set), or a full grid with every grid node,
// in parts solved on up to one thread a core (a thread that is free takes
// the next part): parts[i] .. parts[i + 1] are node
// ranges that begin at a row, and seams[i] is the end of the first row of
// part i + 1. The links between parts are held back while the parts solve
// (each first routes in bulk: a band always, a grid after a fresh fill;
// the parts of a fresh grid stop after one augmentation per 16 nodes and
// leave the rest to the joins); then neighbouring groups of parts join in
// pairs, round by round, each join getting its seam's links back and the
// nodes its groups still had queued, and solving on from there, until one
// group is the whole graph: the same maximum flow and the same cut as a
// serial solve, with most of the work, the seams' included, done in
// parallel. Any other graph is solved by maxFlow(). Returns the flow.
float ZIRK_solveInParts(ZIRKSEGraph* g, const std::vector<int32_t>& parts,
                        const std::vector<int32_t>& seams);

// Solves a full grid graph in `parts` bands of rows through
// ZIRK_solveInParts: after a fresh fill bands of about equal soft terminal
// capacity (that of fixed pixels, 500 and above, not counted), after a
// refill bands of about equal height; at least two rows a band. With fewer
// than two parts, or fewer than two rows a part, serially through
// maxFlow(). Returns the flow.
float ZIRK_solveGridInParts(ZIRKSEGraph* g, int parts);

// Fills a full grid graph (numBlocks 0) of width x height nodes: per node
// its source and sink capacity and the capacities of its four links to the
// left, up-left, up and up-right neighbours (the same both ways; kAbsentArc:
// absent). With keepFlow, a graph solved after an earlier fill through this
// function keeps that solve's flow: terminal capacities change by the
// difference, a link's flow stays where it fits its new capacity and
// otherwise the overflow goes back to the two nodes' terminals. The next
// maxFlow() then finds the same minimum cut as on a fresh fill, with less
// work when little changed. Without it (or after no such solve) the graph
// is filled afresh in the order of addtWeights and addEdge. Null source and
// sink keep the terminal capacities of the last fill (only with keepFlow
// after such a fill; otherwise logged and nothing is filled).
void ZIRK_fillGrid(ZIRKSEGraph* g, const float* source, const float* sink, const float* links,
                   bool keepFlow);
