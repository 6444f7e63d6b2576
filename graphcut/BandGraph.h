// The refinement band's flow graph at full resolution, holding only the
// band's pixels.
//
// The band is described at working size: a trimap whose pixels are 0
// (unknown), 1 (fixed background), 2 (fixed object) inside the band and 7
// outside, and the nearest-neighbour maps from full-size columns and rows to
// working-size ones. Full pixel (x, y) has label trimap(xmap[x], ymap[y]).
//
// Nodes are the band's pixels plus a one-pixel ring around them (which has
// no links and stays free), numbered row by row. With the ring, every
// neighbour of a band pixel is a node: the left and right neighbours are the
// previous and next index, and the graph stores the index of the node above
// and below. Capacities, node order and arc order are those of the graph
// over the band's bounding rectangle, so the solver makes exactly the same
// steps and the cut is the same; only the pixels outside the band, which
// have no links, are left out. Memory: about 72 bytes per node instead of
// 40 per rectangle pixel.
#pragma once

#include <opencv2/core/types_c.h>

#include <cstdint>
#include <vector>

#include "colormodel/ZIRKSEColorModel.h"
#include "graphcut/ZIRKSEGraph.h"

// Capacities of one trimap pixel and of its links, shared by the band graph
// and the band-rectangle graph so that both hold the same numbers.
class TrimapLinks {
 public:
  // table: exp(-beta d^2) for d = 0..255.
  TrimapLinks(ZIRKSEColorModel* fg, ZIRKSEColorModel* bg, const float* table, double lamda,
              bool grey);

  // Terminal capacities of a pixel with the given trimap label; features are
  // the colour bytes, or in grey mode the first byte and the two texture
  // values.
  void terminal(uint8_t label, const uint8_t* colour, uint8_t featureA, uint8_t featureB,
                float* source, float* sink) const;
  // Link capacities to the left, upper and diagonal neighbours.
  float horizontal() const { return m_horizontal; }
  float vertical(const uint8_t* p, const uint8_t* q) const;
  float diagonal(const uint8_t* p, const uint8_t* q) const;
  // True when a fixed pixel's hard link (1000) exceeds anything its eight
  // links could ever carry: its side of every minimum cut is then settled,
  // and it can be merged into its terminal.
  bool fixedPixelsAreSettled() const;

 private:
  float contrast(const uint8_t* p, const uint8_t* q) const;

  ZIRKSEColorModel* m_fg;
  ZIRKSEColorModel* m_bg;
  const float* m_table;
  double m_lamda;
  bool m_grey;
  float m_horizontal;
  float m_diagonal;
};

// The band of a full-size image and its graph.
class BandGraph {
 public:
  // One run of consecutive nodes in a row: columns x0..x1, first node index.
  struct Run {
    int32_t x0, x1, first;
  };

  // trimap: working size, 0/1/2 in the band, 7 outside. xmap (width
  // entries) and ymap (height entries) map full columns and rows to working
  // ones. With unknownOnly, only the unknown pixels (0) get links: the fixed
  // ones (1, 2) are merged into their terminal, their links to unknown
  // pixels becoming terminal capacity of those (valid when
  // TrimapLinks::fixedPixelsAreSettled()). The minimum cut of the unknown
  // pixels is the same; the graph holds about a third of the nodes.
  BandGraph(const IplImage* trimap, std::vector<int32_t> xmap, std::vector<int32_t> ymap,
            bool unknownOnly);

  // False when no pixel is in the band. Otherwise the band's bounding
  // rectangle, inclusive.
  bool bounds(int* xmin, int* xmax, int* ymin, int* ymax) const;

  // The band pixel's trimap label; 7 outside the band or the image.
  uint8_t label(int x, int y) const;

  // Builds the graph over the band: colour is the full-size 3-channel
  // source; texA and texB the working-size texture maps in grey mode (null
  // otherwise). Returns null when its arrays can not be allocated (logged).
  // The caller owns the graph.
  ZIRKSEGraph* build(const IplImage* colour, const IplImage* texA, const IplImage* texB,
                     const TrimapLinks& links);

  // Calls visit(x, y, node) for every node of full row y, in node order.
  template <class Visit>
  void forEachNodeInRow(int y, Visit visit) const {
    const int row = y - m_rowFirst;
    if (row < 0 || row + 1 >= static_cast<int>(m_rowRuns.size())) return;
    for (int32_t r = m_rowRuns[row]; r < m_rowRuns[row + 1]; ++r) {
      const Run& run = m_runs[r];
      for (int32_t x = run.x0; x <= run.x1; ++x) visit(x, y, run.first + (x - run.x0));
    }
  }

  int32_t nodeCount() const { return m_nodeCount; }

  // Solves the graph built by build(): a large band in parts of about equal
  // size that run on their own threads (the same cut as a serial solve).
  // The split depends on the band alone, not on the machine. parts > 0
  // asks for that many parts whatever the size (1: serial).
  float solve(ZIRKSEGraph* graph, int parts = 0) const;

 private:
  // Runs of the working rows, in full-size columns, of the pixels for which
  // keep(label) holds.
  void findRuns(bool (*keep)(uint8_t), std::vector<int32_t>* runs,
                std::vector<int32_t>* rowStart) const;
  void layOutNodes();
  bool linked(uint8_t label) const {
    return m_unknownOnly ? label == 0 : label != 7;
  }

  const IplImage* m_trimap;
  std::vector<int32_t> m_xmap, m_ymap;
  bool m_unknownOnly;
  int m_width = 0, m_height = 0;  // full size
  int m_xmin = 0, m_xmax = -1, m_ymin = 0, m_ymax = -1;
  // Columns of the linked pixels of each working row, as full-size runs
  // (x0, x1): flat, m_linkedRowStart[sy] .. m_linkedRowStart[sy + 1].
  std::vector<int32_t> m_linkedRuns;
  std::vector<int32_t> m_linkedRowStart;
  // Node runs of the rows m_rowFirst .. (one row above and below the band).
  int m_rowFirst = 0;
  std::vector<Run> m_runs;
  std::vector<int32_t> m_rowRuns;
  int32_t m_nodeCount = 0;
};
