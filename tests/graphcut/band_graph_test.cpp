// The refinement band's graph against a plain max-flow over the band's whole
// rectangle (the band cut without leaving anything out): the unknown pixels
// must fall on the same side, with every band pixel linked or the fixed ones
// merged into their terminals.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <algorithm>
#include <memory>
#include <random>

#include "engine/ZIRKSEMarker.h"
#include "graphcut/BandGraph.h"
#include "graphcut/GridGraphTestUtil.h"

namespace {

using gridtest::GridGraph;
using gridtest::Slot;

// A one-component model around `level` in every channel.
void singleColour(ZIRKSEColorModel* m, double level) {
  m->m_weight[0] = 1.0;  // the others stay 0
  for (int c = 0; c < 3; ++c) m->m_mean[0][c] = level;
  for (int i = 0; i < 9; ++i) m->m_covariance[0][i] = i % 4 == 0 ? 900.0 : 0.0;
  m->setDeterminant();
  m->setInverseCovariance();
}

// A working-size trimap around a random blob: 7 far away, 1 outer ring,
// 0 unknown ring, 2 inner ring, 7 deep inside.
cv::Mat randomTrimap(std::mt19937& rng, int w, int h) {
  cv::Mat blob = cv::Mat::zeros(h, w, CV_8U);
  std::uniform_int_distribution<int> x(w / 4, 3 * w / 4), y(h / 4, 3 * h / 4), r(2, std::min(w, h) / 4);
  for (int i = 0; i < 3; ++i) cv::circle(blob, cv::Point(x(rng), y(rng)), r(rng), cv::Scalar(1), cv::FILLED);
  cv::Mat count = cv::Mat::zeros(h, w, CV_8U), m;
  const cv::Mat k = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3));
  cv::dilate(blob, m, k, cv::Point(-1, -1), 3), count += m;
  cv::dilate(blob, m, k, cv::Point(-1, -1), 1), count += m;
  cv::erode(blob, m, k, cv::Point(-1, -1), 1), count += m;
  cv::erode(blob, m, k, cv::Point(-1, -1), 3), count += m;
  const uint8_t remap[5] = {7, 1, 0, 2, 7};
  for (uint8_t& v : cv::Mat_<uint8_t>(count)) v = remap[v];
  return count;
}

// A random working-size trimap, its nearest-neighbour index maps from the
// full size and a smooth random full-size colour image.
struct Band {
  Band(std::mt19937& rng, int w, int h, int fullW, int fullH)
      : trimap(randomTrimap(rng, w, h)), xmap(fullW), ymap(fullH) {
    for (int i = 0; i < fullW; ++i) xmap[i] = i * w / fullW;
    for (int i = 0; i < fullH; ++i) ymap[i] = i * h / fullH;
    cv::Mat noise(fullH, fullW, CV_8UC3);
    cv::randu(noise, 0, 256);
    cv::GaussianBlur(noise, colour, cv::Size(5, 5), 0);
    // Grey mode's two texture maps, at working size and unlike each other.
    texA.create(h, w, CV_8U), texB.create(h, w, CV_8U);
    cv::randu(texA, 0, 128), cv::randu(texB, 128, 256);
  }
  cv::Mat trimap, colour, texA, texB;
  std::vector<int32_t> xmap, ymap;
  // 7 beyond the image, like the band graph's own ring there.
  uint8_t label(int x, int y) const {
    if (x < 0 || y < 0 || x >= colour.cols || y >= colour.rows) return 7;
    return trimap.at<uint8_t>(ymap[y], xmap[x]);
  }
};

// The band's rectangle as a plain grid graph with the same capacities.
GridGraph wholeRectangle(const Band& b, const TrimapLinks& links, bool grey) {
  GridGraph s(b.colour.cols, b.colour.rows);
  for (int y = 0; y < s.h; ++y) {
    for (int x = 0; x < s.w; ++x) {
      const int p = y * s.w + x;
      const uint8_t l = b.label(x, y), *pc = b.colour.ptr<uint8_t>(y, x);
      const uint8_t fa = grey ? b.texA.at<uint8_t>(b.ymap[y], b.xmap[x]) : 0;
      const uint8_t fb = grey ? b.texB.at<uint8_t>(b.ymap[y], b.xmap[x]) : 0;
      links.terminal(l, pc, fa, fb, &s.src[p], &s.snk[p]);
      for (int k = 0; k < 4; ++k) {
        const int q = gridtest::slotNeighbour(s.w, p, k);
        if (q < 0 || l == 7 || b.label(q % s.w, q / s.w) == 7) continue;
        const uint8_t* qc = b.colour.ptr<uint8_t>(q / s.w, q % s.w);
        const float cap = k == 0 ? links.horizontal() : k == 2 ? links.vertical(pc, qc) : links.diagonal(pc, qc);
        s.e[4 * p + k] = Slot{cap, cap, false};
      }
    }
  }
  return s;
}

class BandGraphTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZIRKSEMarker::m_exitApp = false;
    singleColour(&fg, 170.0);
    singleColour(&bg, 90.0);
    for (int i = 0; i < 256; ++i) table[i] = expf(-static_cast<float>(i * i * 0.002));
  }
  ZIRKSEColorModel fg, bg;
  float table[256];
};

// Colour and grey features. Capacities computed on several threads are the
// serial build's numbers;
// the nodes are the linked pixels and a one-pixel ring; the cut, solved serially or
// in parts, is the canonical one or, where float rounding decided a tie, one
// of the same capacity.
TEST_F(BandGraphTest, UnknownPixelsTakeTheSideOfTheWholeRectanglesMinimumCut) {
  std::mt19937 rng(11);
  const int parts[] = {1, 2, 3, 4, 7};
  for (int trial = 0; trial < 12; ++trial) {
    const int w = 16 + trial, h = 12 + trial / 2;
    const Band b(rng, w, h, w * 3 + trial % 3, h * 3 - trial % 2);
    const bool grey = trial % 3 == 2;  // grey features: the grey byte and the two texture maps
    const TrimapLinks links(&fg, &bg, table, trial % 2 ? 50.0 : 8.0, grey);
    const GridGraph rect = wholeRectangle(b, links, grey);
    const gridtest::OracleResult oracle = gridtest::solveWithOracle(rect);
    for (bool merged : {false, true}) {
      SCOPED_TRACE(testing::Message() << "trial " << trial << (merged ? ", fixed pixels merged" : ""));
      IplImage header = cvIplImage(b.trimap), colour = cvIplImage(b.colour);
      IplImage ta = cvIplImage(b.texA), tb = cvIplImage(b.texB);
      const IplImage* texA = grey ? &ta : nullptr;
      const IplImage* texB = grey ? &tb : nullptr;
      BandGraph band(&header, b.xmap, b.ymap, merged);
      std::unique_ptr<ZIRKSEGraph> g(band.build(&colour, texA, texB, links, 1 + trial % 4));
      std::unique_ptr<ZIRKSEGraph> serial(band.build(&colour, texA, texB, links, 1));
      ASSERT_TRUE(g != nullptr && serial != nullptr);
      const int32_t n = band.nodeCount();
      for (int32_t p = 0; p < n; ++p) ASSERT_EQ(g->m_nodes[p].tr_cap, serial->m_nodes[p].tr_cap) << p;
      ASSERT_TRUE(std::equal(serial->m_arcs, serial->m_arcs + 8 * n, g->m_arcs));
      band.solve(g.get(), parts[trial % 5]);
      // Sides after the cut: fixed pixels on their own, unlinked ones with the source.
      const cv::Size size = b.colour.size();
      cv::Mat linked(size, CV_8U), ring, node = cv::Mat::zeros(size, CV_8U);
      std::vector<bool> sides(b.colour.total());
      for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
          linked.at<uint8_t>(y, x) = merged ? b.label(x, y) == 0 : b.label(x, y) != 7;
          sides[y * size.width + x] = b.label(x, y) == 1;
        }
        band.forEachNodeInRow(y, [&](int x, int, int32_t i) {
          if (x < 0 || x >= size.width) return;
          node.at<uint8_t>(y, x) = 1;
          if (b.label(x, y) == 0) sides[y * size.width + x] = g->getTreeofNode(i) == 1;
        });
      }
      cv::dilate(linked, ring, cv::Mat());
      ASSERT_EQ(cv::countNonZero(ring != node), 0);
      int differ = 0;
      for (size_t i = 0; i < sides.size(); ++i) differ += sides[i] != oracle.sinkSide[i];
      EXPECT_LE(differ, static_cast<int>(b.colour.total() / 200));
      if (differ > 0) {
        EXPECT_NEAR(gridtest::cutCapacity(rect, sides), oracle.flow, 1e-5 * oracle.flow);
      }
    }
  }
}

}  // namespace
