// A refill that keeps the last solve's flow must give the minimum cut of the
// new capacities: the flow on a link that no longer fits goes back to the
// terminals, terminal capacities move by their change. Checked against the
// plain max-flow oracle on random grids whose capacities rise, fall and
// vanish between two solves, as the segmenter's iterations change them.
#include <gtest/gtest.h>

#include <random>

#include "engine/ZIRKSEMarker.h"
#include "graphcut/GridGraphTestUtil.h"

namespace {

using gridtest::GridGraph;

// Symmetric links (the segmenter's are) and integral capacities, so every
// sum is exact and the cut is determined.
GridGraph symmetric(GridGraph s) {
  for (gridtest::Slot& e : s.e) e.rev = e.cap;
  return s;
}

void fillFrom(ZIRKSEGraph* g, const GridGraph& s, bool keepFlow, bool sameTerminals = false) {
  std::vector<float> links(4 * s.nodes());
  for (int i = 0; i < 4 * s.nodes(); ++i) links[i] = s.e[i].absent ? kAbsentArc : s.e[i].cap;
  ZIRK_fillGrid(g, sameTerminals ? nullptr : s.src.data(), sameTerminals ? nullptr : s.snk.data(),
                links.data(), keepFlow);
}

TEST(Refill, KeptFlowGivesTheMinimumCutOfTheNewCapacities) {
  ZIRKSEMarker::m_exitApp = false;
  std::mt19937 rng(21);
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 2 + trial % 9, h = 1 + trial % 7;
    const GridGraph first = symmetric(gridtest::randomGrid(rng, w, h, true));
    GridGraph second = first;
    std::uniform_int_distribution<int> pick(0, 3);
    const bool sameTerminals = trial % 4 == 3;
    for (int p = 0; p < first.nodes(); ++p) {
      if (!sameTerminals && pick(rng) == 0) std::swap(second.src[p], second.snk[p]);
      for (int k = 0; k < 4; ++k) {
        gridtest::Slot& e = second.e[4 * p + k];
        if (e.absent) continue;
        // Links fall to nothing, shrink, stay or grow.
        const float scale[4] = {0.0f, 0.5f, 1.0f, 3.0f};
        e.cap = e.rev = std::floor(e.cap * scale[pick(rng)]);
      }
    }
    ZIRKSEGraph g(first.nodes(), 8 * first.nodes(), w, h, 0);
    fillFrom(&g, first, true);
    g.maxFlow();
    fillFrom(&g, second, true, sameTerminals);
    g.maxFlow();
    const gridtest::OracleResult oracle = gridtest::solveWithOracle(second);
    EXPECT_EQ(gridtest::sinkSideOf(g, second.nodes()), oracle.sinkSide) << "trial " << trial;
    EXPECT_EQ(gridtest::checkTrees(g), "") << "trial " << trial;

    // A fresh fill of the same capacities agrees.
    ZIRKSEGraph fresh(first.nodes(), 8 * first.nodes(), w, h, 0);
    fillFrom(&fresh, second, false);
    fresh.maxFlow();
    EXPECT_EQ(gridtest::sinkSideOf(fresh, second.nodes()), oracle.sinkSide) << "trial " << trial;
  }
}

}  // namespace
