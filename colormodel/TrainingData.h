// Training samples from labelled pixels, and the fits of a colour model.
#pragma once

#include <opencv2/core/core_c.h>

#include <vector>

#include "colormodel/ZIRKSEColorModel.h"
#include "support/export.h"

// Labels 2/4 go to `first` (object), 1/3 to `second` (background); both lists
// are emptied first and padded to 5 samples with (10, 20, 30). Grey images
// take (intensity, m_texHor, m_texVer) with the texture maps read at the box
// offset ZIRKSEMarker::m_xMinBBox / m_yMinBBox.
SEGCORE_EXPORT void extractTrainingData(const IplImage* source, const IplImage* labels,
                                        std::vector<pixelVal>& first,
                                        std::vector<pixelVal>& second);

// Fresh fit with the engine's own k-means; the int is ignored.
SEGCORE_EXPORT void initModel(const std::vector<pixelVal>& samples, ZIRKSEColorModel& model, int);
SEGCORE_EXPORT void initModel(const std::vector<pixelVal>& samplesA,
                              const std::vector<pixelVal>& samplesB, ZIRKSEColorModel& modelA,
                              ZIRKSEColorModel& modelB, int);
SEGCORE_EXPORT void initModelWithKmeansZIRK(const std::vector<pixelVal>& samples,
                                            ZIRKSEColorModel& model);
// Fit with OpenCV's k-means.
SEGCORE_EXPORT void initModelWithKmeans(const std::vector<pixelVal>& samples,
                                        ZIRKSEColorModel& model);
SEGCORE_EXPORT void initModelWithKmeans(const std::vector<pixelVal>& samplesA,
                                        const std::vector<pixelVal>& samplesB,
                                        ZIRKSEColorModel& modelA, ZIRKSEColorModel& modelB);
// Refit by the model's own component assignment; emptied components keep
// their parameters.
SEGCORE_EXPORT void updateModel(const std::vector<pixelVal>& samples, ZIRKSEColorModel& model);
SEGCORE_EXPORT void updateModel(const std::vector<pixelVal>& samplesA,
                                const std::vector<pixelVal>& samplesB, ZIRKSEColorModel& modelA,
                                ZIRKSEColorModel& modelB);
// A third fit of both models (not used by the pipeline).
SEGCORE_EXPORT void initThirdInitalization(const IplImage* source, const IplImage* labels,
                                           ZIRKSEColorModel& modelA, ZIRKSEColorModel& modelB);
