// Neighbour weights against exp(-beta |p - q|^2) evaluated directly, the
// graphs' node and arc arrays against capacities computed here.
#include <cmath>
#include <string>

#include "support.h"
#include "support/ZIRKMemory.h"

namespace {

using namespace segtest;

// Slot k of pixel (x, y) joins it to (x + kDx[k], y + kDy[k]); odd slots are diagonal.
constexpr int kDx[4] = {-1, -1, 0, 1};
constexpr int kDy[4] = {0, -1, -1, -1};
const double kDiagonal = 1 / std::sqrt(2.0);

int64_t squaredDistance(IplImage* img, int x0, int y0, int x1, int y1) {
  int64_t s = 0;
  for (int c = 0; c < 3; ++c) {
    const int d = at(img, x0, y0, c) - at(img, x1, y1, c);
    s += d * d;
  }
  return s;
}

// Visits every pixel and all eight neighbours, so each pair is seen twice;
// the sum wraps to 32 bits as the engine keeps it.
double referenceBeta(IplImage* img) {
  int64_t sum2 = 0, pairs2 = 0;
  for (int y = 0; y < img->height; ++y)
    for (int x = 0; x < img->width; ++x)
      for (int q = 0; q < 9; ++q) {
        const int qx = x + q % 3 - 1, qy = y + q / 3 - 1;
        if (q == 4 || qx < 0 || qy < 0 || qx >= img->width || qy >= img->height) continue;
        sum2 += squaredDistance(img, x, y, qx, qy);
        ++pairs2;
      }
  const int32_t wrapped = static_cast<int32_t>(static_cast<uint32_t>(sum2 / 2));
  return wrapped > 0 ? (pairs2 / 2) / (2.0 * wrapped) : 0.0;
}

class CoreGraph : public segtest::SegmenterTest {
 protected:
  // Five-component models around 70 (object) and 160 (background).
  void makeModels() {
    for (ZIRKSEColorModel* m : {&hybrid->m_fgModel, &hybrid->m_bgModel}) {
      const double centre = m == &hybrid->m_fgModel ? 70.0 : 160.0, spread = centre * 4;
      for (int k = 0; k < 5; ++k) {
        m->m_weight[k] = 0.1 + 0.05 * k;
        for (int c = 0; c < 3; ++c) m->m_mean[k][c] = centre + 12.0 * (k - 2) + 5.0 * c;
        for (int i = 0; i < 9; ++i) m->m_covariance[k][i] = (i % 4 == 0) ? spread * (1 + 0.2 * k) : 0.3 * spread;
      }
      m->setDeterminant();
      m->setInverseCovariance();
    }
  }
  // -log of the background and object densities of one feature vector.
  std::pair<float, float> terminals(double a, double b, double c) {
    return {static_cast<float>(-std::log(hybrid->m_bgModel.GMMProb({a, b, c}))),
            static_cast<float>(-std::log(hybrid->m_fgModel.GMMProb({a, b, c})))};
  }
  // Both directions of slot k of node p: want, or absent (-2).
  static void expectArc(const ZIRKSEGraph* g, int p, int k, bool present, double want) {
    for (int dir = 0; dir < 2; ++dir)
      ASSERT_NEAR(g->m_arcs[8 * p + 2 * k + dir], present ? want : -2.0, 2e-5 * want + 1e-6) << p << " slot " << k;
  }
};

// Random images, a uniform one (beta 0) and 0/255 checkerboards, whose sum
// wraps negative at 100 x 100 (beta 0) and small positive at 150 x 150. A
// single pixel has no pairs: zero weights.
TEST_F(CoreGraph, WeightsFollowTheContrastFormula) {
  std::mt19937 rng(20240611);
  const struct { int w, h, lo, hi; } cases[] = {{2, 1, 0, 255},   {3, 5, 0, 255},   {17, 11, 0, 255},   {40, 30, 100, 110},
                                                {31, 2, 0, 1},    {5, 40, 0, 255},  {9, 7, 77, 77},     {100, 100, -1, -1},
                                                {150, 150, -1, -1}};
  for (const auto& c : cases) {
    const std::string what = std::to_string(c.w) + "x" + std::to_string(c.h);
    IplImage* img = randomImage(c.w, c.h, 3, rng, std::max(c.lo, 0), std::max(c.hi, 0));
    for (int y = 0; y < c.h && c.lo < 0; ++y)
      for (int x = (y & 1); x < c.w; x += 2) fillRect(img, x, y, x + 1, y + 1, 255);
    setWorkingImage(img);
    hybrid->computeNlinks();
    const double beta = referenceBeta(img);
    if (c.lo < 0) { EXPECT_EQ(beta == 0.0, c.w == 100) << "the case no longer wraps"; }
    EXPECT_NEAR(hybrid->m_beta, beta, 1e-12 * beta) << what;
    for (int p = 0; p < c.w * c.h; ++p)
      for (int k = 0; k < 4; ++k) {
        const int x = p % c.w, y = p / c.w, qx = x + kDx[k], qy = y + kDy[k];
        const bool linked = qx >= 0 && qy >= 0 && qx < c.w;
        const double want = linked ? std::exp(-beta * squaredDistance(img, x, y, qx, qy)) * (k % 2 ? kDiagonal : 1.0) : 0.0;
        ASSERT_NEAR(hybrid->m_nlinks[p * 4 + k], want, 1e-6 + 2e-5 * want) << what << " slot " << k << " at " << p;
      }
  }
  setWorkingImage(filledImage(1, 1, 3, 9));
  hybrid->computeNlinks();
  EXPECT_EQ(hybrid->m_beta, 0.0);
  for (int k = 0; k < 4; ++k) EXPECT_EQ(hybrid->m_nlinks[k], 0.0f) << k;
}

// Box graphs, filled twice (the second from scratch), over random weights,
// crops and labels: colour, grey (intensity and the texture maps at the
// pixel's place in the whole image), one pixel wide.
TEST_F(CoreGraph, BoxGraphTakesModelsAndStoredWeights) {
  const struct { int imageW, imageH, x0, y0, w, h; bool grey; } cases[] = {
      {23, 17, 4, 3, 12, 9, false}, {15, 12, 2, 5, 10, 6, true}, {4, 8, 3, 1, 1, 6, false}};
  std::mt19937 rng(11);
  for (const auto& c : cases) {
    hybrid = std::make_unique<ZIRKSEHybrid>();
    makeModels();
    hybrid->m_width = c.imageW;
    hybrid->m_height = c.imageH;
    const int slots = 4 * c.imageW * c.imageH;
    hybrid->m_nlinks = static_cast<float*>(ZIRK_Malloc_Msg(sizeof(float) * slots, "test", 1));
    for (int i = 0; i < slots; ++i) hybrid->m_nlinks[i] = (rng() % 1000) / 1000.0f;
    setBox(c.x0, c.y0, c.w, c.h);
    hybrid->m_cropSrcImage = randomImage(c.w, c.h, 3, rng);
    hybrid->m_cropLabelImage = randomImage(c.w, c.h, 1, rng, 0, 4);
    ZIRKSEMarker::m_isGreyScale = c.grey;
    IplImage *&texH = ZIRKSEMarker::m_texHor, *&texV = ZIRKSEMarker::m_texVer;
    replace(texH, randomImage(c.imageW, c.imageH, 1, rng));
    replace(texV, randomImage(c.imageW, c.imageH, 1, rng));
    hybrid->m_lamda = 13.513;
    hybrid->graphSpaceAllocator();
    for (int fill = 0; fill < 2; ++fill) {
      hybrid->constructGraphZIRK();
      const ZIRKSEGraph* g = hybrid->m_graph;
      ASSERT_EQ(g->m_nodeCount, c.w * c.h);
      double flow = 0.0;
      for (int p = 0; p < c.w * c.h; ++p) {
        const int x = p % c.w, y = p / c.w, X = x + c.x0, Y = y + c.y0;
        const uint8_t* rgb = &at(hybrid->m_cropSrcImage, x, y);
        auto t = c.grey ? terminals(rgb[0], at(texH, X, Y), at(texV, X, Y)) : terminals(rgb[0], rgb[1], rgb[2]);
        const uint8_t label = at(hybrid->m_cropLabelImage, x, y);
        if (label == 1 || label == 2) t = {label == 2 ? 1000.0f : 0.0f, label == 1 ? 1000.0f : 0.0f};
        ASSERT_FLOAT_EQ(g->m_nodes[p].tr_cap, t.first - t.second) << x << "," << y;
        flow += std::min(t.first, t.second);
        for (int k = 0; k < 4; ++k)
          expectArc(g, p, k, x + kDx[k] >= 0 && y + kDy[k] >= 0 && x + kDx[k] < c.w,
                    13.513 * hybrid->m_nlinks[(Y * c.imageW + X) * 4 + k]);
      }
      EXPECT_NEAR(g->m_flow, flow, 1e-4 * flow);
    }
  }
}

// The refinement band's graph: trimap 1/2 fixed, 7 outside the band with no
// links (free after the cut), horizontal links lamda, the others lamda times
// the contrast; grey mode takes the feature images.
TEST_F(CoreGraph, TrimapGraphFollowsTrimapAndContrast) {
  std::mt19937 rng(17);
  makeModels();
  for (const bool grey : {false, true}) {
    const int w = grey ? 1 : 11, h = grey ? 7 : 8;
    IplImage* colour = randomImage(w, h, 3, rng, 60, 180);
    IplImage* fa = randomImage(w, h, 1, rng);
    IplImage* fb = randomImage(w, h, 1, rng);
    IplImage* trimap = randomImage(w, h, 1, rng, 0, 5);
    const uint8_t values[6] = {0, 0, 1, 2, 7, 0};
    for (int i = 0; i < w * h; ++i) at(trimap, i % w, i / w) = values[at(trimap, i % w, i / w)];
    hybrid->m_boundWidthTrimap = w;
    hybrid->m_boundHeightTrimap = h;
    hybrid->m_beta = 0.0007;
    hybrid->m_lamda = 50.0;
    ZIRKSEMarker::m_isGreyScale = grey;
    ASSERT_EQ(hybrid->constructGraphTrimapZIRK(colour, nullptr, trimap, fa, fb), 0);
    ZIRKSEGraph* g = hybrid->m_trimapGraph;
    ASSERT_EQ(g->m_nodeCount, w * h);
    for (int p = 0; p < w * h; ++p) {
      const int x = p % w, y = p / w, label = at(trimap, x, y);
      const uint8_t* c = &at(colour, x, y);
      const auto t = grey ? terminals(c[0], at(fa, x, y), at(fb, x, y)) : terminals(c[0], c[1], c[2]);
      const float fixed[8] = {0, -1000, 1000, 0, 0, 0, 0, 0};
      ASSERT_FLOAT_EQ(g->m_nodes[p].tr_cap, label == 0 ? t.first - t.second : fixed[label]) << p;
      for (int k = 0; k < 4; ++k) {
        const int qx = x + kDx[k], qy = y + kDy[k];
        const bool present = label != 7 && qx >= 0 && qy >= 0 && qx < w && at(trimap, qx, qy) != 7;
        const double contrast = k == 0 ? 1.0 : std::exp(-0.0007 * squaredDistance(colour, x, y, qx, qy));
        expectArc(g, p, k, present, present ? 50.0 * contrast * (k % 2 ? kDiagonal : 1.0) : 0.0);
      }
    }
    g->maxFlow();
    for (int p = 0; p < w * h; ++p)
      if (at(trimap, p % w, p / w) == 7) { EXPECT_EQ(g->m_nodes[p].tree, FREE) << p; }
    for (IplImage* img : {colour, trimap, fa, fb}) cvReleaseImage(&img);
  }
}

}  // namespace
