// The grid graph's serial and parallel max-flow against a plain max-flow
// oracle, its refusals, cancel and time budget, and refills that keep the flow.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "engine/ZIRKSEMarker.h"
#include "graphcut/GridGraphTestUtil.h"
#include "graphcut/ParallelGC.h"
#include "graphcut/ZIRKSEGraph.h"
#include "support/ZIRKTimer.h"

using namespace gridtest;

namespace {

class MaxFlow : public ::testing::Test {
 protected:
  void TearDown() override {
    ZIRKSEMarker::m_exitApp = false;
    destroy_timer(g_cancelTimer);
    g_cancelTimer = nullptr;
  }
};

// Solves g (filled from s) and compares with the oracle: the cut has the
// minimum capacity, and with integer capacities (every sum exact) it is the
// oracle's sink side, the nodes that can still reach the sink. The serial
// solver, alone or over bands of rows (parts above 1), also returns the flow.
void expectOracleCut(ZIRKSEGraph& g, const GridGraph& s, bool exact, int parts = 1) {
  const OracleResult oracle = solveWithOracle(s);
  const double tol = 1e-5 * (1.0 + oracle.flow);
  // The parallel block solver returns 0.
  const float flow = parts > 1 ? ZIRK_solveGridInParts(&g, parts) : g.maxFlow();
  ASSERT_NEAR(flow, g.m_numBlocks > 1 ? 0.0 : oracle.flow, exact ? 0.0 : tol);
  const std::vector<bool> side = sinkSideOf(g, s.nodes());
  ASSERT_NEAR(cutCapacity(s, side), oracle.flow, tol);
  ASSERT_TRUE(!exact || side == oracle.sinkSide) << "not the smallest sink side";
}

// Every arc the partition removed is back, and no other arc went missing.
void expectArcsRestored(const ZIRKSEGraph& g, const GridGraph& s) {
  for (int i = 0; i < 4 * s.nodes(); ++i)
    ASSERT_EQ(g.m_arcs[2 * i] == kAbsentArc, s.e[i].absent) << i;
}

// A grid larger than the graph's arrays and a block count above 64 are
// refused. Cancelled before the call: the serial solver returns the
// pre-flow; the parallel one still restores every arc it removed. A spent
// budget ends a solve early and cancels the whole segmentation; 9 s do not.
TEST_F(MaxFlow, RefusalsCancelAndSpentBudget) {
  ZIRKSEGraph small(4, 4, 4, 4, 0);  // room for 16 nodes and 32 arc floats; the 4x4 grid needs 128
  small.addNode(16);
  small.addtWeights(0, 3.0f, 1.0f);
  EXPECT_EQ(small.maxFlow(), 1.0f);  // only the pre-flow
  ZIRKSEGraph big(77 * 31, 8 * 77 * 31, 77, 31, 0);
  ParallelGC tooMany(&big, 1000);
  EXPECT_EQ(tooMany.m_blockCols * tooMany.m_blockRows, 64);

  std::mt19937 rng(8);
  ZIRKSEMarker::m_exitApp = true;
  const GridGraph s = randomGrid(rng, 12, 9, false), c = randomGrid(rng, 30, 20, false);
  ZIRKSEGraph g(108, 864, 12, 9, 0), blocks(600, 4800, 30, 20, 4);
  fill(g, s);
  const float preFlow = g.m_flow;
  EXPECT_EQ(g.maxFlow(), preFlow);
  fill(blocks, c);
  EXPECT_EQ(blocks.maxFlow(), 0.0f);
  expectArcsRestored(blocks, c);

  ZIRKSEMarker::m_exitApp = false;
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  // From node 0 (source) to node 19 (sink): no pre-flow, and the two ends
  // lie in different blocks of the gathering before the solve.
  GridGraph chain(20, 1);
  chain.src[0] = chain.snk[19] = 5.0f;
  for (int p = 1; p < 20; ++p) chain.e[4 * p] = Slot{10.0f, 10.0f, false};
  for (int spent : {9, 11}) {
    g_cancelTimer->start.tv_sec -= spent == 9 ? 9 : 2;
    ZIRKSEGraph line(20, 160, 20, 1, 0);
    fill(line, chain);
    EXPECT_EQ(line.maxFlow(), spent == 9 ? 5.0f : 0.0f);
    EXPECT_EQ(ZIRKSEMarker::m_exitApp, spent == 11);
  }
}

// The serial solver (0 blocks), the parallel one for every block count and
// the serial one over 2 to 5 bands of rows (negative counts below), on grids
// from 1x1 and single rows or columns up to 40x30, with real and integer
// capacities; every arc the partition or a band seam held comes back. Serial
// solves also run on arc arrays with no room after the grid (the solver then
// checks every neighbour's position) and with capacities written into the
// slots of links that would leave the grid (ignored). Once, two
// blocks share no arc (no edge between columns 5 and 6 of 12): they get no
// store and are never merged, and the merge passes end instead of waiting.
TEST_F(MaxFlow, RandomGridsGiveTheOracleCutForEveryBlockCount) {
  std::mt19937 rng(1234);
  std::uniform_int_distribution<int> wd(1, 40), hd(1, 30);
  const std::pair<int, int> fixed[] = {{1, 1}, {1, 2}, {2, 1}, {1, 17}, {23, 1}, {2, 2}, {40, 30}};
  g_cancelTimer = create_timer();  // the blocks poll the budget from their threads
  for (int blocks : {0, 2, 3, 4, 6, 8, 9, 16, -2, -3, -5}) {
    for (int trial = 0; trial < (blocks == 0 ? 300 : 24); ++trial) {
      int w = wd(rng), h = hd(rng);
      if (blocks == 0 && trial < 14) std::tie(w, h) = fixed[trial / 2];
      if (blocks != 0 && trial < 2) (trial == 0 ? w : h) = 1;
      const bool apart = blocks == 2 && trial == 3;
      if (apart) w = 12, h = 8;
      GridGraph s = randomGrid(rng, w, h, trial % 2 == 1);
      for (int y = 0; apart && y < 8; ++y)
        s.e[4 * (y * 12 + 6)].absent = s.e[4 * (y * 12 + 6) + 1].absent = s.e[4 * (y * 12 + 5) + 3].absent = true;
      const bool tight = blocks == 0 && trial % 3 == 2, stray = blocks == 0 && trial % 4 >= 2;
      ZIRKSEGraph g(w * h, (tight ? 4 : 8) * w * h, w, h, std::max(blocks, 0));
      fill(g, s, stray);
      start_cpu_timer(g_cancelTimer);  // a fresh budget for each solve (sanitizers are slow)
      SCOPED_TRACE(testing::Message() << blocks << " blocks, " << w << "x" << h << (tight ? " tight" : "")
                                      << (stray ? " stray" : ""));
      ASSERT_NO_FATAL_FAILURE(expectOracleCut(g, s, trial % 2 == 1, -blocks));
      if (!stray) {
        ASSERT_NO_FATAL_FAILURE(expectArcsRestored(g, s));
      }
    }
  }
  EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
}

// A fresh fill through ZIRK_fillGrid writes the same node records, arcs
// and flow as the call-by-call fill, on one thread (small grid) or two (a
// grid of 20,000 nodes), over whatever an earlier use left in the arrays;
// records and arcs past the grid are cleared. A graph too small for the
// grid is refused and left alone.
TEST_F(MaxFlow, FreshGridFillEqualsTheCallByCallFill) {
  std::mt19937 rng(5);
  for (const auto& size : {std::make_pair(7, 5), std::make_pair(200, 100)}) {
    const int w = size.first, h = size.second, n = w * h;
    GridGraph s = randomGrid(rng, w, h, false);
    std::vector<float> links(4 * n);
    for (int i = 0; i < 4 * n; ++i) {
      s.e[i].rev = s.e[i].cap;  // the grid fill's links are the same both ways
      links[i] = s.e[i].absent ? kAbsentArc : s.e[i].cap;
    }
    const int past = 50;  // an earlier use filled 50 nodes more
    ZIRKSEGraph byCall(n, 8 * n, w, h, 0), inPlace(n + past, 8 * (n + past), w, h, 0);
    fill(byCall, s);
    // Left over from an earlier use: garbage in every record and arc.
    inPlace.addNode(n + past);
    for (int p = 0; p < n + past; ++p) inPlace.m_nodes[p] = nodes{5, SINK, -3.0f, &inPlace.m_nodes[p], nullptr};
    for (int a = 0; a < 8 * (n + past); ++a) inPlace.m_arcs[a] = 9.0f;
    inPlace.m_arcLast = inPlace.m_arcs + 8 * (n + past);
    inPlace.m_flow = 77.0f;
    ZIRK_fillGrid(&inPlace, s.src.data(), s.snk.data(), links.data(), false);
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    ASSERT_EQ(inPlace.m_nodeCount, n);
    ASSERT_EQ(inPlace.m_arcCount, 8 * n);
    EXPECT_EQ(inPlace.m_flow, byCall.m_flow);
    for (int p = 0; p < n; ++p) {
      const nodes &a = inPlace.m_nodes[p], &b = byCall.m_nodes[p];
      ASSERT_TRUE(a.parent == b.parent && a.tree == b.tree && a.next == nullptr && a.nextOrphan == nullptr &&
                  std::memcmp(&a.tr_cap, &b.tr_cap, sizeof(float)) == 0)
          << "node " << p;
    }
    ASSERT_EQ(std::memcmp(inPlace.m_arcs, byCall.m_arcs, sizeof(float) * 8 * n), 0);
    for (int p = n; p < n + past; ++p) {
      const nodes& x = inPlace.m_nodes[p];
      ASSERT_TRUE(x.tree == FREE && x.tr_cap == 0.0f && x.next == nullptr) << "node " << p;
    }
    for (int a = 8 * n; a < 8 * (n + past); ++a) ASSERT_EQ(inPlace.m_arcs[a], 0.0f);
  }
  ZIRKSEGraph small(20, 160, 5, 5, 0);
  const std::vector<float> terminal(25, 1.0f), links(100, 2.0f);
  ZIRK_fillGrid(&small, terminal.data(), terminal.data(), links.data(), false);
  EXPECT_EQ(small.m_nodeCount, 0);
}

// A refill that keeps the last solve's flow must give the minimum cut of the
// new capacities: links fall to nothing, shrink, stay or grow, terminal
// links swap sides or stay (null terminal arrays), some become or stop
// being infinite (on either side). Both solves run serially or over 2 or 3
// bands of rows.
// Symmetric integral links, as the segmenter's are, so the cut is determined.
TEST_F(MaxFlow, RefillKeepingTheFlowGivesTheMinimumCutOfTheNewCapacities) {
  std::mt19937 rng(21);
  auto refill = [](ZIRKSEGraph* g, const GridGraph& s, bool sameTerminals) {
    std::vector<float> links(4 * s.nodes());
    for (int i = 0; i < 4 * s.nodes(); ++i) links[i] = s.e[i].absent ? kAbsentArc : s.e[i].cap;
    ZIRK_fillGrid(g, sameTerminals ? nullptr : s.src.data(), sameTerminals ? nullptr : s.snk.data(),
                  links.data(), true);
  };
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 2 + trial % 9, h = 1 + trial % 7, parts = 1 + trial % 3;
    const bool sameTerminals = trial % 4 == 3, infinite = trial % 5 < 2;
    const float inf = std::numeric_limits<float>::infinity();
    GridGraph first = randomGrid(rng, w, h, true);
    std::uniform_int_distribution<int> pick(0, 3);
    for (Slot& e : first.e) e.rev = e.cap;
    for (float& c : first.src) c = infinite && pick(rng) == 0 ? inf : c;
    for (int p = 0; p < first.nodes(); ++p)
      if (infinite && first.src[p] != inf && pick(rng) == 0) first.snk[p] = inf;
    GridGraph second = first;
    const float scale[4] = {0.0f, 0.5f, 1.0f, 3.0f};
    for (int p = 0; p < first.nodes(); ++p) {
      if (!sameTerminals && pick(rng) == 0) std::swap(second.src[p], second.snk[p]);
      if (!sameTerminals && infinite && pick(rng) == 0)
        second.src[p] = second.src[p] == inf || second.snk[p] == inf ? 3.0f : inf;
      for (int k = 0; k < 4; ++k) {
        Slot& e = second.e[4 * p + k];
        e.cap = e.rev = std::floor(e.cap * scale[pick(rng)]);
      }
    }
    ZIRKSEGraph g(w * h, 8 * w * h, w, h, 0);
    refill(&g, first, false);
    // Links are finite, so is the flow, whatever the terminals.
    EXPECT_TRUE(std::isfinite(ZIRK_solveGridInParts(&g, parts))) << "trial " << trial;
    refill(&g, second, sameTerminals);
    ZIRK_solveGridInParts(&g, parts);
    EXPECT_EQ(sinkSideOf(g, w * h), solveWithOracle(second).sinkSide) << "trial " << trial;
  }
}

// A refill keeping the flow of a grid large enough for two threads gives,
// bit for bit, the residuals of the plain order: every node's terminal
// update, then every link in node order (computed here from the solved
// state). Links grow and shrink (many overflow, also across the middle
// row). Infinite terminals are the small refills' test's.
TEST_F(MaxFlow, LargeRefillMatchesThePlainOrderBitForBit) {
  std::mt19937 rng(33);
  const int w = 160, h = 120, n = w * h;
  GridGraph first = randomGrid(rng, w, h, false);
  std::vector<float> links(4 * n), source = first.src, sink = first.snk;
  for (int i = 0; i < 4 * n; ++i) links[i] = first.e[i].absent ? kAbsentArc : first.e[i].cap;
  ZIRKSEGraph g(n, 8 * n, w, h, 0);
  ZIRK_fillGrid(&g, source.data(), sink.data(), links.data(), true);
  ZIRK_solveGridInParts(&g, 2);

  std::uniform_real_distribution<float> u(0.5f, 1.5f);
  for (float& c : links) c = c == kAbsentArc ? c : c * (u(rng) < 1.0f ? 0.2f : 1.5f);
  for (int p = 0; p < n; ++p) source[p] *= u(rng), sink[p] *= u(rng);
  // The plain order, on copies of the solved state.
  std::vector<float> residual(n), arcs(g.m_arcs, g.m_arcs + 8 * n);
  for (int p = 0; p < n; ++p) residual[p] = g.m_nodes[p].tr_cap + (source[p] - sink[p] - g.m_fillNet[p]);
  int overflows = 0;
  for (int i = 0; i < 4 * n; ++i) {
    const int p = i / 4, a = 8 * p + 2 * (i % 4);
    if (arcs[a] == kAbsentArc) continue;
    const float c = links[i], f = 0.5f * (arcs[a + 1] - arcs[a]), over = std::fabs(f) - c;
    if (over <= 0.0f) {
      arcs[a] = c - f, arcs[a + 1] = c + f;
      continue;
    }
    ++overflows;
    arcs[a] = f > 0.0f ? 0.0f : 2.0f * c;
    arcs[a + 1] = f > 0.0f ? 2.0f * c : 0.0f;
    residual[p] += f > 0.0f ? over : -over;
    residual[slotNeighbour(w, p, i % 4)] -= f > 0.0f ? over : -over;
  }
  ASSERT_GT(overflows, n / 4);

  ZIRK_fillGrid(&g, source.data(), sink.data(), links.data(), true);
  ASSERT_TRUE(g.m_warmFill);
  ASSERT_EQ(std::memcmp(g.m_arcs, arcs.data(), sizeof(float) * 8 * n), 0);
  for (int p = 0; p < n; ++p) {
    ASSERT_EQ(std::memcmp(&g.m_nodes[p].tr_cap, &residual[p], sizeof(float)), 0) << "node " << p;
    ASSERT_EQ(g.m_fillNet[p], source[p] - sink[p]) << p;
  }
}

}  // namespace
