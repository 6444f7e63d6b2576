// Image analysis around the cuts: the grey test, texture maps of grey images,
// the two tests that judge a trial result (does the object reach the box
// borders, is the colour contrast across its boundary stronger than inside
// it), and the gradient-driven tightening of the box before the graph is
// built.
//
// preProcess in a few lines: the grey crop's Sobel magnitude is averaged per
// row and column; three passes shrink the box to the first/last lines whose
// mean magnitude exceeds 5; the last pass then grows the edges back over
// lines whose mean step to the next line is moderate (0.5..40 grey levels)
// and over at most 5 more lines of smooth ground. Memory: two float images
// of the box.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKLog.h"
#include "support/ZIRKTimer.h"

namespace {

inline uint8_t* pixelRow(IplImage* img, int y) {
  return reinterpret_cast<uint8_t*>(img->imageData) + static_cast<size_t>(y) * img->widthStep;
}
inline const uint8_t* pixelRow(const IplImage* img, int y) {
  return reinterpret_cast<const uint8_t*>(img->imageData) +
         static_cast<size_t>(y) * img->widthStep;
}

double nowMs() {
  struct timeval t;
  gettimeofday(&t, nullptr);
  return static_cast<double>(t.tv_sec) * 1000.0 + static_cast<double>(t.tv_usec) * 0.001;
}

// A rectangle of the crop: origin and size.
struct Rect {
  int x0, y0, w, h;
};

constexpr float kEdgeMagnitude = 5.0f;   // mean gradient of a line with structure
constexpr double kGrowMinStep = 0.5;     // edge growth: mean step to the next line ...
constexpr double kGrowMaxStep = 40.0;    // ... must lie in this range
constexpr float kSmoothStep = 10.0f;     // short extension stops at a larger mean change
constexpr int kSmoothLines = 5;          // short extension: at most this many lines

// One tightening pass: the first and last rows and columns of `r` whose mean
// magnitude exceeds the threshold. False when a side finds none.
bool tightenOnce(const cv::Mat& mag, Rect& r) {
  auto rowMean = [&](int y) {
    const float* p = mag.ptr<float>(r.y0 + y) + r.x0;
    double s = 0.0;
    for (int x = 0; x < r.w; ++x) s += p[x];
    return static_cast<float>(s) * (1.0f / static_cast<float>(r.w));
  };
  auto colMean = [&](int x) {
    double s = 0.0;
    for (int y = 0; y < r.h; ++y) s += mag.ptr<float>(r.y0 + y)[r.x0 + x];
    return static_cast<float>(s) * (1.0f / static_cast<float>(r.h));
  };
  int top = 0;
  while (top < r.h && !(rowMean(top) > kEdgeMagnitude)) ++top;
  if (top == r.h) return false;
  int bottom = r.h - 1;
  while (bottom > top && !(rowMean(bottom) > kEdgeMagnitude)) --bottom;
  int left = 0;
  while (left < r.w && !(colMean(left) > kEdgeMagnitude)) ++left;
  if (left == r.w) return false;
  int right = r.w - 1;
  while (right > left && !(colMean(right) > kEdgeMagnitude)) --right;
  r.x0 += left;
  r.y0 += top;
  r.w = right - left + 1;
  r.h = bottom - top + 1;
  return true;
}

// Mean over the rows of `r` of |G(xa, y) - G(xb, y)|.
float columnStep(const cv::Mat& g, const Rect& r, int xa, int xb) {
  double s = 0.0;
  for (int y = r.y0; y < r.y0 + r.h; ++y) {
    const float* p = g.ptr<float>(y);
    s += std::fabs(static_cast<double>(p[xa]) - static_cast<double>(p[xb]));
  }
  return static_cast<float>(s * (1.0 / r.h));
}

// Mean over the columns of `r` of |G(x, ya) - G(x, yb)|.
float rowStep(const cv::Mat& g, const Rect& r, int ya, int yb) {
  const float* a = g.ptr<float>(ya);
  const float* b = g.ptr<float>(yb);
  double s = 0.0;
  for (int x = r.x0; x < r.x0 + r.w; ++x)
    s += std::fabs(static_cast<double>(a[x]) - static_cast<double>(b[x]));
  return static_cast<float>(s * (1.0 / r.w));
}

float columnMean(const cv::Mat& g, const Rect& r, int x) {
  double s = 0.0;
  for (int y = r.y0; y < r.y0 + r.h; ++y) s += g.ptr<float>(y)[x];
  return static_cast<float>(s * (1.0 / r.h));
}

float rowMeanGrey(const cv::Mat& g, const Rect& r, int y) {
  const float* p = g.ptr<float>(y);
  double s = 0.0;
  for (int x = r.x0; x < r.x0 + r.w; ++x) s += p[x];
  return static_cast<float>(s * (1.0 / r.w));
}

bool moderateStep(float step) { return step >= kGrowMinStep && step <= kGrowMaxStep; }

// Grows the edges of `r` outward over moderate steps, left, right, top, bottom.
void growEdges(const cv::Mat& g, Rect& r, int cw, int ch) {
  while (r.x0 > 0 && moderateStep(columnStep(g, r, r.x0, r.x0 - 1))) {
    --r.x0;
    ++r.w;
  }
  while (r.x0 + r.w - 1 < cw - 1 && moderateStep(columnStep(g, r, r.x0 + r.w - 1, r.x0 + r.w)))
    ++r.w;
  while (r.y0 > 0 && moderateStep(rowStep(g, r, r.y0, r.y0 - 1))) {
    --r.y0;
    ++r.h;
  }
  while (r.y0 + r.h - 1 < ch - 1 && moderateStep(rowStep(g, r, r.y0 + r.h - 1, r.y0 + r.h)))
    ++r.h;
}

// Extends each side by at most 5 lines while the mean grey stays smooth.
void extendOverSmoothGround(const cv::Mat& g, Rect& r, int cw, int ch) {
  auto passed = [](auto&& differs) {
    int k = 0;
    while (k < kSmoothLines && !differs(k)) ++k;
    return k;
  };
  if (r.x0 > kSmoothLines) {
    const int n = passed([&](int k) {
      return std::fabs(columnMean(g, r, r.x0 - k) - columnMean(g, r, r.x0 - k - 1)) > kSmoothStep;
    });
    r.x0 -= n;
    r.w += n;
  }
  if (r.x0 + r.w <= cw - 6) {
    const int edge = r.x0 + r.w - 1;
    const int n = passed([&](int k) {
      return std::fabs(columnMean(g, r, edge + k) - columnMean(g, r, edge + k + 1)) > kSmoothStep;
    });
    r.w += n;
  }
  if (r.y0 > kSmoothLines) {
    const int n = passed([&](int k) {
      return std::fabs(rowMeanGrey(g, r, r.y0 - k) - rowMeanGrey(g, r, r.y0 - k - 1)) >
             kSmoothStep;
    });
    r.y0 -= n;
    r.h += n;
  }
  if (r.y0 + r.h <= ch - 6) {
    const int edge = r.y0 + r.h - 1;
    const int n = passed([&](int k) {
      return std::fabs(rowMeanGrey(g, r, edge + k) - rowMeanGrey(g, r, edge + k + 1)) >
             kSmoothStep;
    });
    r.h += n;
  }
}

}  // namespace

bool ZIRKSEHybrid::greyScaleTest(IplImage* image) {
  if (image == nullptr || image->nChannels < 3) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "greyScaleTest: no 3-channel image");
    return false;
  }
  float sum = 0.0f;
  for (int y = 0; y < image->height; ++y) {
    const uint8_t* p = pixelRow(image, y);
    for (int x = 0; x < image->width; ++x, p += image->nChannels) {
      sum += static_cast<float>(std::abs(p[0] - p[1]) + std::abs(p[0] - p[2]));
    }
  }
  // An image without pixels gives 0/0, which is not >= 1: grey.
  const float mean = sum / static_cast<float>(image->width * image->height);
  return !(mean >= 1.0f);
}

void ZIRKSEHybrid::computeTexture() {
  IplImage* src = ZIRKSEMarker::m_srcImage;
  if (src == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "computeTexture: no working image");
    return;
  }
  const int w = src->width;
  const int h = src->height;
  const bool badSize = w < 1 || h < 1;
  if (badSize) ZIRK_LogMemoryCrash("computeTexture", 2817);
  ZIRK_ReleaseImage(&ZIRKSEMarker::m_texHor);
  ZIRK_ReleaseImage(&ZIRKSEMarker::m_texVer);
  if (badSize) {
    ZIRK_LogMemoryCrash("computeTexture", 2818);
    return;  // nothing to measure; no zero-sized maps
  }
  IplImage* hor = nullptr;
  IplImage* ver = nullptr;
  ZIRKReleaseOnExit releaseHor(&hor), releaseVer(&ver);
  hor = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
  ver = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
  cvSetZero(hor);
  cvSetZero(ver);
  const int step = src->nChannels;
  auto s = [&](int x, int y) { return static_cast<int>(pixelRow(src, y)[x * step]); };

  for (int y = 1; y < h; ++y) {
    uint8_t* th = pixelRow(hor, y);
    uint8_t* tv = pixelRow(ver, y);
    for (int x = 0; x + 1 < w; ++x) {
      th[x] = static_cast<uint8_t>(std::abs(s(x + 1, y) - s(x, y)));
      tv[x] = static_cast<uint8_t>(std::abs(s(x, y - 1) - s(x, y)));
    }
  }
  // Row 0 has no row above: the row below stands in. A single-row image has
  // neither, so its vertical texture stays 0.
  for (int x = 0; x + 1 < w; ++x) {
    pixelRow(hor, 0)[x] = static_cast<uint8_t>(std::abs(s(x + 1, 0) - s(x, 0)));
    if (h >= 2) pixelRow(ver, 0)[x] = static_cast<uint8_t>(std::abs(s(x, 1) - s(x, 0)));
  }
  // Last column: the horizontal step looks left. The vertical one reads the
  // byte at offset w-1 of each row (not pixel w-1), a kept quirk of the
  // feature. A one-column image has no left neighbour and keeps 0.
  if (w >= 2) {
    for (int y = 1; y < h; ++y) {
      pixelRow(hor, y)[w - 1] = static_cast<uint8_t>(std::abs(s(w - 2, y) - s(w - 1, y)));
      pixelRow(ver, y)[w - 1] =
          static_cast<uint8_t>(std::abs(pixelRow(src, y - 1)[w - 1] - pixelRow(src, y)[w - 1]));
    }
  }
  ZIRKSEMarker::m_texHor = releaseHor.keep();
  ZIRKSEMarker::m_texVer = releaseVer.keep();
}

bool ZIRKSEHybrid::boundaryTest(const IplImage* mask, float fraction) {
  if (mask == nullptr) return false;
  const int W = mask->width;
  const int H = mask->height;
  int xmin = 2147483647, ymin = 2147483647, xmax = -1, ymax = -1;
  for (int y = 0; y < H; ++y) {
    const uint8_t* row = pixelRow(mask, y);
    for (int x = 0; x < W; ++x) {
      if (row[x] != 255) continue;
      if (x < xmin) xmin = x;
      if (x > xmax) xmax = x;
      if (y < ymin) ymin = y;
      if (y > ymax) ymax = y;
    }
  }
  const int tx = static_cast<int>(static_cast<float>(W) * fraction);
  const int ty = static_cast<int>(static_cast<float>(H) * fraction);
  // Far sides measured as W - xmax (not W - 1 - xmax), as the trials are tuned.
  return xmin < tx && W - xmax < tx && ymin < ty && H - ymax < ty;
}

int ZIRKSEHybrid::intensityTest(const IplImage* mask) {
  const IplImage* src = m_cropSrcImage;
  if (mask == nullptr || src == nullptr || mask->width != src->width ||
      mask->height != src->height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "intensityTest: mask and crop differ");
    return 2;
  }
  const int W = mask->width;
  const int H = mask->height;
  const int ch = src->nChannels;
  float outSum = 0.0f, outCount = 0.0f, inSum = 0.0f, inCount = 0.0f;
  for (int y = 1; y <= H - 2; ++y) {
    for (int x = 1; x <= W - 2; ++x) {
      if (pixelRow(mask, y)[x] != 255) continue;
      const uint8_t* p = pixelRow(src, y) + x * ch;
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
          if (dx == 0 && dy == 0) continue;
          const uint8_t* q = pixelRow(src, y + dy) + (x + dx) * ch;
          double sq = 0.0;
          for (int k = 0; k < 3; ++k) {
            const double d = static_cast<double>(p[k]) - static_cast<double>(q[k]);
            sq += d * d;
          }
          const float d = std::sqrt(static_cast<float>(sq));
          if (pixelRow(mask, y + dy)[x + dx] == 255) {
            inSum += d;
            inCount += 1.0f;
          } else {
            outSum += d;
            outCount += 1.0f;
          }
        }
      }
    }
  }
  // With an empty count the difference is NaN and the comparison fails: 2.
  const float diff = outSum / outCount - inSum / inCount;
  return diff >= 0.0f ? 1 : 2;
}

void ZIRKSEHybrid::preProcess() {
  const double start = nowMs();
  // 1. Black borders of the picture go to the background first.
  removeBlackRegion();

  // 2-4. Grey crop and its gradient magnitude.
  const int cw = m_cropWidth;
  const int ch = m_cropHeight;
  if (cw < 1 || ch < 1 || ZIRKSEMarker::m_srcImage == nullptr || ZIRKSEMarker::m_labelImage == nullptr) {
    ZIRK_LogMemoryCrash("preProcess", 2871);
    g_t_preProcess += nowMs() - start;
    return;  // nothing to tighten
  }
  IplImage* crop = cropImage(ZIRKSEMarker::m_srcImage);
  if (crop == nullptr) {
    g_t_preProcess += nowMs() - start;
    return;
  }
  IplImage* grey = nullptr;
  ZIRKReleaseOnExit releaseCrop(&crop), releaseGrey(&grey);
  grey = cvCreateImage(cvGetSize(crop), IPL_DEPTH_8U, 1);
  cvCvtColor(crop, grey, CV_BGR2GRAY);
  cv::Mat greyMat = cv::cvarrToMat(grey, true);
  cvReleaseImage(&crop);
  cvReleaseImage(&grey);

  cv::Mat greyF;
  greyMat.convertTo(greyF, CV_32F);
  cv::Mat gx, gy, mag;
  cv::Sobel(greyMat, gx, CV_32F, 1, 0, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::Sobel(greyMat, gy, CV_32F, 0, 1, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::magnitude(gx, gy, mag);

  // 5. Three tightening passes; the last one grows the edges back out.
  Rect r{0, 0, cw, ch};
  bool valid = true;
  for (int pass = 0; pass < 3 && valid; ++pass) {
    valid = tightenOnce(mag, r);
    if (valid && pass == 2) {
      growEdges(greyF, r, cw, ch);
      extendOverSmoothGround(greyF, r, cw, ch);
    }
  }

  // 6. A changed box: the outer strip and the rim of the new box become
  // fixed background, and the box moves in.
  if (valid && (r.x0 != 0 || r.y0 != 0 || r.x0 + r.w != cw || r.y0 + r.h != ch)) {
    IplImage* labels = ZIRKSEMarker::m_labelImage;
    for (int y = 0; y < ch; ++y) {
      uint8_t* row = pixelRow(labels, ZIRKSEMarker::m_yMinBBox + y) + ZIRKSEMarker::m_xMinBBox;
      const bool rowOut = y <= r.y0 || y >= r.y0 + r.h - 1;
      for (int x = 0; x < cw; ++x) {
        if (rowOut || x <= r.x0 || x >= r.x0 + r.w - 1) row[x] = kLabelBackgroundFixed;
      }
    }
    ZIRKSEMarker::m_xMinBBox += r.x0;
    ZIRKSEMarker::m_yMinBBox += r.y0;
    m_cropHeight = r.h;
    m_cropWidth = r.w;
  }
  g_t_preProcess += nowMs() - start;
}
