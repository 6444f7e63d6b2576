// The grid graph and its serial max-flow against a plain max-flow oracle,
// plus the small cases whose outcome is a deliberate choice.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "common/LogCapture.h"
#include "engine/ZIRKSEMarker.h"
#include "graphcut/GridGraphTestUtil.h"
#include "graphcut/ZIRKSEGraph.h"
#include "support/ZIRKTimer.h"

using namespace gridtest;

namespace {

class SerialMaxFlow : public ::testing::Test {
 protected:
  void TearDown() override {
    ZIRKSEMarker::m_exitApp = false;
    destroy_timer(g_cancelTimer);
    g_cancelTimer = nullptr;
  }
};

// Grid sizes from 1x1 and single rows/columns up to 40x30.
std::vector<std::pair<int, int>> gridSizes(std::mt19937& rng, int count) {
  std::vector<std::pair<int, int>> sizes = {{1, 1}, {1, 2}, {2, 1}, {1, 17}, {23, 1}, {2, 2}, {40, 30}};
  std::uniform_int_distribution<int> wd(1, 40), hd(1, 30);
  while (static_cast<int>(sizes.size()) < count) sizes.push_back({wd(rng), hd(rng)});
  return sizes;
}

TEST_F(SerialMaxFlow, RandomRealCapacitiesGiveTheOracleFlowAndAMinimumCut) {
  std::mt19937 rng(1234);
  for (const auto& [w, h] : gridSizes(rng, 200)) {
    const GridSpec s = randomSpec(rng, w, h, false);
    ZIRKSEGraph g(w * h, 8 * w * h, w, h, 0);
    fill(g, s);
    const float flow = g.maxFlow();
    const OracleResult oracle = solveWithOracle(s);
    const double tol = 1e-5 * (1.0 + oracle.flow);
    ASSERT_NEAR(flow, oracle.flow, tol) << w << "x" << h;
    ASSERT_NEAR(cutCapacity(s, sinkSideOf(g, w * h)), oracle.flow, tol) << w << "x" << h;
    ASSERT_EQ(checkTrees(g), "") << w << "x" << h;
    ASSERT_EQ(g.m_activeFirst, nullptr);
    ASSERT_EQ(g.m_orphanFirst, nullptr);
  }
}

// With small integer capacities every sum is exact, so the cut itself can be
// compared: the sink side is the set of nodes that can still reach the sink.
TEST_F(SerialMaxFlow, IntegerCapacitiesGiveExactlyTheSmallestSinkSide) {
  std::mt19937 rng(99);
  for (const auto& [w, h] : gridSizes(rng, 200)) {
    const GridSpec s = randomSpec(rng, w, h, true);
    ZIRKSEGraph g(w * h, 8 * w * h, w, h, 0);
    fill(g, s);
    const float flow = g.maxFlow();
    const OracleResult oracle = solveWithOracle(s);
    ASSERT_EQ(flow, static_cast<float>(oracle.flow)) << w << "x" << h;
    ASSERT_EQ(sinkSideOf(g, w * h), oracle.sinkSide) << w << "x" << h;
    ASSERT_EQ(checkTrees(g), "");
  }
}

TEST_F(SerialMaxFlow, TerminalWeightsCountTheSmallerSideAsFlowAtOnce) {
  ZIRKSEGraph g(1, 8, 1, 1, 0);
  g.addNode(1);
  g.addtWeights(0, 5.0f, 3.0f);
  EXPECT_EQ(g.m_flow, 3.0f);
  EXPECT_EQ(g.m_nodes[0].tr_cap, 2.0f);
  g.addtWeights(0, 0.0f, 4.0f);
  EXPECT_EQ(g.m_flow, 5.0f);
  EXPECT_EQ(g.m_nodes[0].tr_cap, -2.0f);
  for (int k = 0; k < 4; ++k) g.addEdge(0, -1, 0.0f, 0.0f, true);
  // A 1x1 grid has no neighbour: the pre-flow is the whole answer.
  EXPECT_EQ(g.maxFlow(), 5.0f);
  EXPECT_EQ(g.getTreeofNode(0), 1);
}

TEST_F(SerialMaxFlow, NodeWithoutTerminalCapacityStartsFreeAndStaysOutOfTheQueue) {
  ZIRKSEGraph g(3, 24, 3, 1, 0);
  g.addNode(3);
  g.addtWeights(0, 4.0f, 0.0f);
  g.addtWeights(1, 2.0f, 2.0f);  // both sides equal: zero left, free
  g.addtWeights(2, 0.0f, 4.0f);
  for (int p = 0; p < 3; ++p) {
    for (int k = 0; k < 4; ++k) g.addEdge(p, -1, 0.0f, 0.0f, true);  // no edges at all
  }
  g.maxflowInit();
  EXPECT_EQ(g.m_nodes[1].tree, FREE);
  EXPECT_EQ(g.m_nodes[1].next, nullptr);
  EXPECT_EQ(g.m_activeFirst, &g.m_nodes[0]);
  EXPECT_EQ(g.m_activeLast, &g.m_nodes[2]);
  EXPECT_EQ(g.maxFlowSerialCall(), 2.0f);
  EXPECT_EQ(g.m_nodes[1].tree, FREE);
  EXPECT_EQ(g.getTreeofNode(1), 0);  // free nodes count as object
}

// An orphan with two candidate parents at the same distance from the source
// takes the one earlier in the order left, up-left, up, up-right, right,
// down-right, down, down-left.
TEST_F(SerialMaxFlow, OrphanAdoptsTheFirstOfEquallyShortCandidates) {
  // 0 1 2
  // 3 4 5    path 0 -> 1 -> 4 saturates 0's terminal link and 0->1;
  //          1 may then hang from 2 (right) or 3 (down-left).
  GridSpec s;
  s.w = 3;
  s.h = 2;
  s.src1 = {1, 0, 10, 10, 0, 0};
  s.snk1 = {0, 0, 0, 0, 10, 0};
  s.src2 = s.snk2 = std::vector<float>(6, 0.0f);
  s.twoCalls.assign(6, false);
  s.cap.assign(24, 0.0f);
  s.rev.assign(24, 0.0f);
  s.absent.assign(24, true);
  auto edge = [&](int p, int k, float toNeighbour, float fromNeighbour) {
    s.absent[4 * p + k] = false;
    s.cap[4 * p + k] = toNeighbour;
    s.rev[4 * p + k] = fromNeighbour;
  };
  edge(1, 0, 0.0f, 1.0f);  // 0 -> 1
  edge(2, 0, 5.0f, 0.0f);  // 2 -> 1
  edge(3, 3, 5.0f, 0.0f);  // 3 -> 1
  edge(4, 2, 0.0f, 1.0f);  // 1 -> 4
  ZIRKSEGraph g(6, 48, 3, 2, 0);
  fill(g, s);
  EXPECT_EQ(g.maxFlow(), 1.0f);
  EXPECT_EQ(g.m_nodes[1].tree, SOURCE);
  EXPECT_EQ(g.m_nodes[1].parent, 8 * 2 + 1) << "the arc from 1 to its right neighbour";
  EXPECT_EQ(solveWithOracle(s).flow, 1.0);
  EXPECT_EQ(checkTrees(g), "");
}

TEST_F(SerialMaxFlow, AddToEdgeChangesOnlyAnExistingArcToANeighbour) {
  std::mt19937 rng(5);
  GridSpec s = randomSpec(rng, 3, 3, true);
  s.absent[4 * 8 + 1] = true;  // 8 -> 4 (up-left of 8) absent
  s.absent[4 * 4 + 1] = false;  // 4 -> 0 present
  ZIRKSEGraph g(9, 72, 3, 3, 0);
  fill(g, s);
  const std::vector<float> before(g.m_arcs, g.m_arcs + 72);

  g.addToEdge(3, 2, 1.0f, 1.0f);  // 2 precedes 3 in memory but is on the row above, far right
  g.addToEdge(0, 8, 1.0f, 1.0f);  // not a neighbour
  g.addToEdge(4, 8, 1.0f, 1.0f);  // neighbour, arc absent
  g.addToEdge(0, 0, 1.0f, 1.0f);
  EXPECT_EQ(std::vector<float>(g.m_arcs, g.m_arcs + 72), before);

  // 0 -> 4 lives in node 4's up-left slots: slot 3 (into 4), its sister slot 2.
  g.addToEdge(0, 4, 1.5f, 2.5f);
  int tail = 0, head = 0;
  arcEnds(3, 8 * 4 + 3, &tail, &head);
  ASSERT_EQ(tail, 0);
  ASSERT_EQ(head, 4);
  EXPECT_EQ(g.m_arcs[8 * 4 + 3], before[8 * 4 + 3] + 1.5f);
  EXPECT_EQ(g.m_arcs[8 * 4 + 2], before[8 * 4 + 2] + 2.5f);
  for (int a = 0; a < 72; ++a) {
    if (a != 8 * 4 + 2 && a != 8 * 4 + 3) {
      EXPECT_EQ(g.m_arcs[a], before[a]) << a;
    }
  }
}

TEST_F(SerialMaxFlow, CancelBeforeTheCallReturnsThePreFlow) {
  std::mt19937 rng(8);
  const GridSpec s = randomSpec(rng, 12, 9, false);
  ZIRKSEGraph g(108, 864, 12, 9, 0);
  fill(g, s);
  const float preFlow = g.m_flow;
  ZIRKSEMarker::m_exitApp = true;
  EXPECT_EQ(g.maxFlow(), preFlow);
  EXPECT_TRUE(ZIRKSEMarker::m_exitApp);
  for (int p = 0; p < 108; ++p) {
    EXPECT_EQ(g.m_nodes[p].parent, g.m_nodes[p].tr_cap == 0.0f ? ORPHAN : TERMINAL);
  }
}

// A spent budget ends the solve after the first scanned node and cancels
// the whole segmentation; a budget of 9 s does not.
TEST_F(SerialMaxFlow, SpentBudgetEndsTheSolveAfterOneIterationAndRaisesTheFlag) {
  const int n = 6;
  auto chain = [&](ZIRKSEGraph& g) {
    g.addNode(n);
    g.addtWeights(0, 5.0f, 0.0f);
    g.addtWeights(n - 1, 0.0f, 5.0f);
    for (int p = 0; p < n; ++p) {
      g.addEdge(p, p - 1, 10.0f, 10.0f, p == 0);
      for (int k = 1; k < 4; ++k) g.addEdge(p, -1, 0.0f, 0.0f, true);
    }
  };
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  g_cancelTimer->start.tv_sec -= 9;
  {
    ZIRKSEGraph g(n, 8 * n, n, 1, 0);
    chain(g);
    EXPECT_EQ(g.maxFlow(), 5.0f);
    EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
  }
  g_cancelTimer->start.tv_sec -= 2;
  ZIRKSEGraph g(n, 8 * n, n, 1, 0);
  chain(g);
  EXPECT_EQ(g.maxFlow(), 0.0f);
  EXPECT_TRUE(ZIRKSEMarker::m_exitApp);
  // Node 0 was scanned and grew into node 1; nothing further happened.
  EXPECT_EQ(g.m_nodes[1].tree, SOURCE);
  EXPECT_EQ(g.m_nodes[2].tree, FREE);
  EXPECT_EQ(g.m_activeFirst, &g.m_nodes[n - 1]);
  EXPECT_EQ(g.m_activeLast, &g.m_nodes[1]);
  EXPECT_EQ(checkTrees(g), "");
}

TEST_F(SerialMaxFlow, CapacityIsCheckedWhenNodesAndEdgesAreAdded) {
  LogCapture log;
  ZIRKSEGraph g(4, 4, 4, 4, 0);  // room for 16 nodes and 32 arc floats
  g.addNode(17);
  EXPECT_EQ(g.m_nodeCount, 0);
  g.addNode(16);
  g.addNode(1);
  EXPECT_EQ(g.m_nodeCount, 16);
  for (int i = 0; i < 17; ++i) g.addEdge(0, 1, 1.0f, 1.0f, false);
  EXPECT_EQ(g.m_arcCount, 32);
  EXPECT_EQ(log.countPrefix("Error", "ZIRKSEGraph::addNode"), 2) << log.dump();
  EXPECT_EQ(log.countPrefix("Error", "ZIRKSEGraph::addEdge"), 1) << log.dump();
  g.addtWeights(16, 1.0f, 0.0f);
  EXPECT_EQ(g.getTreeofNode(-1), 0);
  EXPECT_EQ(log.countPrefix("Error", "ZIRKSEGraph::addtWeights"), 1);
  EXPECT_EQ(log.countPrefix("Error", "ZIRKSEGraph::getTreeofNode"), 1);

  // The whole grid needs 8 arc floats a node: a 4x4 grid does not fit in 32.
  g.addtWeights(0, 3.0f, 1.0f);
  EXPECT_EQ(g.maxFlow(), 1.0f);
  EXPECT_EQ(log.countPrefix("Error", "ZIRKSEGraph::maxFlow"), 1) << log.dump();
}

// Arc slots never written count as absent arcs, nodes never added as free.
TEST_F(SerialMaxFlow, PartlyFilledGraphSolvesAsIfTheMissingArcsWereAbsent) {
  std::mt19937 rng(77);
  GridSpec s = randomSpec(rng, 7, 5, true);
  ZIRKSEGraph g(35, 280, 7, 5, 0);
  g.addNode(35);
  for (int p = 0; p < 35; ++p) g.addtWeights(p, s.source(p), s.sink(p));
  for (int p = 0; p < 20; ++p) {
    for (int k = 0; k < 4; ++k) g.addEdge(p, -1, s.cap[4 * p + k], s.rev[4 * p + k], s.absent[4 * p + k]);
  }
  for (int i = 4 * 20; i < 4 * 35; ++i) s.absent[i] = true;
  const OracleResult oracle = solveWithOracle(s);
  EXPECT_EQ(g.maxFlow(), static_cast<float>(oracle.flow));
  EXPECT_EQ(sinkSideOf(g, 35), oracle.sinkSide);

  // 30 of 35 nodes, every edge written: the last five are cut off, and the
  // arcs written for them are not used.
  GridSpec t = randomSpec(rng, 7, 5, true);
  ZIRKSEGraph h(35, 280, 7, 5, 0);
  h.addNode(30);
  for (int p = 0; p < 30; ++p) h.addtWeights(p, t.source(p), t.sink(p));
  for (int p = 0; p < 35; ++p) {
    for (int k = 0; k < 4; ++k) h.addEdge(p, -1, t.cap[4 * p + k], t.rev[4 * p + k], t.absent[4 * p + k]);
  }
  for (int p = 30; p < 35; ++p) {
    t.src1[p] = t.snk1[p] = 0.0f;
    t.twoCalls[p] = false;
    for (int k = 0; k < 4; ++k) {
      t.absent[4 * p + k] = true;
      for (int q = 0; q < 35; ++q) {
        if (slotNeighbour(7, 5, q, k) == p) t.absent[4 * q + k] = true;
      }
    }
  }
  const OracleResult cut = solveWithOracle(t);
  EXPECT_EQ(h.maxFlow(), static_cast<float>(cut.flow));
  EXPECT_EQ(sinkSideOf(h, 30), std::vector<bool>(cut.sinkSide.begin(), cut.sinkSide.begin() + 30));
}

TEST_F(SerialMaxFlow, ResetGraphCanBeFilledAndSolvedAgain) {
  std::mt19937 rng(3);
  ZIRKSEGraph g(300, 2400, 20, 15, 0);
  for (int round = 0; round < 3; ++round) {
    const GridSpec s = randomSpec(rng, 20, 15, true);
    fill(g, s);
    const OracleResult oracle = solveWithOracle(s);
    EXPECT_EQ(g.maxFlow(), static_cast<float>(oracle.flow));
    EXPECT_EQ(sinkSideOf(g, 300), oracle.sinkSide);
    g.resetNew();
    EXPECT_EQ(g.m_nodeCount, 300);
    EXPECT_EQ(g.m_flow, 0.0f);
    EXPECT_EQ(g.m_nodes[299].tree, FREE);
    EXPECT_EQ(g.m_arcs[8 * 299 + 7], 0.0f);
    g.reset();
    EXPECT_EQ(g.m_nodeCount, 0);
    EXPECT_EQ(g.m_arcLast, g.m_arcs);
  }
}

// A block view borrows the arrays: destroying it leaves the graph intact.
TEST_F(SerialMaxFlow, BlockViewSharesArraysAndNeverFreesThem) {
  std::mt19937 rng(21);
  const GridSpec s = randomSpec(rng, 9, 6, true);
  ZIRKSEGraph g(54, 432, 9, 6, 0);
  fill(g, s);
  {
    ZIRKSEGraph view(&g, 0, 0, 9, 6);
    EXPECT_EQ(view.m_nodes, g.m_nodes);
    EXPECT_EQ(view.m_arcs, g.m_arcs);
    EXPECT_FALSE(view.m_ownsArrays);
    // One block over the whole grid solves the same cut (flow counted from 0).
    view.InitBlock();
    EXPECT_EQ(view.maxFlowSerialCall() + g.m_flow, static_cast<float>(solveWithOracle(s).flow));
  }
  EXPECT_EQ(sinkSideOf(g, 54), solveWithOracle(s).sinkSide);
}

}  // namespace
