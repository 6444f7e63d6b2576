// Training samples from labelled pixels, and the fits of a colour model.
//
// Every fit gives each sample a component label 0..4 and sets each non-empty
// component to its share of the samples, its mean and its population
// covariance; a component without samples keeps its previous parameters (so
// the weights of a refitted model may sum to more than 1). Fits end with
// setDeterminant(); the caller runs setInverseCovariance() before querying.
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

// Fresh fit with the engine's own k-means (k_means, at most 10 iterations);
// the int is ignored. Fewer than 5 samples leave the model unchanged.
SEGCORE_EXPORT void initModel(const std::vector<pixelVal>& samples, ZIRKSEColorModel& model, int);
SEGCORE_EXPORT void initModel(const std::vector<pixelVal>& samplesA,
                              const std::vector<pixelVal>& samplesB, ZIRKSEColorModel& modelA,
                              ZIRKSEColorModel& modelB, int);
SEGCORE_EXPORT void initModelWithKmeansZIRK(const std::vector<pixelVal>& samples,
                                            ZIRKSEColorModel& model);
// Fit with OpenCV's k-means (k-means++ centres, 10 iterations). Fewer than 5
// samples leave the model unchanged (with a log line when there are 1 to 4).
SEGCORE_EXPORT void initModelWithKmeans(const std::vector<pixelVal>& samples,
                                        ZIRKSEColorModel& model);
SEGCORE_EXPORT void initModelWithKmeans(const std::vector<pixelVal>& samplesA,
                                        const std::vector<pixelVal>& samplesB,
                                        ZIRKSEColorModel& modelA, ZIRKSEColorModel& modelB);
// One hard-assignment step: each sample to the model's assignCluster, then
// the moments; emptied components keep their parameters.
SEGCORE_EXPORT void updateModel(const std::vector<pixelVal>& samples, ZIRKSEColorModel& model);
SEGCORE_EXPORT void updateModel(const std::vector<pixelVal>& samplesA,
                                const std::vector<pixelVal>& samplesB, ZIRKSEColorModel& modelA,
                                ZIRKSEColorModel& modelB);
// A third fit of both models (not used by the pipeline). modelB is fitted by
// OpenCV's k-means to the background pixels (labels 1, 3); the object pixels
// (labels 2, 4) are ranked by their density under it. The least
// background-like third alone is fitted into modelA, the most
// background-like third joins the background pixels fitted into modelB.
SEGCORE_EXPORT void initThirdInitalization(const IplImage* source, const IplImage* labels,
                                           ZIRKSEColorModel& modelA, ZIRKSEColorModel& modelB);
