// Filling the flow graphs of the segmenter from images, labels and models.
//
// Source side = object. A pixel's source capacity is its negative
// log-likelihood under the background model, its sink capacity that under
// the object model; user-fixed pixels get 1000 on their own side. N-links are
// the neighbour weights times the smoothness weight, the same in both
// directions, four addEdge calls a node in slot order left, up-left, up,
// up-right (absent where the neighbour is missing).
//
// The box graph reads the weights precomputed for the whole working image;
// the trimap graph (full resolution, refinement band only) computes its own
// from a 256-entry table of exp(-beta d^2) per channel difference.
#include <cmath>
#include <cstdlib>
#include <new>
#include <vector>

#include "engine/ZIRKSEMarker.h"
#include "graphcut/BandGraph.h"
#include "graphcut/ColourCache.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKLog.h"
#include "support/ZIRKMemory.h"
#include "support/ZIRKRows.h"

namespace {

constexpr double kHardLink = 1000.0;
// Boxes of at least this many pixels compute their terminal capacities on
// kTerminalThreads threads.
constexpr size_t kThreadedPixels = 16384;
constexpr int kTerminalThreads = 4;
constexpr int kTerminalChunkRows = 8;
// Log-likelihoods closer than this cannot tell the grey models apart.
constexpr float kGreyTie = 0.0001f;

inline const uint8_t* pixelAt(const IplImage* img, int x, int y) { return ZIRK_pixelAt(img, x, y); }

// True when img is an 8-bit image of at least w x h with the given channels.
bool covers(const IplImage* img, int w, int h, int channels) {
  return img != nullptr && img->depth == IPL_DEPTH_8U && img->nChannels == channels &&
         img->width >= w && img->height >= h;
}

}  // namespace

void ZIRKSEHybrid::constructGraphZIRK() { constructGraphZIRK_Whole_Image(); }

void ZIRK_fillBoxGraph(ZIRKSEHybrid* hybrid, bool keepFlow, bool sameModels) {
  ZIRKSEHybrid& self = *hybrid;
  const int w = self.m_cropWidth;
  const int h = self.m_cropHeight;
  const int x0 = ZIRKSEMarker::m_xMinBBox;
  const int y0 = ZIRKSEMarker::m_yMinBBox;
  // Refuse anything that would read or write outside the arrays: the graph
  // must have the box's grid and capacity, the crops the box's size, and the
  // box must lie inside the working image whose weights are stored.
  if (self.m_graph == nullptr || self.m_graph->m_nodes == nullptr || self.m_graph->m_arcs == nullptr ||
      self.m_graph->m_width != w || self.m_graph->m_height != h || w < 1 || h < 1 ||
      self.m_graph->m_nodeMax - self.m_graph->m_nodes < static_cast<ptrdiff_t>(w) * h ||
      self.m_graph->m_arcMax - self.m_graph->m_arcs < static_cast<ptrdiff_t>(8) * w * h ||
      !covers(self.m_cropSrcImage, w, h, 3) || !covers(self.m_cropLabelImage, w, h, 1) || x0 < 0 ||
      y0 < 0 || x0 + w > self.m_width || y0 + h > self.m_height || self.m_nlinks == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "constructGraphZIRK_Whole_Image: graph, crops or weights do not match the "
                        "box %d x %d at (%d, %d)",
                        w, h, x0, y0);
    return;
  }
  bool grey = ZIRKSEMarker::m_isGreyScale;
  const IplImage* texH = ZIRKSEMarker::m_texHor;
  const IplImage* texV = ZIRKSEMarker::m_texVer;
  if (grey && (!covers(texH, x0 + w, y0 + h, 1) || !covers(texV, x0 + w, y0 + h, 1))) {
    // Without texture maps a grey pixel is described by its bytes alone.
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "constructGraphZIRK_Whole_Image: no texture maps, using colour features");
    grey = false;
  }

  // 1. The capacities of every node and link, then the graph's fill.
  const size_t n = static_cast<size_t>(w) * h;
  std::vector<float> sources(n), sinks(n), links(4 * n);  // (the t-links only when computed)

  // 2. T-links; the models and the fixed labels decide them, so with the
  // same models they are those of the last fill.
  const bool sameTerminals = keepFlow && sameModels && self.m_graph->m_fillNet != nullptr;
  auto terminalRows = [&](ColourCache& cache, int yBegin, int yEnd) {
    for (int y = yBegin; y < yEnd; ++y) {
      const uint8_t* labels = pixelAt(self.m_cropLabelImage, 0, y);
      for (int x = 0; x < w; ++x) {
        const int node = y * w + x;
        if (labels[x] == kLabelBackgroundFixed || labels[x] == kLabelObjectFixed) {
          const bool object = labels[x] == kLabelObjectFixed;
          sources[node] = static_cast<float>(object ? kHardLink : 0.0);
          sinks[node] = static_cast<float>(object ? 0.0 : kHardLink);
          continue;
        }
        // The features: the colour bytes, or the grey byte and its two
        // texture values.
        const uint8_t* c = pixelAt(self.m_cropSrcImage, x, y);
        const uint8_t f0 = c[0];
        const uint8_t f1 = grey ? *pixelAt(texH, x + x0, y + y0) : c[1];
        const uint8_t f2 = grey ? *pixelAt(texV, x + x0, y + y0) : c[2];
        cache.get(f0, f1, f2, &sources[node], &sinks[node], [&](float* source, float* sink) {
          const pixelVal p{static_cast<double>(f0), static_cast<double>(f1), static_cast<double>(f2)};
          if (!grey) {
            *source = static_cast<float>(-std::log(self.m_bgModel.GMMProb(p)));
            *sink = static_cast<float>(-std::log(self.m_fgModel.GMMProb(p)));
            return;
          }
          const double lb = std::log(self.m_bgModel.GMMProb(p));
          const double lf = std::log(self.m_fgModel.GMMProb(p));
          *sink = static_cast<float>(-lf);
          // Models that cannot tell the pixel apart leave it no terminal pull.
          *source = static_cast<float>(std::fabs(static_cast<float>(lf - lb)) < kGreyTie ? -lf : -lb);
        });
      }
    }
  };
  // Each pixel's capacities depend on that pixel alone: large boxes share
  // the rows out over threads (the same numbers), in chunks of rows taken
  // as the threads get free (fixed halves left one thread waiting about a
  // fifth of the time: colours repeat more in some rows than in others).
  if (!sameTerminals) {
    const int threads = n >= kThreadedPixels ? ZIRK_threadsFor(kTerminalThreads) : 1;
    ZIRK_runInChunks(h, kTerminalChunkRows, threads, [] { return ColourCache(); }, terminalRows);
  }

  // 3. N-links from the stored weights, in whole-image coordinates; large
  // boxes in two bands of rows.
  auto linkRows = [&](int yBegin, int yEnd) {
    for (int y = yBegin; y < yEnd; ++y) {
      const float* weights = self.m_nlinks + (static_cast<size_t>(y + y0) * self.m_width + x0) * 4;
      float* l = links.data() + static_cast<size_t>(y) * w * 4;
      for (int x = 0; x < w; ++x, weights += 4, l += 4) {
        l[0] = x >= 1 ? static_cast<float>(self.m_lamda * weights[0]) : kAbsentArc;
        l[1] = y >= 1 && x >= 1 ? static_cast<float>(self.m_lamda * weights[1]) : kAbsentArc;
        l[2] = y >= 1 ? static_cast<float>(self.m_lamda * weights[2]) : kAbsentArc;
        l[3] = y >= 1 && x < w - 1 ? static_cast<float>(self.m_lamda * weights[3]) : kAbsentArc;
      }
    }
  };
  ZIRK_runInBands(h, n >= kThreadedPixels ? ZIRK_threadsFor(2) : 1, linkRows);
  ZIRK_fillGrid(self.m_graph, sameTerminals ? nullptr : sources.data(),
                sameTerminals ? nullptr : sinks.data(), links.data(), keepFlow);
}

void ZIRKSEHybrid::constructGraphZIRK_Whole_Image() { ZIRK_fillBoxGraph(this, false, false); }

int ZIRKSEHybrid::constructGraphTrimapZIRK(IplImage* colourImage, IplImage* /*spare*/,
                                           IplImage* trimap, IplImage* featureA,
                                           IplImage* featureB) {
  // A graph left from an earlier call is released before it is replaced.
  delete m_trimapGraph;
  m_trimapGraph = nullptr;

  const int w = m_boundWidthTrimap;
  const int h = m_boundHeightTrimap;
  const bool grey = ZIRKSEMarker::m_isGreyScale;
  if (w < 1 || h < 1 || !covers(colourImage, w, h, 3) || !covers(trimap, w, h, 1) ||
      (grey && (!covers(featureA, w, h, 1) || !covers(featureB, w, h, 1)))) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "constructGraphTrimapZIRK: images do not cover the band %d x %d", w, h);
    return 1;
  }

  // 1./2. A fresh graph with one node a band pixel.
  const int nodeCount = w * h;
  m_trimapGraph = new (std::nothrow) ZIRKSEGraph(nodeCount, 8 * nodeCount, w, h, 0);
  if (m_trimapGraph == nullptr || m_trimapGraph->m_nodes == nullptr ||
      m_trimapGraph->m_arcs == nullptr)
    return 1;
  ZIRKSEGraph* g = m_trimapGraph;
  g->reset();
  g->addNode(h * w);

  // 5. exp(-beta d^2) for every channel difference d.
  float* table = static_cast<float*>(ZIRK_Malloc_Msg(1024, "constructGraphTrimapZIRK", 2385));
  if (table == nullptr) return 1;  // the caller falls back to plain enlargement
  for (int i = 0; i < 256; ++i) table[i] = expf(-static_cast<float>(i * i * m_beta));
  const TrimapLinks links(&m_fgModel, &m_bgModel, table, m_lamda, grey);

  // 3./4. T-links; pixels outside the band (7) get none.
  for (int y = 0; y < h; ++y) {
    const uint8_t* labels = pixelAt(trimap, 0, y);
    for (int x = 0; x < w; ++x) {
      float source, sink;
      links.terminal(labels[x], pixelAt(colourImage, x, y), grey ? *pixelAt(featureA, x, y) : 0,
                     grey ? *pixelAt(featureB, x, y) : 0, &source, &sink);
      g->addtWeights(y * w + x, source, sink);
    }
  }

  // 6./7. N-links; any edge touching a pixel outside the band is absent.
  for (int y = 0; y < h; ++y) {
    const uint8_t* labels = pixelAt(trimap, 0, y);
    const uint8_t* labelsUp = y > 0 ? pixelAt(trimap, 0, y - 1) : nullptr;
    for (int x = 0; x < w; ++x) {
      const int p = y * w + x;
      if (labels[x] == kLabelOutsideBand) {
        for (int k = 0; k < 4; ++k) g->addEdge(p, -1, kAbsentArc, kAbsentArc, true);
        continue;
      }
      const uint8_t* c = pixelAt(colourImage, x, y);
      if (x >= 1 && labels[x - 1] != kLabelOutsideBand)
        g->addEdge(p, p - 1, links.horizontal(), links.horizontal(), false);
      else
        g->addEdge(p, -1, kAbsentArc, kAbsentArc, true);
      // up-left, up, up-right
      for (int dx = -1; dx <= 1; ++dx) {
        if (labelsUp == nullptr || x + dx < 0 || x + dx >= w || labelsUp[x + dx] == kLabelOutsideBand) {
          g->addEdge(p, -1, kAbsentArc, kAbsentArc, true);
          continue;
        }
        const uint8_t* q = pixelAt(colourImage, x + dx, y - 1);
        const float cap = dx == 0 ? links.vertical(c, q) : links.diagonal(c, q);
        g->addEdge(p, p - w + dx, cap, cap, false);
      }
    }
  }

  // 8.
  ZIRK_Free_Msg(table, "constructGraphTrimapZIRK", 2631);
  return 0;
}
