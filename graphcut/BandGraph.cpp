#include "graphcut/BandGraph.h"
#include "graphcut/ColourCache.h"

#include <android/log.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <new>

#include "engine/ZIRKSEMarker.h"
#include "support/ZIRKMemory.h"
#include "support/ZIRKRows.h"

namespace {

constexpr float kHardLink = 1000.0f;
// Bands of more nodes than this are solved in kParts parts, and those of
// more than kHalvedNodes in two (a 640x480 photo's band has about 12,000
// nodes: two parts took its cuts from 2.2 to 1.6 ms on two cores).
constexpr int32_t kPartedNodes = 100000;
constexpr int kParts = 8;
constexpr int32_t kHalvedNodes = 4096;
// Bands of more nodes than this compute their capacities on kBuildThreads
// threads (as many as there are cores).
constexpr int32_t kThreadedBuildNodes = 4096;
constexpr int kBuildThreads = 4;
constexpr int kBuildChunkRows = 8;
constexpr double kDiagonalFactor = 0.7071067932881648;

inline const uint8_t* pixelAt(const IplImage* img, int x, int y) { return ZIRK_pixelAt(img, x, y); }

}  // namespace

TrimapLinks::TrimapLinks(ZIRKSEColorModel* fg, ZIRKSEColorModel* bg, const float* table,
                         double lamda, bool grey)
    : m_fg(fg),
      m_bg(bg),
      m_table(table),
      m_lamda(lamda),
      m_grey(grey),
      // Horizontal links carry no contrast term: table[0]^3 is 1.
      m_horizontal(static_cast<float>(lamda * static_cast<double>(table[0] * table[0] * table[0]))),
      m_diagonal(static_cast<float>(lamda * kDiagonalFactor)) {}

void TrimapLinks::terminal(uint8_t label, const uint8_t* colour, uint8_t featureA,
                           uint8_t featureB, float* source, float* sink) const {
  *source = 0.0f;
  *sink = 0.0f;
  if (label == kLabelBackgroundFixed) {
    *sink = kHardLink;
  } else if (label == kLabelObjectFixed) {
    *source = kHardLink;
  } else if (label != kLabelOutsideBand) {
    const pixelVal p = m_grey ? pixelVal{static_cast<double>(colour[0]), static_cast<double>(featureA),
                                         static_cast<double>(featureB)}
                              : pixelVal{static_cast<double>(colour[0]), static_cast<double>(colour[1]),
                                         static_cast<double>(colour[2])};
    *source = -static_cast<float>(std::log(m_bg->GMMProb(p)));
    *sink = -static_cast<float>(std::log(m_fg->GMMProb(p)));
  }
}

float TrimapLinks::contrast(const uint8_t* p, const uint8_t* q) const {
  return m_table[std::abs(p[0] - q[0])] * m_table[std::abs(p[1] - q[1])] *
         m_table[std::abs(p[2] - q[2])];
}

float TrimapLinks::vertical(const uint8_t* p, const uint8_t* q) const {
  return static_cast<float>(m_lamda * static_cast<double>(contrast(p, q)));
}

float TrimapLinks::diagonal(const uint8_t* p, const uint8_t* q) const {
  return m_diagonal * contrast(p, q);
}

bool TrimapLinks::fixedPixelsAreSettled() const {
  float most = 0.0f;
  for (int i = 0; i < 256; ++i) most = std::max(most, m_table[i]);
  const double contrastBound = static_cast<double>(most) * most * most;
  // Two horizontal, two vertical and four diagonal links, with a margin for rounding.
  const double bound = (2.0 * m_horizontal + 2.0 * m_lamda * contrastBound +
                        4.0 * m_diagonal * contrastBound) * 1.01;
  return std::isfinite(bound) && bound < kHardLink;
}

BandGraph::BandGraph(const IplImage* trimap, std::vector<int32_t> xmap, std::vector<int32_t> ymap,
                     bool unknownOnly)
    : m_trimap(trimap),
      m_xmap(std::move(xmap)),
      m_ymap(std::move(ymap)),
      m_unknownOnly(unknownOnly),
      m_width(static_cast<int>(m_xmap.size())),
      m_height(static_cast<int>(m_ymap.size())) {
  // The bounding rectangle of the band.
  std::vector<int32_t> bandRuns, bandRowStart;
  findRuns([](uint8_t l) { return l != kLabelOutsideBand; }, &bandRuns, &bandRowStart);
  int xmin = INT32_MAX, xmax = -1, ymin = INT32_MAX, ymax = -1;
  for (int y = 0; y < m_height; ++y) {
    const int32_t sy = m_ymap[y];
    const int32_t b = bandRowStart[sy], e = bandRowStart[sy + 1];
    if (b == e) continue;
    ymin = std::min(ymin, y);
    ymax = y;
    xmin = std::min(xmin, bandRuns[b]);
    xmax = std::max(xmax, bandRuns[e - 1]);
  }
  if (ymax < 0) return;
  m_xmin = xmin;
  m_xmax = xmax;
  m_ymin = ymin;
  m_ymax = ymax;
  if (m_unknownOnly) {
    findRuns([](uint8_t l) { return l == kLabelUnknown; }, &m_linkedRuns, &m_linkedRowStart);
  } else {
    m_linkedRuns.swap(bandRuns);
    m_linkedRowStart.swap(bandRowStart);
  }
  layOutNodes();
}

void BandGraph::findRuns(bool (*keep)(uint8_t), std::vector<int32_t>* runs,
                         std::vector<int32_t>* rowStart) const {
  const int ws = m_trimap->width;
  const int hs = m_trimap->height;
  // Full-size columns of each working column (the maps are monotone).
  std::vector<int32_t> first(ws, INT32_MAX), last(ws, -1);
  for (int x = 0; x < m_width; ++x) {
    const int32_t s = m_xmap[x];
    first[s] = std::min(first[s], static_cast<int32_t>(x));
    last[s] = std::max(last[s], static_cast<int32_t>(x));
  }
  runs->clear();
  rowStart->assign(hs + 1, 0);
  for (int sy = 0; sy < hs; ++sy) {
    (*rowStart)[sy] = static_cast<int32_t>(runs->size());
    const uint8_t* t = pixelAt(m_trimap, 0, sy);
    for (int sx = 0; sx < ws;) {
      if (!keep(t[sx])) {
        ++sx;
        continue;
      }
      int32_t lo = INT32_MAX, hi = -1;
      for (; sx < ws && keep(t[sx]); ++sx) {
        lo = std::min(lo, first[sx]);
        hi = std::max(hi, last[sx]);
      }
      if (hi >= lo) {
        runs->push_back(lo);
        runs->push_back(hi);
      }
    }
  }
  (*rowStart)[hs] = static_cast<int32_t>(runs->size());
}

bool BandGraph::bounds(int* xmin, int* xmax, int* ymin, int* ymax) const {
  if (m_ymax < m_ymin) return false;
  *xmin = m_xmin;
  *xmax = m_xmax;
  *ymin = m_ymin;
  *ymax = m_ymax;
  return true;
}

uint8_t BandGraph::label(int x, int y) const {
  if (x < 0 || y < 0 || x >= m_width || y >= m_height) return kLabelOutsideBand;
  return pixelAt(m_trimap, m_xmap[x], m_ymap[y])[0];
}

// Node runs of each row from one above the band to one below: the linked
// runs of the row and of its two neighbour rows, each widened by one column.
void BandGraph::layOutNodes() {
  m_rowFirst = m_ymin - 1;
  const int rows = m_ymax - m_ymin + 3;
  m_rowRuns.assign(rows + 1, 0);
  std::vector<std::pair<int32_t, int32_t>> pieces;
  int32_t next = 0;
  for (int row = 0; row < rows; ++row) {
    const int y = m_rowFirst + row;
    m_rowRuns[row] = static_cast<int32_t>(m_runs.size());
    pieces.clear();
    for (int yy = y - 1; yy <= y + 1; ++yy) {
      if (yy < 0 || yy >= m_height) continue;
      const int32_t sy = m_ymap[yy];
      for (int32_t i = m_linkedRowStart[sy]; i < m_linkedRowStart[sy + 1]; i += 2)
        pieces.emplace_back(m_linkedRuns[i] - 1, m_linkedRuns[i + 1] + 1);
    }
    std::sort(pieces.begin(), pieces.end());
    for (const auto& piece : pieces) {
      if (!m_runs.empty() && static_cast<int32_t>(m_runs.size()) > m_rowRuns[row] &&
          piece.first <= m_runs.back().x1 + 1) {
        if (piece.second > m_runs.back().x1) {
          next += piece.second - m_runs.back().x1;
          m_runs.back().x1 = piece.second;
        }
        continue;
      }
      m_runs.push_back(Run{piece.first, piece.second, next});
      next += piece.second - piece.first + 1;
    }
  }
  m_rowRuns[rows] = static_cast<int32_t>(m_runs.size());
  m_nodeCount = next;
}

ZIRKSEGraph* BandGraph::build(const IplImage* colour, const IplImage* texA, const IplImage* texB,
                              const TrimapLinks& links, int buildThreads) {
  const int32_t n = m_nodeCount;
  if (n < 1 || n > (INT32_MAX - 16) / 16) return nullptr;
  // The solver reads the grid as one row of n nodes; the rows above and
  // below come from the stored indices.
  ZIRKSEGraph* g = new (std::nothrow) ZIRKSEGraph(n, 8 * n, n, 1, 0);
  if (g == nullptr) return nullptr;
  g->m_bandUp = static_cast<int32_t*>(ZIRK_Malloc_Msg(sizeof(int32_t) * n, "BandGraph", 1));
  g->m_bandDown = static_cast<int32_t*>(ZIRK_Malloc_Msg(sizeof(int32_t) * n, "BandGraph", 2));
  if (g->m_nodes == nullptr || g->m_arcs == nullptr || g->m_bandUp == nullptr ||
      g->m_bandDown == nullptr) {
    delete g;
    return nullptr;
  }
  int32_t* up = g->m_bandUp;
  int32_t* down = g->m_bandDown;
  std::fill(up, up + n, -1);
  std::fill(down, down + n, -1);
  // Vertical neighbours: walk the runs of each row beside those of the row above.
  const int rows = static_cast<int>(m_rowRuns.size()) - 1;
  for (int row = 1; row < rows; ++row) {
    int32_t a = m_rowRuns[row - 1];
    const int32_t aEnd = m_rowRuns[row];
    for (int32_t b = m_rowRuns[row]; b < m_rowRuns[row + 1]; ++b) {
      const Run& below = m_runs[b];
      for (; a < aEnd && m_runs[a].x1 < below.x0; ++a) {
      }
      for (int32_t k = a; k < aEnd && m_runs[k].x0 <= below.x1; ++k) {
        const Run& above = m_runs[k];
        const int32_t lo = std::max(above.x0, below.x0), hi = std::min(above.x1, below.x1);
        for (int32_t x = lo; x <= hi; ++x) {
          const int32_t p = below.first + (x - below.x0);
          const int32_t q = above.first + (x - above.x0);
          up[p] = q;
          down[q] = p;
        }
      }
    }
  }

  // Nodes and links written in place on several threads over chunks of rows
  // (each node's values depend on its own pixels only, so the split changes
  // nothing); the pre-flow is summed afterwards in node order, as a fill
  // node by node would.
  const bool grey = texA != nullptr && texB != nullptr;
  std::vector<float> preFlow(n, 0.0f);
  g->reset();
  auto fillRows = [&](ColourCache& cache, int rowBegin, int rowEnd) {
    for (int row = rowBegin; row < rowEnd; ++row) {
      const int y = m_rowFirst + row;
      forEachNodeInRow(y, [&](int x, int, int32_t p) {
        float slot[4] = {kAbsentArc, kAbsentArc, kAbsentArc, kAbsentArc};
        const uint8_t l = label(x, y);
        if (!linked(l)) {
          ZIRK_fillNodeInPlace(g, p, false, 0.0f, 0.0f, slot);
          return;
        }
        const uint8_t* c = pixelAt(colour, x, y);
        // The capacity of the link to neighbour (x + dx, y + dy).
        auto link = [&](int dx, int dy) {
          if (dy == 0) return links.horizontal();
          const uint8_t* q = pixelAt(colour, x + dx, y + dy);
          return dx == 0 ? links.vertical(c, q) : links.diagonal(c, q);
        };
        const uint8_t fa = grey ? pixelAt(texA, m_xmap[x], m_ymap[y])[0] : 0;
        const uint8_t fb = grey ? pixelAt(texB, m_xmap[x], m_ymap[y])[0] : 0;
        float source, sink;
        if (l == kLabelBackgroundFixed || l == kLabelObjectFixed) {
          links.terminal(l, c, fa, fb, &source, &sink);
        } else {
          // The same features give the same capacities (see ColourCache).
          cache.get(c[0], grey ? fa : c[1], grey ? fb : c[2], &source, &sink,
                    [&](float* s, float* t) { links.terminal(l, c, fa, fb, s, t); });
        }
        if (m_unknownOnly) {
          // Links to merged fixed pixels lead straight to their terminal.
          for (int dy = -1; dy <= 1; ++dy) {
            for (int dx = -1; dx <= 1; ++dx) {
              const uint8_t q = (dx | dy) != 0 ? label(x + dx, y + dy) : uint8_t{kLabelOutsideBand};
              if (q == kLabelObjectFixed) source += link(dx, dy);
              if (q == kLabelBackgroundFixed) sink += link(dx, dy);
            }
          }
        }
        // Links to the left, up-left, up and up-right neighbours that are linked too.
        if (linked(label(x - 1, y))) slot[0] = links.horizontal();
        for (int dx = -1; dx <= 1; ++dx)
          if (linked(label(x + dx, y - 1))) slot[2 + dx] = link(dx, -1);
        preFlow[p] = ZIRK_fillNodeInPlace(g, p, true, source, sink, slot);
      });
    }
  };
  const int threads =
      buildThreads > 0 ? std::min(buildThreads, std::max(rows, 1)) : (n > kThreadedBuildNodes ? ZIRK_threadsFor(kBuildThreads) : 1);
  // Rows hold very different numbers of band pixels: chunks of rows are
  // handed to the threads as they get free.
  ZIRK_runInChunks(rows, kBuildChunkRows, threads, [] { return ColourCache(); }, fillRows);
  ZIRK_endFillInPlace(g, n, preFlow.data());
  return g;
}

float BandGraph::solve(ZIRKSEGraph* graph, int parts) const {
  const int wanted = parts > 0 ? parts : (m_nodeCount > kPartedNodes ? kParts : m_nodeCount > kHalvedNodes ? 2 : 1);
  if (wanted < 2) return graph->maxFlow();
  // Parts begin at rows, after about an equal share of the nodes each.
  std::vector<int32_t> starts{0}, seams;
  const int rows = static_cast<int>(m_rowRuns.size()) - 1;
  for (int row = 1; row < rows && static_cast<int>(starts.size()) < wanted; ++row) {
    const int32_t b = m_rowRuns[row], e = m_rowRuns[row + 1];
    if (b == e) continue;
    const int32_t first = m_runs[b].first;
    if (first < static_cast<int64_t>(m_nodeCount) * static_cast<int64_t>(starts.size()) / wanted) continue;
    starts.push_back(first);
    seams.push_back(m_runs[e - 1].first + (m_runs[e - 1].x1 - m_runs[e - 1].x0) + 1);
  }
  starts.push_back(m_nodeCount);
  return ZIRK_solveInParts(graph, starts, seams);
}
