// The segmenter: one object per engine (pHybrid). It makes the working image
// once per engine, turns each edit's marker image into a label image, and
// runs five rounds of colour-model fitting and graph cuts inside a box around
// the marks, returning the object mask at source resolution.
//
// Member functions are spread over small files by job:
//   hybrid_object.cpp     construction, the box around the marks, cropping
//   nlinks.cpp            contrast-sensitive neighbour weights
//   analysis.cpp          grey test, texture maps, box tightening, contrast tests
//   lamda.cpp             smoothness weight trials and choice
//   postprocess.cpp       clean-up by edit kind, black borders
//   upscaling.cpp         full-resolution boundary refinement
//   pipeline.cpp          working image, label image, the segment loop
//   graphcut/graph_construction.cpp   filling the flow graphs
#pragma once

#include <opencv2/core/core_c.h>

#include <cstdint>
#include <vector>

#include "colormodel/ZIRKSEColorModel.h"
#include "graphcut/ZIRKSEGraph.h"
#include "support/export.h"

class SEGCORE_EXPORT ZIRKSEHybrid {
 public:
  ZIRKSEHybrid();
  ~ZIRKSEHybrid();
  ZIRKSEHybrid(const ZIRKSEHybrid&) = delete;
  ZIRKSEHybrid& operator=(const ZIRKSEHybrid&) = delete;

  // --- object, box and crops ---
  void graphSpaceAllocator();   // m_graph for the current box
  void graphSpaceDellocator();  // deletes m_graph if set
  void computeBoundingBox();    // box around the marks, 10-pixel margin
  IplImage* cropImage(IplImage* img);  // new image of the box; caller releases

  // --- neighbour weights ---
  void computeNlinks();

  // --- graph construction ---
  void constructGraphZIRK_Whole_Image();
  void constructGraphZIRK();
  // Builds m_trimapGraph over the band; 0 on success, 1 when its arrays could
  // not be allocated. `spare` is not read.
  int constructGraphTrimapZIRK(IplImage* colourImage, IplImage* spare, IplImage* trimap,
                               IplImage* featureA, IplImage* featureB);

  // --- image analysis and pre-processing ---
  bool greyScaleTest(IplImage* image);
  void computeTexture();
  bool boundaryTest(const IplImage* mask, float fraction);
  int intensityTest(const IplImage* mask);
  void preProcess();

  // --- smoothness weight ---
  int parallelLamdaSwtich(int iteration);
  int optimalLamda(IplImage** labelImages, float* candidates);
  int homogenousLamda(int iteration);
  void chooseIter();

  // --- post-processing ---
  void postProcess(IplImage* mask);
  void postProcessForLoop(IplImage* mask);
  void postProcessForStroke(IplImage* mask);
  void removeBlackRegion();

  // --- full-resolution refinement ---
  IplImage* intelligentUpscaling(IplImage* mask);
  IplImage* cropImageTrimap(IplImage* src, int width, int height, int y0, int x0);

  // --- the pipeline ---
  void intializer();
  void setLabelImage(IplImage* marker);
  void addUnknownRegion();
  IplImage* segment();
  int updateLabelImage();
  IplImage* getObjMask();
  void clearMemory();
  // True when the request was cancelled or its budget is spent; polled
  // between the stages of a request.
  bool cancelSegmentation();
  // Logs the cancel, releases the request's work and returns null.
  IplImage* endCancelled();

  int32_t m_width;              // working image size; also the row stride of m_nlinks
  int32_t m_height;
  int32_t m_cropHeight;         // rows and columns of the working box
  int32_t m_cropWidth;
  int32_t m_boundWidthTrimap;   // grid of the trimap graph
  int32_t m_boundHeightTrimap;
  IplImage* m_cropSrcImage;     // working image cropped to the box (3 channels)
  IplImage* m_cropLabelImage;   // labels of the box; rewritten after every cut
  IplImage* m_initLabelImage;   // the box labels before the first cut
  IplImage* m_labelHistory[3];  // box labels after iterations 0, 1, 2
  double m_lamda;               // smoothness weight
  double m_beta;                // contrast factor of the neighbour weights
  int64_t m_areaThreshold;      // a tenth of the marked extent's area
  ZIRKSEGraph* m_graph;         // graph of the box; exists only inside segment()
  ZIRKSEGraph* m_trimapGraph;   // graph of the refinement band
  float* m_nlinks;              // 4 weights per working pixel: left, up-left, up, up-right
  ZIRKSEColorModel m_fgModel;   // object colours
  ZIRKSEColorModel m_bgModel;   // background colours
};

// Fills the box graph as constructGraphZIRK_Whole_Image does; with
// keepFlow, a graph already solved in this segmentation starts from that
// solve's flow (see ZIRK_fillGrid), which finds the same cut with less work.
// sameModels: the colour models are those of the last fill, so are the
// terminal capacities (the fixed labels never change within a segmentation).
void ZIRK_fillBoxGraph(ZIRKSEHybrid* hybrid, bool keepFlow, bool sameModels);

// The index of the `from` positions that each of `to` positions shows when a
// row of `from` pixels is resized to `to` by nearest neighbour, read from the
// resize itself (the same along rows and columns), for enlarging and for
// reducing without the resized image.
std::vector<int32_t> ZIRK_nearestMap(int from, int to);
