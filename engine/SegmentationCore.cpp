// The caller's functions: engine life cycle, source image, marker input,
// requests, results and history.
//
// Every function runs on the caller's thread and touches process-wide state
// (engine/EngineState.h, ZIRKSEMarker, ZIRKSEManageUndoRedo). Calls in the
// wrong order (no source, no engine, no marker image, null buffers, sizes that
// do not match the source) log one line with tag "Error" and return without
// touching anything; the "MEMORY_CRASH" lines report bad sizes as before.
// The caller's buffers are only read or written, never kept or freed.
//
// No exception leaves these functions: OpenCV reports a failed allocation
// (and any other failure) by throwing cv::Exception, the standard library by
// std::bad_alloc. Each function runs its body through runGuarded(), which
// logs one line, drops what the failed request held (request images, the
// segmenter's per-request crops and graphs, the contour storage) and returns
// the function's harmless result. The source image, the segmenter and the
// mask history stay as they were, so the next request can run.
#include "engine/SegmentationCore.h"

#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc/imgproc_c.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "engine/EngineState.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKLog.h"
#include "support/ZIRKPages.h"
#include "support/ZIRKMemory.h"

namespace {

constexpr unsigned int kOutlineColour = 0xFFFFFF00u;  // opaque yellow

void logCallError(const char* function, const char* problem) {
  __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: %s", function, problem);
}

// exitSegmentation may come from another thread while a request runs, like
// cancelSegmentation: the flag is read and written atomically.
int32_t loadExitStatus() { return __atomic_load_n(&g_exitStatus, __ATOMIC_SEQ_CST); }
void storeExitStatus(int32_t value) { __atomic_store_n(&g_exitStatus, value, __ATOMIC_SEQ_CST); }

// Largest image the engine takes: the source's 3-byte rows, the history's
// 4-byte words and the caller's ARGB words must all stay addressable with
// the int sizes of IplImage.
bool sizeFits(int width, int height) {
  return static_cast<int64_t>(width) * height <= INT_MAX / 4;
}

bool haveSource() {
  const IplImage* src = ZIRKSEMarker::m_originalImage;
  return src != nullptr && src->width >= 1 && src->height >= 1;
}

bool sameSizeAsSource(const IplImage* image) {
  return image != nullptr && haveSource() && image->width == ZIRKSEMarker::m_originalImage->width &&
         image->height == ZIRKSEMarker::m_originalImage->height;
}

// Images and headers of one call that must go however the call ends.
struct ImageDeleter {
  void operator()(IplImage* image) const { cvReleaseImage(&image); }
};
struct HeaderDeleter {
  void operator()(IplImage* header) const { cvReleaseImageHeader(&header); }
};
using ImagePtr = std::unique_ptr<IplImage, ImageDeleter>;
using HeaderPtr = std::unique_ptr<IplImage, HeaderDeleter>;

// A buffer of the tracked-message allocator, freed on every path.
struct ScratchDeleter {
  void operator()(void* p) const { ZIRK_Free_Msg(p, "doSegmentationBB", 0); }
};
template <typename T>
using ScratchPtr = std::unique_ptr<T, ScratchDeleter>;

void freeRequestImages() {
  ZIRK_ReleaseImage(&g_resultMask);
  ZIRK_ReleaseImage(&g_markerImage);
}

// Everything deinitSegmentation releases; also the teardown at the end of a
// request when one was asked for.
void teardownEngine() {
  ZIRK_ReleaseContourStorage();
  ZIRKSEMarker::dellocator();
  ZIRKSEMarker::m_originalWidth = ZIRKSEMarker::m_originalHeight = 0;  // the source is gone
  ZIRKSEManageUndoRedo::deallocate();
  if (pHybrid != nullptr) {
    delete pHybrid;
    pHybrid = nullptr;
  }
}

// The history as a request found it, so that the mask of a request cancelled
// after it entered the history can be taken out again. A new mask overwrites
// only the slot at m_current, which matters only when it holds a redo step;
// that slot is copied first.
struct HistoryMark {
  int32_t current, top, bottom;
  ImagePtr redoSlot;

  static HistoryMark take() {
    HistoryMark mark{ZIRKSEManageUndoRedo::m_current, ZIRKSEManageUndoRedo::m_top,
                     ZIRKSEManageUndoRedo::m_bottom, nullptr};
    if (ZIRKSEManageUndoRedo::canRedo())
      mark.redoSlot.reset(ZIRKSEManageUndoRedo::getMask(mark.current));
    return mark;
  }
  void restore() const {
    if (redoSlot != nullptr) ZIRKSEManageUndoRedo::setMask(current, redoSlot.get());
    ZIRKSEManageUndoRedo::m_current = current;
    ZIRKSEManageUndoRedo::m_top = top;
    ZIRKSEManageUndoRedo::m_bottom = bottom;
  }
};

// Same as resetSegmentationInterface.
void resetEditSequence() {
  ZIRKSEMarker::resetMarkers();
  ZIRKSEManageUndoRedo::reset();
  ZIRK_ReleaseContourStorage();
}

// Creates the segmenter for the current source image. A segmenter whose
// working image could not be made is deleted again: no engine is better than
// a half-built one.
void createEngine() {
  g_imageResizeFactor = 1.0f;
  if (pHybrid != nullptr) {
    // The old segmenter would otherwise be lost; its images belong to
    // ZIRKSEMarker and are replaced by the new one's intializer.
    logCallError("initSegmentationEngine", "an engine exists already; it is replaced");
    delete pHybrid;
    pHybrid = nullptr;
  }
  pHybrid = new (std::nothrow) ZIRKSEHybrid();
  if (pHybrid == nullptr) {
    logCallError("initSegmentationEngine", "out of memory for the segmenter");
    return;
  }
  // initializer() only forgets the label image; a label image left by an
  // earlier engine is released here instead of leaked.
  ZIRK_ReleaseImage(&ZIRKSEMarker::m_labelImage);
  ZIRKSEMarker::initializer();
  try {
    pHybrid->intializer();
  } catch (...) {
    delete pHybrid;
    pHybrid = nullptr;
    throw;
  }
}

// End of every request: tears the engine down when cancelSegmentation and
// exitSegmentation both asked for it. Returns true when it did.
bool deferredTeardown() {
  const bool teardown = loadExitStatus() != 0 && ZIRKSEMarker::m_exitApp;
  if (teardown) teardownEngine();
  storeExitStatus(0);
  return teardown;
}

// What a request that failed half-way held: its images, the segmenter's
// crops, graphs and budget timer, a half-filled contour storage. The source,
// the segmenter and the history stay; a teardown asked for still happens.
void abandonRequest() {
  if (pHybrid != nullptr) pHybrid->clearMemory();
  freeRequestImages();
  ZIRK_ReleaseContourStorage();
  deferredTeardown();
}

// Runs one exported function's body; an exception is logged as one line and
// the request abandoned. Returns false when the body did not complete.
template <typename Body>
bool runGuarded(const char* function, Body&& body) noexcept {
  try {
    body();
    return true;
  } catch (const cv::Exception& e) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: abandoned after OpenCV error %d: %s",
                        function, e.code, e.err.c_str());
  } catch (const std::bad_alloc&) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: abandoned: out of memory", function);
  } catch (const std::exception& e) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: abandoned: %s", function, e.what());
  } catch (...) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: abandoned after an unknown exception",
                        function);
  }
  try {
    abandonRequest();
  } catch (...) {
    // Releasing does not throw; nothing more can be done here if it did.
  }
  return false;
}

// Caller images are walked row by row. Every pixel is converted on its own,
// so the order changes no result; streaming both buffers once is what a
// 12-megapixel image needs (column strips cost 20 ms more per conversion).
template <typename PixelFn>
void forEachPixel(int width, int height, PixelFn fn) {
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) fn(x, y);
  }
}

// Source image to opaque ARGB words.
void writeSourceAsArgb(unsigned int* argb) {
  const IplImage* src = ZIRKSEMarker::m_originalImage;
  if (src == nullptr || argb == nullptr || src->width < 1 || src->height < 1) return;
  const int width = src->width, step = src->widthStep;
  const uint8_t* data = reinterpret_cast<const uint8_t*>(src->imageData);
  forEachPixel(width, src->height, [&](int x, int y) {
    const uint8_t* p = data + static_cast<size_t>(y) * step + 3 * static_cast<size_t>(x);
    argb[static_cast<size_t>(y) * width + x] =
        0xFF000000u | (unsigned(p[2]) << 16) | (unsigned(p[1]) << 8) | unsigned(p[0]);
  });
}

// The four column bands [0, w/4), [w/4, w/2), [w/2, 3(w/4)), [3(w/4), w).
// Within a band the rows run outer, so each row is read once per band.
template <typename PixelFn>
void forEachPixelInColumnBands(int width, int height, PixelFn fn) {
  const int bounds[5] = {0, width / 4, width / 2, 3 * (width / 4), width};
  for (int band = 0; band < 4; ++band) {
    for (int y = 0; y < height; ++y) {
      for (int x = bounds[band]; x < bounds[band + 1]; ++x) fn(x, y);
    }
  }
}

void writeMask(unsigned char* mask);
void paintOutline(unsigned int* argb);

// Shows the chosen history mask (or the plain source when there is none);
// the shared body of undo and redo.
void showHistoryMask(IplImage* chosen, unsigned int* argb, unsigned char* mask) {
  g_resultMask = chosen;
  if (g_resultMask != nullptr) {
    writeMask(mask);
    paintOutline(argb);
    freeRequestImages();
  } else {
    writeSourceAsArgb(argb);
    ZIRK_ReleaseImage(&g_markerImage);
  }
  deferredTeardown();
}

// A history request needs the buffers and a source whose history exists.
bool historyRequestValid(const char* function, unsigned int* argb, unsigned char* mask) {
  if (argb == nullptr || mask == nullptr) {
    logCallError(function, "null argb or mask buffer");
    return false;
  }
  if (!haveSource() || ZIRKSEManageUndoRedo::m_bitPlane == nullptr) {
    logCallError(function, "no source image (call setSourceImage first)");
    return false;
  }
  return true;
}

// ------------------------------------------------------- bodies of the calls

// Drops the current source with everything built on it: the engine, the
// history, the request images and the contours of the last preview.
void dropSource() {
  freeRequestImages();
  teardownEngine();
}

void setSourceBody(int width, int height, unsigned int* argb) {
  // A new image was asked for: the old one goes whether or not the new one
  // can be taken, so that no later call shows or cuts the old image.
  if (pHybrid != nullptr) {
    // The segmenter's working image and weights belong to the old source.
    logCallError("setSourceImage", "an engine exists; it is torn down first");
  }
  dropSource();
  if (width < 1 || height < 1) {
    // No image can be made of this size: nothing is created or copied.
    ZIRK_LogMemoryCrash("setSourceImage", 115);
    return;
  }
  if (argb == nullptr) {
    logCallError("setSourceImage", "null argb buffer");
    return;
  }
  if (!sizeFits(width, height)) {
    logCallError("setSourceImage", "image too large");
    return;
  }

  ImagePtr image(cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 3));
  uint8_t* data = reinterpret_cast<uint8_t*>(image->imageData);
  const int step = image->widthStep;
  ZIRK_prefault(image.get());
  // Alpha is dropped.
  forEachPixel(width, height, [&](int x, int y) {
    const unsigned int w = argb[static_cast<size_t>(y) * width + x];
    uint8_t* p = data + static_cast<size_t>(y) * step + 3 * static_cast<size_t>(x);
    p[0] = static_cast<uint8_t>(w & 0xFF);
    p[1] = static_cast<uint8_t>((w >> 8) & 0xFF);
    p[2] = static_cast<uint8_t>((w >> 16) & 0xFF);
  });
  ZIRKSEMarker::m_originalWidth = image->width;
  ZIRKSEMarker::m_originalHeight = image->height;
  ZIRKSEManageUndoRedo::allocate();
  if (ZIRKSEManageUndoRedo::m_bitPlane == nullptr) {
    // allocate() has logged why; a source without a history is not kept.
    ZIRKSEMarker::m_originalWidth = ZIRKSEMarker::m_originalHeight = 0;
    return;
  }
  ZIRKSEMarker::m_originalImage = image.release();
}

int setMarkerBody(int width, int height, int* markers, int kind) {
  // An earlier marker image no request has used goes first, also when this
  // one is refused: a later request must not run on the old marks.
  ZIRK_ReleaseImage(&g_markerImage);
  if (width < 1 || height < 1) {
    ZIRK_LogMemoryCrash("setMarkerImage", 164);
    ZIRK_LogMemoryCrash("setMarkerImage", 173);
    return 0;  // no image of this size can be made
  }
  if (markers == nullptr) {
    logCallError("setMarkerImage", "null marker buffer");
    return 0;
  }
  if (!haveSource()) {
    logCallError("setMarkerImage", "no source image (call setSourceImage first)");
    return 0;
  }
  if (width != ZIRKSEMarker::m_originalImage->width ||
      height != ZIRKSEMarker::m_originalImage->height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "setMarkerImage: marker image %dx%d differs from the source %dx%d", width,
                        height, ZIRKSEMarker::m_originalImage->width,
                        ZIRKSEMarker::m_originalImage->height);
    return 0;
  }
  ImagePtr converted(cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 1));
  ZIRK_prefault(converted.get());
  // The caller's ints are only read, through a header over their array.
  HeaderPtr wrapper(cvCreateImageHeader(cvSize(width, height), IPL_DEPTH_32S, 1));
  cvSetData(wrapper.get(), markers, width * static_cast<int>(sizeof(int)));
  cvConvertScale(wrapper.get(), converted.get(), 1.0, 0.0);  // saturates into 0..255
  g_markerImage = converted.release();
  ZIRKSEMarker::currentStroke.type = kind;
  return 0;
}

int setMarkerVectorBody(int count, int* points) {
  std::vector<int32_t>& path = ZIRKSEMarker::currentStroke.points;
  path.clear();
  if (count == 0) return 0;
  if (count < 0) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "setCurrentMarkerVector: negative count %d; the path is empty", count);
    return 0;
  }
  if (points == nullptr) {
    logCallError("setCurrentMarkerVector", "null point buffer");
    return 0;
  }
  if (!haveSource()) {
    logCallError("setCurrentMarkerVector", "no source image (call setSourceImage first)");
    return 0;
  }
  const int pairs = count / 2;
  path.reserve(static_cast<size_t>(pairs) * 2);
  const int width = ZIRKSEMarker::m_originalWidth, height = ZIRKSEMarker::m_originalHeight;
  int clamped = 0;
  for (int i = 0; i < 2 * pairs; i += 2) {
    const int givenX = points[i], givenY = points[i + 1];
    const int x = std::min(std::max(givenX, 0), width - 1);
    const int y = std::min(std::max(givenY, 0), height - 1);
    if (x != givenX || y != givenY) ++clamped;
    points[i] = x;  // the caller sees the clamped path
    points[i + 1] = y;
    path.push_back(x);
    path.push_back(y);
  }
  // One line for whatever was wrong with the path. An unpaired last int has
  // no y: it is dropped rather than paired with whatever follows the array.
  if (count % 2 != 0) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "setCurrentMarkerVector: odd count %d, the last int is ignored; %d of %d "
                        "points clamped into the %dx%d image",
                        count, clamped, pairs, width, height);
  } else if (clamped > 0) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "setCurrentMarkerVector: %d of %d points clamped into the %dx%d image",
                        clamped, pairs, width, height);
  }
  return 0;
}

int segmentRequest(unsigned int* argb, unsigned char* mask);

int processSegmentBody(unsigned int* argb, unsigned char* mask) {
  if (argb == nullptr || mask == nullptr) {
    logCallError("processSegment", "null argb or mask buffer");
    return pHybrid != nullptr ? 0 : -1;
  }
  return segmentRequest(argb, mask);
}

// The request behind processSegment; argb may be null when nobody sees the
// preview (the rectangle request): the outline's contours are still found.
int segmentRequest(unsigned int* argb, unsigned char* mask) {
  if (pHybrid == nullptr) {
    logCallError("processSegment", "no engine (call initSegmentationEngine first)");
    return -1;
  }
  if (!haveSource()) {
    logCallError("processSegment", "no source image");
    return 0;
  }
  if (g_markerImage != nullptr && !sameSizeAsSource(g_markerImage)) {
    logCallError("processSegment", "marker image size differs from the source");
    ZIRK_ReleaseImage(&g_markerImage);
    return 0;
  }

  const bool segmented = g_markerImage != nullptr;
  if (segmented) {
    const HistoryMark before = HistoryMark::take();
    pHybrid->setLabelImage(g_markerImage);
    ZIRK_ReleaseImage(&g_resultMask);  // left by an unfinished request
    g_resultMask = pHybrid->segment();
    if (g_resultMask != nullptr && !sameSizeAsSource(g_resultMask)) {
      logCallError("processSegment", "segmenter returned a mask of the wrong size");
      ZIRK_ReleaseImage(&g_resultMask);
    }
    if (g_resultMask != nullptr) {
      // The outline is painted before the mask is handed over, so that a
      // cancel made meanwhile still ends the request with no mask; the new
      // mask then leaves the history again, and so do its contours.
      paintOutline(argb);
      if (ZIRKSEMarker::m_exitApp) {
        __android_log_print(ANDROID_LOG_ERROR, "Error", "Segmentation canceled due to timeout");
        before.restore();
        ZIRK_ReleaseImage(&g_resultMask);
        ZIRK_ReleaseContourStorage();
      } else {
        writeMask(mask);
        freeRequestImages();
        return deferredTeardown() ? -1 : 0;
      }
    }
  }
  if (g_resultMask != nullptr) {
    paintOutline(argb);
    freeRequestImages();
  } else {
    // Cancelled, timed out or nothing to do: the plain source, mask untouched.
    if (argb != nullptr) writeSourceAsArgb(argb);
    ZIRK_ReleaseImage(&g_markerImage);
  }
  // The cancel stays raised: only a reset or a new engine lowers it, so an
  // exitSegmentation made after this request still finds it.
  return deferredTeardown() ? -1 : 0;
}

void cutOutBody(unsigned int* argb, unsigned char* mask) {
  if (ZIRKSEMarker::m_originalWidth < 1 || ZIRKSEMarker::m_originalHeight < 1) {
    ZIRK_LogMemoryCrash("cutOutImage", 197);
    return;  // no mask of this size can be made
  }
  if (!haveSource()) {
    logCallError("cutOutImage", "no source image");
    return;
  }
  if (g_markerImage == nullptr) {
    logCallError("cutOutImage", "no marker image (call setMarkerImage first)");
    return;
  }
  if (!sameSizeAsSource(g_markerImage)) {
    logCallError("cutOutImage", "marker image size differs from the source");
    ZIRK_ReleaseImage(&g_markerImage);
    return;
  }
  const int width = ZIRKSEMarker::m_originalWidth, height = ZIRKSEMarker::m_originalHeight;
  ZIRK_ReleaseImage(&g_resultMask);
  g_resultMask = cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 1);
  ImagePtr previous(ZIRKSEManageUndoRedo::prevMask());
  if (previous != nullptr) {
    cvCopy(previous.get(), g_resultMask);
  } else {
    cvSetZero(g_resultMask);  // unmarked pixels are background, not garbage
  }
  previous.reset();
  for (int y = 0; y < height; ++y) {
    const uint8_t* marks = reinterpret_cast<const uint8_t*>(g_markerImage->imageData) +
                           static_cast<size_t>(y) * g_markerImage->widthStep;
    uint8_t* out = reinterpret_cast<uint8_t*>(g_resultMask->imageData) +
                   static_cast<size_t>(y) * g_resultMask->widthStep;
    for (int x = 0; x < width; ++x) {
      if (marks[x] == kLabelObjectFixed) out[x] = 255;
      else if (marks[x] == kLabelBackgroundFixed) out[x] = 0;
    }
  }
  ZIRKSEManageUndoRedo::updateBitPlane(g_resultMask);
  if (mask != nullptr) writeMask(mask);
  if (argb != nullptr) paintOutline(argb);
  freeRequestImages();
  deferredTeardown();
}

// The rectangle of doSegmentationBB brought into the image. Corners given
// the other way round describe the same rectangle and are swapped; corners
// outside the image are clamped, as each path point would be (the path then
// holds no runs of repeated border points, and no coordinate range can
// overflow or ask for a huge path). A rectangle with no pixel in the image
// is refused. Whatever was wrong is logged in one line.
bool fitRectangle(int width, int height, int& x1, int& y1, int& x2, int& y2) {
  const int gx1 = x1, gy1 = y1, gx2 = x2, gy2 = y2;
  const bool inverted = x2 < x1 || y2 < y1;
  if (x2 < x1) std::swap(x1, x2);
  if (y2 < y1) std::swap(y1, y2);
  if (x2 < 0 || y2 < 0 || x1 >= width || y1 >= height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "doSegmentationBB: rectangle (%d, %d)-(%d, %d) lies outside the %dx%d "
                        "image; nothing done",
                        gx1, gy1, gx2, gy2, width, height);
    return false;
  }
  const bool outside = x1 < 0 || y1 < 0 || x2 >= width || y2 >= height;
  x1 = std::max(x1, 0);
  y1 = std::max(y1, 0);
  x2 = std::min(x2, width - 1);
  y2 = std::min(y2, height - 1);
  if (inverted || outside) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "doSegmentationBB: rectangle (%d, %d)-(%d, %d) %s; (%d, %d)-(%d, %d) used",
                        gx1, gy1, gx2, gy2,
                        inverted && outside ? "inverted and partly outside the image"
                        : inverted          ? "inverted"
                                            : "partly outside the image",
                        x1, y1, x2, y2);
  }
  return true;
}

void doSegmentationBBBody(int width, int height, unsigned int* argb, int x1, int y1, int x2,
                          int y2, unsigned char* mask) {
  if (argb == nullptr || mask == nullptr) {
    logCallError("doSegmentationBB", "null argb or mask buffer");
    return;
  }
  if (width < 1 || height < 1 || !sizeFits(width, height)) {
    ZIRK_LogMemoryCrash("setSourceImage", 115);
    return;
  }
  if (!fitRectangle(width, height, x1, y1, x2, y2)) return;

  // The preview would go to a private copy that nobody sees, so none is
  // made; the marks go straight into the byte marker image.
  const size_t pointCount = 2 * (static_cast<size_t>(x2 - x1) + static_cast<size_t>(y2 - y1));
  ScratchPtr<int> path(static_cast<int*>(
      ZIRK_Malloc_Msg((pointCount + 1) * 2 * sizeof(int), "doSegmentationBB", __LINE__)));
  if (path == nullptr) return;  // logged

  int n = 0;
  int* p = path.get();
  for (int x = x1; x < x2; ++x) p[n++] = x, p[n++] = y1;
  for (int y = y1; y < y2; ++y) p[n++] = x2, p[n++] = y;
  for (int x = x2; x > x1; --x) p[n++] = x, p[n++] = y2;
  for (int y = y2; y > y1; --y) p[n++] = x1, p[n++] = y;

  dropSource();
  resetEditSequence();
  setSourceBody(width, height, argb);
  if (!haveSource()) return;  // logged
  createEngine();
  setMarkerVectorBody(n, p);
  // Inside of the rectangle, corners included: object, estimated.
  ImagePtr marks(cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 1));
  ZIRK_prefault(marks.get());
  cvSetZero(marks.get());
  for (int y = y1; y <= y2; ++y) {
    uint8_t* row = reinterpret_cast<uint8_t*>(marks->imageData) + static_cast<size_t>(y) * marks->widthStep;
    std::fill(row + x1, row + x2 + 1, static_cast<uint8_t>(kLabelObjectEst));
  }
  ZIRK_ReleaseImage(&g_markerImage);
  g_markerImage = marks.release();
  ZIRKSEMarker::currentStroke.type = kEditLoopAdd;
  segmentRequest(nullptr, mask);
}

// Inverted for the caller: 0 = object.
void writeMask(unsigned char* mask) {
  const int width = g_resultMask->width, height = g_resultMask->height;
  const int step = g_resultMask->widthStep;
  const uint8_t* data = reinterpret_cast<const uint8_t*>(g_resultMask->imageData);
  forEachPixelInColumnBands(width, height, [&](int x, int y) {
    mask[static_cast<size_t>(y) * width + x] = data[static_cast<size_t>(y) * step + x] > 254 ? 0 : 255;
  });
}

void paintOutline(unsigned int* argb) {
  const int width = g_resultMask->width, height = g_resultMask->height;
  if (width < 1 || height < 1) {
    ZIRK_LogMemoryCrash("loadBlendedImageInfo", 493);
    return;
  }
  // The contours stay in `storage` for fetch_path_array.
  ZIRK_ReleaseContourStorage();
  storage = cvCreateMemStorage(0);
  contours = nullptr;
  {
    ImagePtr scratch(cvCloneImage(g_resultMask));  // the search writes into its input
    cvFindContours(scratch.get(), storage, &contours, sizeof(CvContour), CV_RETR_LIST,
                   CV_CHAIN_APPROX_SIMPLE, cvPoint(0, 0));
  }
  if (contours != nullptr) g_contoursFound = 1;
  if (argb == nullptr) return;  // contours only
  ImagePtr outline(cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 1));
  ZIRK_prefault(outline.get());
  cvSetZero(outline.get());
  if (contours != nullptr) {
    cvDrawContours(outline.get(), contours, cvScalarAll(255), cvScalarAll(255), 255, 2, CV_AA,
                   cvPoint(0, 0));
  }

  // Only fully covered outline pixels are painted, not the anti-aliased fringe.
  const int step = outline->widthStep;
  const uint8_t* data = reinterpret_cast<const uint8_t*>(outline->imageData);
  forEachPixelInColumnBands(width, height, [&](int x, int y) {
    if (data[static_cast<size_t>(y) * step + x] == 255)
      argb[static_cast<size_t>(y) * width + x] = kOutlineColour;
  });
}

}  // namespace

// ---------------------------------------------------------------- life cycle

int initSegmentationEngine(int) {
  runGuarded("initSegmentationEngine", [] {
    if (!haveSource()) {
      logCallError("initSegmentationEngine", "no source image (call setSourceImage first)");
      return;
    }
    createEngine();
  });
  return 0;
}

int deinitSegmentation() {
  runGuarded("deinitSegmentation", [] {
    // The marker image and mask of an unfinished request go too, and so does
    // a teardown request that no request has honoured: it meant this engine.
    dropSource();
    storeExitStatus(0);
  });
  return 0;
}

int resetSegmentationInterface() {
  runGuarded("resetSegmentationInterface", [] { resetEditSequence(); });
  return 0;
}

void cancelSegmentation() { ZIRKSEMarker::m_exitApp = true; }

void exitSegmentation() { storeExitStatus(ZIRKSEMarker::m_exitApp ? 1 : 0); }

int setSourceImage(int width, int height, unsigned int* argb) {
  runGuarded("setSourceImage", [&] { setSourceBody(width, height, argb); });
  return 0;
}

void copySourceImage(unsigned int* argb) {
  if (argb == nullptr) {
    logCallError("copySourceImage", "null argb buffer");
    return;
  }
  if (!haveSource()) {
    logCallError("copySourceImage", "no source image");
    return;
  }
  writeSourceAsArgb(argb);
}

void freeLocalBuffers() {
  runGuarded("freeLocalBuffers", [] { freeRequestImages(); });
}

// -------------------------------------------------------------- marker input

int setMarkerImage(int width, int height, int* markers, int kind) {
  runGuarded("setMarkerImage", [&] { setMarkerBody(width, height, markers, kind); });
  return 0;
}

int setCurrentMarkerVector(int count, int* points) {
  runGuarded("setCurrentMarkerVector", [&] { setMarkerVectorBody(count, points); });
  return 0;
}

// ------------------------------------------------------------------ requests

int processSegment(int, int, int, unsigned int* argb, unsigned char* mask) {
  int result = 0;
  if (!runGuarded("processSegment", [&] { result = processSegmentBody(argb, mask); }))
    result = pHybrid != nullptr ? 0 : -1;
  return result;
}

void cutOutImage(int, int, int, unsigned int* argb, unsigned char* mask) {
  runGuarded("cutOutImage", [&] { cutOutBody(argb, mask); });
}

int doSegmentationBB(int width, int height, unsigned int* argb, int x1, int y1, int x2, int y2,
                     unsigned char* mask) {
  runGuarded("doSegmentationBB",
             [&] { doSegmentationBBBody(width, height, argb, x1, y1, x2, y2, mask); });
  return 0;
}

// ------------------------------------------------------------------- results

void loadMaskImageInfo(unsigned char* mask) {
  if (mask == nullptr || g_resultMask == nullptr) {
    logCallError("loadMaskImageInfo", mask == nullptr ? "null mask buffer" : "no result mask");
    return;
  }
  writeMask(mask);
}

int loadBlendedImageInfo(unsigned int* argb) {
  if (argb == nullptr || g_resultMask == nullptr) {
    logCallError("loadBlendedImageInfo", argb == nullptr ? "null argb buffer" : "no result mask");
    return 0;
  }
  runGuarded("loadBlendedImageInfo", [&] { paintOutline(argb); });
  return 0;
}

// ------------------------------------------------------------------- history

// A step whose mask could not be shown is not taken: the position goes back
// to where it was, so the next step starts from the mask the caller sees.
void undo(unsigned int* argb, unsigned char* mask) {
  const int32_t current = ZIRKSEManageUndoRedo::m_current;
  const bool done = runGuarded("undo", [&] {
    if (!historyRequestValid("undo", argb, mask)) return;
    ZIRK_ReleaseImage(&g_resultMask);
    showHistoryMask(ZIRKSEManageUndoRedo::undo(), argb, mask);
  });
  if (!done && ZIRKSEManageUndoRedo::m_bitPlane != nullptr) ZIRKSEManageUndoRedo::m_current = current;
}

void redo(unsigned int* argb, unsigned char* mask) {
  const int32_t current = ZIRKSEManageUndoRedo::m_current;
  const bool done = runGuarded("redo", [&] {
    if (!historyRequestValid("redo", argb, mask)) return;
    ZIRK_ReleaseImage(&g_resultMask);
    showHistoryMask(ZIRKSEManageUndoRedo::redo(), argb, mask);
  });
  if (!done && ZIRKSEManageUndoRedo::m_bitPlane != nullptr) ZIRKSEManageUndoRedo::m_current = current;
}

bool canUndo() { return ZIRKSEManageUndoRedo::canUndo(); }

bool canRedo() { return ZIRKSEManageUndoRedo::canRedo(); }
