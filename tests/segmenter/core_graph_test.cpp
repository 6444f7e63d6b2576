// Graph construction: terminal and neighbour capacities read back from the
// graph's node and arc arrays, against values computed here from the colour
// models, the stored neighbour weights and the contrast formula.
#include <cmath>
#include <random>
#include <vector>

#include "support.h"
#include "support/ZIRKMemory.h"

namespace {

using segtest::at;

constexpr int kDx[4] = {-1, -1, 0, 1};
constexpr int kDy[4] = {0, -1, -1, -1};

float arc(const ZIRKSEGraph* g, int node, int slot, int dir) { return g->m_arcs[8 * node + 2 * slot + dir]; }

class CoreGraph : public segtest::SegmenterTest {
 protected:
  void SetUp() override { makeModels(); }
  void makeModels() {
    makeModel(hybrid->m_fgModel, 70.0, 300.0);
    makeModel(hybrid->m_bgModel, 160.0, 500.0);
  }
  // A five-component model around `centre`, ready to be queried.
  static void makeModel(ZIRKSEColorModel& m, double centre, double spread) {
    for (int k = 0; k < 5; ++k) {
      m.m_weight[k] = 0.1 + 0.05 * k;
      for (int c = 0; c < 3; ++c) m.m_mean[k][c] = centre + 12.0 * (k - 2) + 5.0 * c;
      for (int i = 0; i < 9; ++i) m.m_covariance[k][i] = (i % 4 == 0) ? spread * (1 + 0.2 * k) : 0.3 * spread;
    }
    m.setDeterminant();
    m.setInverseCovariance();
  }
  // -log of the background and object densities of one feature vector.
  std::pair<float, float> terminals(const pixelVal& p) {
    return {static_cast<float>(-std::log(hybrid->m_bgModel.GMMProb(p))),
            static_cast<float>(-std::log(hybrid->m_fgModel.GMMProb(p)))};
  }
  // Both directions of slot k of node p: want, or absent (-2).
  static void expectArc(const ZIRKSEGraph* g, int p, int k, bool present, double want) {
    for (int dir = 0; dir < 2; ++dir) {
      if (!present) ASSERT_EQ(arc(g, p, k, dir), -2.0f) << p << " slot " << k;
      else ASSERT_NEAR(arc(g, p, k, dir), want, 2e-5 * want + 1e-6) << p << " slot " << k;
    }
  }
};

// Box graphs over random weights, crops and labels: colour and grey (features
// are intensity and the texture maps at the pixel's place in the whole image),
// and a box one pixel wide.
TEST_F(CoreGraph, BoxGraphTakesModelsAndStoredWeights) {
  struct Case {
    int imageW, imageH, x0, y0, w, h;
    bool grey;
  } cases[] = {{23, 17, 4, 3, 12, 9, false}, {15, 12, 2, 5, 10, 6, true}, {4, 8, 3, 1, 1, 6, false}};
  std::mt19937 rng(11);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.w);
    hybrid = std::make_unique<ZIRKSEHybrid>();
    makeModels();
    hybrid->m_width = c.imageW;
    hybrid->m_height = c.imageH;
    const int cells = 4 * c.imageW * c.imageH;
    hybrid->m_nlinks = static_cast<float*>(ZIRK_Malloc_Msg(sizeof(float) * cells, "test", 1));
    std::uniform_real_distribution<float> weight(0.0f, 1.0f);
    for (int i = 0; i < cells; ++i) hybrid->m_nlinks[i] = weight(rng);
    setBox(c.x0, c.y0, c.w, c.h);
    hybrid->m_cropSrcImage = segtest::randomImage(c.w, c.h, 3, rng);
    hybrid->m_cropLabelImage = segtest::randomImage(c.w, c.h, 1, rng, 0, 4);
    ZIRKSEMarker::m_isGreyScale = c.grey;
    ZIRK_ReleaseImage(&ZIRKSEMarker::m_texHor);
    ZIRK_ReleaseImage(&ZIRKSEMarker::m_texVer);
    ZIRKSEMarker::m_texHor = segtest::randomImage(c.imageW, c.imageH, 1, rng);
    ZIRKSEMarker::m_texVer = segtest::randomImage(c.imageW, c.imageH, 1, rng);
    hybrid->m_lamda = 13.513;
    hybrid->graphSpaceAllocator();
    for (int fill = 0; fill < 2; ++fill) {  // a second fill of the same graph starts from scratch
      hybrid->constructGraphZIRK();
      const ZIRKSEGraph* g = hybrid->m_graph;
      ASSERT_EQ(g->m_nodeCount, c.w * c.h);
      EXPECT_EQ(g->m_arcCount, 8 * c.w * c.h);
      double flow = 0.0;
      for (int y = 0; y < c.h; ++y)
        for (int x = 0; x < c.w; ++x) {
          const int p = y * c.w + x, X = x + c.x0, Y = y + c.y0;
          const uint8_t* colour = &at(hybrid->m_cropSrcImage, x, y);
          const double b = colour[0], f1 = c.grey ? at(ZIRKSEMarker::m_texHor, X, Y) : colour[1],
                       f2 = c.grey ? at(ZIRKSEMarker::m_texVer, X, Y) : colour[2];
          auto t = terminals(pixelVal{b, f1, f2});
          const uint8_t label = at(hybrid->m_cropLabelImage, x, y);
          if (label == 1) t = {0.0f, 1000.0f};
          if (label == 2) t = {1000.0f, 0.0f};
          ASSERT_FLOAT_EQ(g->m_nodes[p].tr_cap, t.first - t.second) << x << "," << y;
          flow += std::min(t.first, t.second);
          for (int k = 0; k < 4; ++k) {
            const int qx = x + kDx[k], qy = y + kDy[k];
            expectArc(g, p, k, qx >= 0 && qy >= 0 && qx < c.w,
                      13.513 * hybrid->m_nlinks[(Y * c.imageW + X) * 4 + k]);
          }
        }
      EXPECT_NEAR(g->m_flow, flow, 1e-4 * flow);
    }
  }
}

// The refinement band's graph: trimap 1/2 fixed, 7 outside the band with no
// links at all, horizontal links lamda, the others lamda times the contrast
// (diagonals by 1/sqrt 2); grey mode takes the feature images.
TEST_F(CoreGraph, TrimapGraphFollowsTrimapAndContrast) {
  std::mt19937 rng(17);
  for (const bool grey : {false, true}) {
    const int w = grey ? 1 : 11, h = grey ? 7 : 8;
    IplImage* colour = segtest::randomImage(w, h, 3, rng, 60, 180);
    IplImage* trimap = segtest::filledImage(w, h, 1, 0);
    IplImage* fa = segtest::randomImage(w, h, 1, rng);
    IplImage* fb = segtest::randomImage(w, h, 1, rng);
    const int values[6] = {0, 0, 1, 2, 7, 0};
    for (int i = 0; i < w * h; ++i) at(trimap, i % w, i / w) = static_cast<uint8_t>(values[rng() % 6]);
    hybrid->m_boundWidthTrimap = w;
    hybrid->m_boundHeightTrimap = h;
    hybrid->m_beta = 0.0007;
    hybrid->m_lamda = 50.0;
    ZIRKSEMarker::m_isGreyScale = grey;
    ASSERT_EQ(hybrid->constructGraphTrimapZIRK(colour, nullptr, trimap, fa, fb), 0);
    ZIRKSEGraph* g = hybrid->m_trimapGraph;
    ASSERT_EQ(g->m_nodeCount, w * h);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int p = y * w + x;
        const uint8_t label = at(trimap, x, y);
        const uint8_t* c = &at(colour, x, y);
        const auto t = terminals(grey ? pixelVal{double(c[0]), double(at(fa, x, y)), double(at(fb, x, y))}
                                      : pixelVal{double(c[0]), double(c[1]), double(c[2])});
        float terminal = t.first - t.second;
        if (label == 1) terminal = -1000.0f;
        if (label == 2) terminal = 1000.0f;
        if (label == 7) terminal = 0.0f;
        ASSERT_FLOAT_EQ(g->m_nodes[p].tr_cap, terminal) << x << "," << y;
        for (int k = 0; k < 4; ++k) {
          const int qx = x + kDx[k], qy = y + kDy[k];
          const bool present = label != 7 && qx >= 0 && qy >= 0 && qx < w && at(trimap, qx, qy) != 7;
          double want = 50.0;
          if (present && k > 0) {
            int s = 0;
            for (int ch = 0; ch < 3; ++ch) {
              const int d = c[ch] - at(colour, qx, qy, ch);
              s += d * d;
            }
            want *= std::exp(-0.0007 * s) * (k % 2 ? 1 / std::sqrt(2.0) : 1.0);
          }
          expectArc(g, p, k, present, want);
        }
      }
    // Pixels outside the band are linked to nothing: they stay free.
    g->maxFlow();
    for (int p = 0; p < w * h; ++p)
      if (at(trimap, p % w, p / w) == 7) { EXPECT_EQ(g->m_nodes[p].tree, FREE) << p; }
    for (IplImage* img : {colour, trimap, fa, fb}) cvReleaseImage(&img);
  }
}

}  // namespace
