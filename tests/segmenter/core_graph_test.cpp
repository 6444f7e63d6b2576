// Graph construction: terminal and neighbour capacities read back from the
// graph's node and arc arrays, against values computed here from the colour
// models, the stored neighbour weights and the contrast formula.
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>

#include "common/LogCapture.h"
#include "core_support.h"
#include "support/ZIRKMemory.h"

namespace {

using coretest::at;
using coretest::SegmenterTest;

constexpr int kDx[4] = {-1, -1, 0, 1};
constexpr int kDy[4] = {0, -1, -1, -1};

// A five-component model around `centre`, ready to be queried.
void makeModel(ZIRKSEColorModel& m, double centre, double spread) {
  for (int k = 0; k < 5; ++k) {
    m.m_weight[k] = 0.1 + 0.05 * k;
    for (int c = 0; c < 3; ++c) m.m_mean[k][c] = centre + 12.0 * (k - 2) + 5.0 * c;
    for (int i = 0; i < 9; ++i) m.m_covariance[k][i] = (i % 4 == 0) ? spread * (1 + 0.2 * k) : 0.3 * spread;
  }
  m.setDeterminant();
  m.setInverseCovariance();
}

float arc(const ZIRKSEGraph* g, int node, int slot, int dir) { return g->m_arcs[8 * node + 2 * slot + dir]; }

class CoreGraphConstruction : public SegmenterTest {
 protected:
  void SetUp() override {
    SegmenterTest::SetUp();
    ZIRKSEMarker::m_noiseLevel = 0.1;
    makeModel(hybrid->m_fgModel, 70.0, 300.0);
    makeModel(hybrid->m_bgModel, 160.0, 500.0);
  }

  // Random weights for a working image of w x h (freed by the segmenter).
  void randomWeights(int w, int h, std::mt19937& rng) {
    hybrid->m_width = w;
    hybrid->m_height = h;
    hybrid->m_nlinks = static_cast<float*>(ZIRK_Malloc_Msg(sizeof(float) * 4 * w * h, "test", 1));
    std::uniform_real_distribution<float> d(0.0f, 1.0f);
    for (int i = 0; i < 4 * w * h; ++i) hybrid->m_nlinks[i] = d(rng);
  }

  // Box crops of random colours and labels drawn from `labels`.
  void randomCrops(int w, int h, std::mt19937& rng, std::vector<int> labels) {
    hybrid->m_cropSrcImage = coretest::randomImage(w, h, 3, rng);
    hybrid->m_cropLabelImage = coretest::filledImage(w, h, 1, 0);
    std::uniform_int_distribution<size_t> pick(0, labels.size() - 1);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) *at(hybrid->m_cropLabelImage, x, y) = static_cast<uint8_t>(labels[pick(rng)]);
  }

  // Every n-link slot of the box graph: lamda times the stored weight of the
  // pixel in whole-image coordinates, or absent without a neighbour.
  void expectBoxNlinks() {
    const ZIRKSEGraph* g = hybrid->m_graph;
    const int w = hybrid->m_cropWidth, h = hybrid->m_cropHeight;
    EXPECT_EQ(g->m_arcCount, 8 * w * h);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int k = 0; k < 4; ++k) {
          const int p = y * w + x;
          const int qx = x + kDx[k], qy = y + kDy[k];
          if (qx < 0 || qy < 0 || qx >= w) {
            ASSERT_EQ(arc(g, p, k, 0), -2.0f) << p << " slot " << k;
            ASSERT_EQ(arc(g, p, k, 1), -2.0f) << p << " slot " << k;
            continue;
          }
          const int X = x + ZIRKSEMarker::m_xMinBBox, Y = y + ZIRKSEMarker::m_yMinBBox;
          const float expected =
              static_cast<float>(hybrid->m_lamda * hybrid->m_nlinks[(Y * hybrid->m_width + X) * 4 + k]);
          ASSERT_FLOAT_EQ(arc(g, p, k, 0), expected) << p << " slot " << k;
          ASSERT_FLOAT_EQ(arc(g, p, k, 1), expected) << p << " slot " << k;
        }
  }
};

TEST_F(CoreGraphConstruction, ColourBoxTakesModelsAndStoredWeights) {
  std::mt19937 rng(11);
  randomWeights(23, 17, rng);
  setBox(4, 3, 12, 9);
  randomCrops(12, 9, rng, {0, 0, 0, 1, 2, 3, 4});
  hybrid->m_lamda = 13.513;
  hybrid->graphSpaceAllocator();
  ASSERT_NE(hybrid->m_graph, nullptr);
  hybrid->constructGraphZIRK();

  const ZIRKSEGraph* g = hybrid->m_graph;
  ASSERT_EQ(g->m_nodeCount, 12 * 9);
  double flow = 0.0;
  int fixedSeen[3] = {0, 0, 0};
  for (int y = 0; y < 9; ++y)
    for (int x = 0; x < 12; ++x) {
      const uint8_t label = *at(hybrid->m_cropLabelImage, x, y);
      const uint8_t* c = at(hybrid->m_cropSrcImage, x, y);
      const pixelVal p{double(c[0]), double(c[1]), double(c[2])};
      float source = static_cast<float>(-std::log(hybrid->m_bgModel.GMMProb(p)));
      float sink = static_cast<float>(-std::log(hybrid->m_fgModel.GMMProb(p)));
      if (label == 1) source = 0.0f, sink = 1000.0f, ++fixedSeen[1];
      if (label == 2) source = 1000.0f, sink = 0.0f, ++fixedSeen[2];
      ASSERT_FLOAT_EQ(g->m_nodes[y * 12 + x].tr_cap, source - sink) << x << "," << y;
      flow += std::min(source, sink);
    }
  EXPECT_GT(fixedSeen[1], 0);
  EXPECT_GT(fixedSeen[2], 0);
  EXPECT_NEAR(g->m_flow, flow, 1e-4 * flow);
  expectBoxNlinks();

  // A second fill of the same graph starts from scratch.
  hybrid->constructGraphZIRK_Whole_Image();
  EXPECT_EQ(hybrid->m_graph->m_nodeCount, 12 * 9);
  EXPECT_NEAR(hybrid->m_graph->m_flow, flow, 1e-4 * flow);
  expectBoxNlinks();
}

TEST_F(CoreGraphConstruction, GreyBoxUsesTextureFeaturesAndTheTieRule) {
  std::mt19937 rng(5);
  randomWeights(15, 12, rng);
  setBox(2, 5, 10, 6);
  randomCrops(10, 6, rng, {0, 3, 4});
  ZIRKSEMarker::m_isGreyScale = true;
  ZIRKSEMarker::m_texHor = coretest::randomImage(15, 12, 1, rng);
  ZIRKSEMarker::m_texVer = coretest::randomImage(15, 12, 1, rng);
  hybrid->graphSpaceAllocator();

  // Distinct models: each pixel is described by (intensity, texture at the
  // pixel's place in the whole image).
  hybrid->constructGraphZIRK_Whole_Image();
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 10; ++x) {
      const pixelVal p{double(at(hybrid->m_cropSrcImage, x, y)[0]),
                       double(*at(ZIRKSEMarker::m_texHor, x + 2, y + 5)),
                       double(*at(ZIRKSEMarker::m_texVer, x + 2, y + 5))};
      const float source = static_cast<float>(-std::log(hybrid->m_bgModel.GMMProb(p)));
      const float sink = static_cast<float>(-std::log(hybrid->m_fgModel.GMMProb(p)));
      ASSERT_FLOAT_EQ(hybrid->m_graph->m_nodes[y * 10 + x].tr_cap, source - sink) << x << "," << y;
    }
  expectBoxNlinks();

  // Identical models cannot tell any pixel apart: no terminal pull is left
  // and everything went into the flow.
  hybrid->m_bgModel = hybrid->m_fgModel;
  hybrid->constructGraphZIRK_Whole_Image();
  double flow = 0.0;
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 10; ++x) {
      const pixelVal p{double(at(hybrid->m_cropSrcImage, x, y)[0]),
                       double(*at(ZIRKSEMarker::m_texHor, x + 2, y + 5)),
                       double(*at(ZIRKSEMarker::m_texVer, x + 2, y + 5))};
      EXPECT_EQ(hybrid->m_graph->m_nodes[y * 10 + x].tr_cap, 0.0f);
      flow += static_cast<float>(-std::log(hybrid->m_fgModel.GMMProb(p)));
    }
  EXPECT_NEAR(hybrid->m_graph->m_flow, flow, 1e-4 * flow);
}

TEST_F(CoreGraphConstruction, WidthOneBoxHasOnlyUpLinks) {
  std::mt19937 rng(9);
  randomWeights(4, 8, rng);
  setBox(3, 1, 1, 6);
  randomCrops(1, 6, rng, {0});
  hybrid->graphSpaceAllocator();
  hybrid->constructGraphZIRK_Whole_Image();
  for (int p = 0; p < 6; ++p)
    for (int k = 0; k < 4; ++k) EXPECT_EQ(arc(hybrid->m_graph, p, k, 0) == -2.0f, k != 2 || p == 0) << p << " " << k;
  expectBoxNlinks();
}

TEST_F(CoreGraphConstruction, MismatchedBoxIsRefused) {
  std::mt19937 rng(1);
  randomWeights(10, 10, rng);
  setBox(5, 5, 8, 4);  // leaves the working image on the right
  randomCrops(8, 4, rng, {0});
  hybrid->graphSpaceAllocator();
  LogCapture log;
  hybrid->constructGraphZIRK_Whole_Image();
  EXPECT_EQ(log.countPrefix("Error", "constructGraphZIRK_Whole_Image"), 1) << log.dump();
  EXPECT_EQ(hybrid->m_graph->m_nodeCount, 0);
  hybrid->graphSpaceDellocator();
  hybrid->constructGraphZIRK_Whole_Image();  // no graph: refused as well
  EXPECT_EQ(log.countPrefix("Error", "constructGraphZIRK_Whole_Image"), 2) << log.dump();
}

class CoreTrimapGraph : public CoreGraphConstruction {
 protected:
  // D(P, Q) * factor against the direct exponential of the colour distance.
  double contrast(IplImage* img, int x0, int y0, int x1, int y1) {
    int s = 0;
    for (int c = 0; c < 3; ++c) {
      const int d = at(img, x0, y0)[c] - at(img, x1, y1)[c];
      s += d * d;
    }
    return std::exp(-hybrid->m_beta * s);
  }
};

TEST_F(CoreTrimapGraph, BandLinksFollowTrimapAndContrast) {
  std::mt19937 rng(17);
  const int w = 11, h = 8;
  IplImage* colour = coretest::randomImage(w, h, 3, rng, 60, 180);
  IplImage* trimap = coretest::filledImage(w, h, 1, 0);
  std::uniform_int_distribution<int> pick(0, 5);
  const int values[6] = {0, 0, 1, 2, 7, 0};
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) *at(trimap, x, y) = static_cast<uint8_t>(values[pick(rng)]);
  hybrid->m_boundWidthTrimap = w;
  hybrid->m_boundHeightTrimap = h;
  hybrid->m_beta = 0.0007;
  hybrid->m_lamda = 50.0;

  ASSERT_EQ(hybrid->constructGraphTrimapZIRK(colour, nullptr, trimap, nullptr, nullptr), 0);
  ZIRKSEGraph* g = hybrid->m_trimapGraph;
  ASSERT_NE(g, nullptr);
  ASSERT_EQ(g->m_nodeCount, w * h);
  int outside = 0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int p = y * w + x;
      const uint8_t label = *at(trimap, x, y);
      const uint8_t* c = at(colour, x, y);
      const pixelVal v{double(c[0]), double(c[1]), double(c[2])};
      float expected = -static_cast<float>(std::log(hybrid->m_bgModel.GMMProb(v))) +
                       static_cast<float>(std::log(hybrid->m_fgModel.GMMProb(v)));
      if (label == 1) expected = -1000.0f;
      if (label == 2) expected = 1000.0f;
      if (label == 7) expected = 0.0f, ++outside;
      ASSERT_FLOAT_EQ(g->m_nodes[p].tr_cap, expected) << x << "," << y;
      for (int k = 0; k < 4; ++k) {
        const int qx = x + kDx[k], qy = y + kDy[k];
        const bool present = label != 7 && qx >= 0 && qy >= 0 && qx < w && *at(trimap, qx, qy) != 7;
        if (!present) {
          ASSERT_EQ(arc(g, p, k, 0), -2.0f) << p << " slot " << k;
          ASSERT_EQ(arc(g, p, k, 1), -2.0f) << p << " slot " << k;
          continue;
        }
        double want = 50.0;  // horizontal links carry no contrast
        if (k == 2) want = 50.0 * contrast(colour, x, y, qx, qy);
        if (k == 1 || k == 3) want = 50.0 * 0.7071067932881648 * contrast(colour, x, y, qx, qy);
        ASSERT_NEAR(arc(g, p, k, 0), want, 2e-5 * want) << p << " slot " << k;
        ASSERT_EQ(arc(g, p, k, 0), arc(g, p, k, 1));
      }
    }
  ASSERT_GT(outside, 0);

  // Pixels outside the band are linked to nothing: they stay free.
  g->maxFlow();
  for (int p = 0; p < w * h; ++p)
    if (*at(trimap, p % w, p / w) == 7) {
      EXPECT_EQ(g->m_nodes[p].tree, FREE) << p;
      EXPECT_EQ(g->getTreeofNode(p), 0) << p;
    }

  // A second call replaces the graph (the first one is released).
  ASSERT_EQ(hybrid->constructGraphTrimapZIRK(colour, nullptr, trimap, nullptr, nullptr), 0);
  EXPECT_EQ(hybrid->m_trimapGraph->m_nodeCount, w * h);
  cvReleaseImage(&colour);
  cvReleaseImage(&trimap);
}

TEST_F(CoreTrimapGraph, GreyBandUsesFeatureImagesAndWidthOneHasOnlyUpLinks) {
  std::mt19937 rng(23);
  const int w = 1, h = 7;
  IplImage* colour = coretest::randomImage(w, h, 3, rng);
  IplImage* trimap = coretest::filledImage(w, h, 1, 0);
  IplImage* fa = coretest::randomImage(w, h, 1, rng);
  IplImage* fb = coretest::randomImage(w, h, 1, rng);
  hybrid->m_boundWidthTrimap = w;
  hybrid->m_boundHeightTrimap = h;
  hybrid->m_beta = 0.001;
  ZIRKSEMarker::m_isGreyScale = true;
  ASSERT_EQ(hybrid->constructGraphTrimapZIRK(colour, nullptr, trimap, fa, fb), 0);
  const ZIRKSEGraph* g = hybrid->m_trimapGraph;
  for (int y = 0; y < h; ++y) {
    const pixelVal v{double(at(colour, 0, y)[0]), double(*at(fa, 0, y)), double(*at(fb, 0, y))};
    const float expected = -static_cast<float>(std::log(hybrid->m_bgModel.GMMProb(v))) +
                           static_cast<float>(std::log(hybrid->m_fgModel.GMMProb(v)));
    EXPECT_FLOAT_EQ(g->m_nodes[y].tr_cap, expected) << y;
    for (int k = 0; k < 4; ++k) EXPECT_EQ(arc(g, y, k, 0) == -2.0f, k != 2 || y == 0) << y << " " << k;
  }
  // Grey mode without feature images is refused.
  LogCapture log;
  EXPECT_EQ(hybrid->constructGraphTrimapZIRK(colour, nullptr, trimap, nullptr, nullptr), 1);
  EXPECT_EQ(log.countPrefix("Error", "constructGraphTrimapZIRK"), 1) << log.dump();
  EXPECT_EQ(hybrid->m_trimapGraph, nullptr);
  for (IplImage* img : {colour, trimap, fa, fb}) cvReleaseImage(&img);
}

}  // namespace
