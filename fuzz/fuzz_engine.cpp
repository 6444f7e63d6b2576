// Drives random sequences of the exported functions with small random
// images, marker images, strokes, rectangles, cancellations, undo and redo,
// and the live-wire calls on the current source image.
//
// Input format (see make_corpus.py, which writes the seed corpus): a stream
// of operations, each an opcode byte followed by its arguments. A value in a
// range of up to 256 numbers takes one byte, up to 65536 two bytes (little
// endian), more four; reading past the end gives zeros, so every input is a
// valid program.
//
// The harness keeps the caller's side of the contract: every buffer it hands
// over holds exactly as many pixels as the engine's current source image
// (one word when there is none), allocated on its own so that the address
// sanitizer sees any access past it. Everything else (call order, sizes,
// counts, points, rectangles, marker sizes, null pointers) is left to chance.
// Beyond the sanitizers, it checks what a caller can see after every call
// and traps when something is wrong:
//  - no request leaves a result mask behind, and a source always has its
//    history (of its size) and an engine always has its source;
//  - a mask buffer is left untouched or filled with 0 and 255 only;
//  - a preview pixel is the caller's pixel, the opaque source pixel or the
//    outline colour;
//  - the live-wire parents form a tree rooted at the seed, a seed outside the
//    image throws std::out_of_range, and the contour array handed over by
//    fetch_path_array is well formed and lies inside the source.
#include <opencv2/core/core_c.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "engine/EngineState.h"
#include "engine/SegmentationCore.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"
#include "livewire/LiveWire.h"

namespace {

#ifdef SEGCORE_WORKING_PIXELS
constexpr int kWorkingPixels = SEGCORE_WORKING_PIXELS;  // this build's working-pixel budget
#else
constexpr int kWorkingPixels = 76800;
#endif
constexpr int sideOfSquare(int pixels) {
  int side = 1;
  while (side * side < pixels) ++side;
  return side;
}
constexpr int kMaxSide = 32;  // small images: most sequences
// Large ones: the working image is reduced (from somewhat below the square
// of the budget's size on, depending on the other side).
constexpr int kLargeMin = sideOfSquare(kWorkingPixels) - 8;
constexpr int kLargeMax = kLargeMin + 30;
constexpr int kMaxOps = 40;
constexpr unsigned int kOutline = 0xFFFFFF00u;
constexpr unsigned char kMaskFill = 0x77;

void check(bool ok) {
  if (!ok) __builtin_trap();
}

// The per-pixel loops of the harness: their comparisons say nothing about
// the input and would cost a trace call per pixel.
#define NO_TRACE __attribute__((no_sanitize("coverage"), noinline))

// Forward reader of the fuzz input.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
  bool empty() const { return m_at >= m_size; }
  uint8_t byte() { return m_at < m_size ? m_data[m_at++] : 0; }
  bool flag() { return (byte() & 1) != 0; }
  uint32_t word() {
    uint32_t w = 0;
    for (int i = 0; i < 4; ++i) w |= static_cast<uint32_t>(byte()) << (8 * i);
    return w;
  }
  // A number in [lo, hi].
  int range(int lo, int hi) {
    const uint64_t span = static_cast<uint64_t>(static_cast<int64_t>(hi) - lo) + 1;
    uint64_t v;
    if (span <= 256) v = byte();
    else if (span <= 65536) v = byte() | (static_cast<uint64_t>(byte()) << 8);
    else v = word();
    return static_cast<int>(lo + static_cast<int64_t>(v % span));
  }
  // A coordinate for an image side: mostly inside, some just outside.
  int coordinate(int side) {
    const int s = side > 0 ? side : 1;
    return static_cast<int>(static_cast<int64_t>(byte()) * (s + 16) / 255) - 8;
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_at = 0;
};

int sourceWidth() { return ZIRKSEMarker::m_originalImage ? ZIRKSEMarker::m_originalImage->width : 0; }
int sourceHeight() {
  return ZIRKSEMarker::m_originalImage ? ZIRKSEMarker::m_originalImage->height : 0;
}
size_t sourcePixels() { return static_cast<size_t>(sourceWidth()) * sourceHeight(); }

// Large images are slow to segment: one size in four, and at most a few per
// input so that no input runs into the time limit.
constexpr int kMaxLargePerInput = 3;
int g_largeLeft = kMaxLargePerInput;
bool isLarge(uint8_t flags) {
  if ((flags & 0x0C) != 0x0C || g_largeLeft == 0) return false;
  --g_largeLeft;
  return true;
}

// Image size: small, or large enough for a reduced working image.
void readSize(Input& in, bool large, int& w, int& h) {
  if (large) {
    w = in.range(kLargeMin, kLargeMax);
    h = in.range(kLargeMin, kLargeMax);
  } else {
    w = in.range(-1, kMaxSide);
    h = in.range(-1, kMaxSide);
  }
}

// Two colours in a disc or a half-plane, with a little noise.
NO_TRACE std::vector<unsigned int> readImage(Input& in, int w, int h) {
  const unsigned int a = in.word(), b = in.word();
  const uint8_t shape = in.byte();
  std::mt19937 noise(in.byte());
  const size_t n = static_cast<size_t>(w > 0 ? w : 0) * (h > 0 ? h : 0);
  std::vector<unsigned int> pixels(n > 0 ? n : 1, a);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      bool inside;
      if (shape & 1) {
        const int dx = 2 * x - w, dy = 2 * y - h;
        inside = dx * dx + dy * dy < (w * w + h * h) / ((shape >> 1) % 6 + 3);
      } else {
        inside = x * 255 < static_cast<int>(shape) * w;
      }
      pixels[static_cast<size_t>(y) * w + x] = (inside ? b : a) ^ (noise() & 0x00070707u);
    }
  }
  return pixels;
}

// The caller's buffers for one call, exactly the source's size.
struct CallerBuffers {
  std::unique_ptr<unsigned int[]> argb;
  std::unique_ptr<unsigned char[]> mask;
  std::vector<unsigned int> given;  // argb as handed over
  std::vector<unsigned int> source; // opaque source pixels at the call
  size_t n;

  NO_TRACE explicit CallerBuffers(Input& in) : n(sourcePixels()) {
    const size_t words = n > 0 ? n : 1;
    argb.reset(new unsigned int[words]);
    mask.reset(new unsigned char[words]);
    const unsigned int fill = in.word();
    given.assign(words, 0);
    for (size_t i = 0; i < words; ++i) given[i] = fill + static_cast<unsigned int>(i) * 0x9E3779B9u;
    std::memcpy(argb.get(), given.data(), words * sizeof(unsigned int));
    std::memset(mask.get(), kMaskFill, words);
    source.assign(words, 0);
    if (n > 0) copySourceImage(source.data());
  }

  // argb holds exactly the opaque source.
  NO_TRACE void verifySource() const {
    for (size_t i = 0; i < n; ++i) check(argb[i] == source[i]);
  }

  unsigned int* argbOrNull(bool null) { return null ? nullptr : argb.get(); }
  unsigned char* maskOrNull(bool null) { return null ? nullptr : mask.get(); }

  // The mask untouched, or a whole mask of 0 and 255; the preview made of
  // the caller's pixels, source pixels and outline pixels.
  NO_TRACE void verify() const {
    const size_t words = n > 0 ? n : 1;
    bool untouched = true, binary = true;
    for (size_t i = 0; i < words; ++i) {
      untouched = untouched && mask[i] == kMaskFill;
      binary = binary && (mask[i] == 0 || mask[i] == 255);
    }
    check(untouched || (n > 0 && binary));
    for (size_t i = 0; i < words; ++i) {
      const unsigned int p = argb[i];
      check(p == given[i] || (n > 0 && (p == source[i] || p == kOutline)));
    }
  }
};

// Process-wide state that every call must leave consistent.
void checkEngineState() {
  check(g_resultMask == nullptr);
  const IplImage* src = ZIRKSEMarker::m_originalImage;
  if (src != nullptr) {
    check(ZIRKSEMarker::m_originalWidth == src->width);
    check(ZIRKSEMarker::m_originalHeight == src->height);
    check(ZIRKSEManageUndoRedo::m_bitPlane != nullptr);
    check(ZIRKSEManageUndoRedo::width == src->width && ZIRKSEManageUndoRedo::height == src->height);
  }
  if (pHybrid != nullptr) check(src != nullptr);
}

void opSource(Input& in) {
  const uint8_t flags = in.byte();
  if (flags & 1) deinitSegmentation();
  int w, h;
  readSize(in, isLarge(flags), w, h);
  std::vector<unsigned int> pixels = readImage(in, w, h);
  setSourceImage(w, h, (flags & 2) ? nullptr : pixels.data());
}

void opMarker(Input& in) {
  const uint8_t flags = in.byte();
  int w = sourceWidth(), h = sourceHeight();
  if (flags & 1) readSize(in, isLarge(flags), w, h);
  const int kind = in.range(-1, 4);
  const int inner = in.range(-5, 300);
  const int outer = in.range(0, 4);
  const int x0 = in.coordinate(w), y0 = in.coordinate(h);
  const int x1 = in.coordinate(w), y1 = in.coordinate(h);
  const size_t n = static_cast<size_t>(w > 0 ? w : 0) * (h > 0 ? h : 0);
  std::unique_ptr<int[]> markers(new int[n > 0 ? n : 1]);
  markers[0] = outer;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      markers[static_cast<size_t>(y) * w + x] = x >= x0 && x <= x1 && y >= y0 && y <= y1 ? inner : outer;
  setMarkerImage(w, h, (flags & 2) ? nullptr : markers.get(), kind);
}

void opPath(Input& in) {
  const int count = in.range(-2, 40);
  const bool null = in.flag();
  const int w = sourceWidth(), h = sourceHeight();
  const size_t n = count > 0 ? static_cast<size_t>(count) : 1;
  std::unique_ptr<int[]> points(new int[n]);
  for (size_t i = 0; i < n; ++i) points[i] = in.coordinate(i % 2 == 0 ? w : h);
  setCurrentMarkerVector(count, null ? nullptr : points.get());
  if (!null && count > 0 && w > 0 && h > 0) {
    // The caller's path comes back clamped into the image.
    for (size_t i = 0; i + 1 < n; i += 2) {
      check(points[i] >= 0 && points[i] < w);
      check(points[i + 1] >= 0 && points[i + 1] < h);
    }
  }
}

void opRequest(Input& in, int which) {
  const uint8_t flags = in.byte();
  CallerBuffers b(in);
  unsigned int* argb = b.argbOrNull(flags & 1);
  unsigned char* mask = b.maskOrNull(flags & 2);
  switch (which) {
    case 0: processSegment(0, 0, 0, argb, mask); break;
    case 1: cutOutImage(0, 0, 0, argb, mask); break;
    case 2: undo(argb, mask); break;
    case 3: redo(argb, mask); break;
    case 4: copySourceImage(argb); break;
    default:
      loadMaskImageInfo(mask);
      loadBlendedImageInfo(argb);
      break;
  }
  if (which == 4 && argb != nullptr) b.verifySource();
  b.verify();
}

void opRectangle(Input& in) {
  const uint8_t flags = in.byte();
  int w, h;
  readSize(in, isLarge(flags), w, h);
  std::vector<unsigned int> pixels = readImage(in, w, h);
  const int x1 = in.coordinate(w), y1 = in.coordinate(h);
  const int x2 = in.coordinate(w), y2 = in.coordinate(h);
  const size_t n = static_cast<size_t>(w > 0 ? w : 0) * (h > 0 ? h : 0);
  std::unique_ptr<unsigned char[]> mask(new unsigned char[n > 0 ? n : 1]);
  std::memset(mask.get(), kMaskFill, n > 0 ? n : 1);
  const std::vector<unsigned int> given = pixels;
  doSegmentationBB(w, h, (flags & 1) ? nullptr : pixels.data(), x1, y1, x2, y2,
                   (flags & 2) ? nullptr : mask.get());
  check(pixels == given);  // argb is only read
  bool untouched = true, binary = true;
  for (size_t i = 0; i < (n > 0 ? n : 1); ++i) {
    untouched = untouched && mask[i] == kMaskFill;
    binary = binary && (mask[i] == 0 || mask[i] == 255);
  }
  check(untouched || (n > 0 && binary));
}

// The source as a BGR image the size of a small preview: its top-left
// corner of at most kPreviewSide x kPreviewSide pixels (a 1 x 1 black image
// when there is no source).
constexpr int kPreviewSide = 64;
IplImage* sourceCopy() {
  const IplImage* src = ZIRKSEMarker::m_originalImage;
  if (src == nullptr) {
    IplImage* one = cvCreateImage(cvSize(1, 1), IPL_DEPTH_8U, 3);
    cvSetZero(one);
    return one;
  }
  const int w = src->width < kPreviewSide ? src->width : kPreviewSide;
  const int h = src->height < kPreviewSide ? src->height : kPreviewSide;
  IplImage* copy = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 3);
  for (int y = 0; y < h; ++y)
    std::memcpy(copy->imageData + static_cast<size_t>(y) * copy->widthStep,
                src->imageData + static_cast<size_t>(y) * src->widthStep, static_cast<size_t>(w) * 3);
  return copy;
}

// Every reached pixel leads to the seed through reached pixels, without a
// cycle (linear: each pixel is walked once).
NO_TRACE void checkParentTree(const std::vector<int>& parents, int seed, int n) {
  std::vector<uint8_t> state(static_cast<size_t>(n), 0);  // 1 on this walk, 2 done
  std::vector<int> walk;
  state[static_cast<size_t>(seed)] = 2;
  for (int p = 0; p < n; ++p) {
    if (state[static_cast<size_t>(p)] != 0) continue;
    if (parents[static_cast<size_t>(p)] == -1) {
      state[static_cast<size_t>(p)] = 2;  // not reached
      continue;
    }
    walk.clear();
    int at = p;
    while (state[static_cast<size_t>(at)] == 0) {
      const int parent = parents[static_cast<size_t>(at)];
      check(parent >= 0 && parent < n);
      state[static_cast<size_t>(at)] = 1;
      walk.push_back(at);
      at = parent;
    }
    check(state[static_cast<size_t>(at)] == 2 && parents[static_cast<size_t>(at)] != -1);
    for (int v : walk) state[static_cast<size_t>(v)] = 2;
  }
}

void opLiveWire(Input& in) {
  IplImage* image = sourceCopy();
  const int w = image->width, h = image->height;
  IplImage* labels = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
  const uint8_t pattern = in.byte();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      CV_IMAGE_ELEM(labels, uint8_t, y, x) =
          static_cast<uint8_t>(((x * (pattern & 7)) / (w > 1 ? w : 1) + y * (pattern >> 5)) % 5);
  const int seedRow = in.range(-2, h + 1), seedCol = in.range(-2, w + 1);
  const double alpha = in.byte() / 255.0;
  const uint8_t flags = in.byte();
  IplImage* costMap = (flags & 1) ? cvCreateImage(cvSize(w, h), IPL_DEPTH_32F, 1) : nullptr;
  IplImage* wrongLabels = (flags & 2) ? cvCreateImage(cvSize(w + 1, h), IPL_DEPTH_8U, 1) : nullptr;
  IplImage* useLabels = wrongLabels != nullptr ? wrongLabels : labels;
  const bool seedInside = seedRow >= 0 && seedRow < h && seedCol >= 0 && seedCol < w;
  std::vector<int> parents;
  bool threw = false;
  try {
    parents = costMap ? find_parent_info(image, useLabels, seedRow, seedCol, alpha, costMap)
                      : find_parent_info(image, useLabels, seedRow, seedCol, alpha);
  } catch (const std::out_of_range&) {
    threw = true;
  }
  if (wrongLabels != nullptr) {
    check(!threw && parents.empty());  // refused before looking at the seed
  } else {
    check(threw == !seedInside);
    if (seedInside) {
      const int n = w * h, seed = seedRow * w + seedCol;
      check(parents.size() == static_cast<size_t>(n));
      check(parents[static_cast<size_t>(seed)] == seed);
      checkParentTree(parents, seed, n);
    }
  }

  // The single-pixel helpers, anywhere in or near the image.
  const int r = in.range(-2, h + 1), c = in.range(-2, w + 1);
  (void)find_weight(image, r, c, in.range(-2, h + 1), in.range(-2, w + 1), alpha);
  Node_ node;
  std::memset(&node, 0, sizeof(node));
  assign_index(node, h, w, r, c, 0.0);
  assign_weight(image, useLabels, node, r, c, alpha);
  for (const NodeLink& link : node.links) check(link.to >= -1 && link.to < w * h);

  if (costMap != nullptr) cvReleaseImage(&costMap);
  if (wrongLabels != nullptr) cvReleaseImage(&wrongLabels);
  cvReleaseImage(&labels);
  cvReleaseImage(&image);
}

void opFetch(Input& in) {
  const uint8_t flags = in.byte();
  int* array = nullptr;
  int length = -1;
  int* out = fetch_path_array((flags & 1) ? nullptr : &array, (flags & 2) ? nullptr : &length);
  if (flags & 3) {
    check(out == nullptr);
    return;
  }
  check(out != nullptr && out == array && length >= 1);
  // [count, n, x, y, ..., -1, ...] filling exactly length ints, inside the source.
  const int w = sourceWidth(), h = sourceHeight();
  int at = 1;
  for (int k = 0; k < array[0]; ++k) {
    check(at < length);
    const int n = array[at++];
    check(n >= 0 && at + 2 * n < length);
    for (int i = 0; i < n; ++i, at += 2) {
      check(array[at] >= 0 && array[at] < w);
      check(array[at + 1] >= 0 && array[at + 1] < h);
    }
    check(array[at++] == -1);
  }
  check(at == length);
  delete[] array;
  // Handed over once.
  out = fetch_path_array(&array, &length);
  check(out != nullptr && length == 1 && array[0] == 0);
  delete[] array;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  g_largeLeft = kMaxLargePerInput;
  for (int op = 0; op < kMaxOps && !in.empty(); ++op) {
    switch (in.byte() % 20) {
      case 0: opSource(in); break;
      case 1: initSegmentationEngine(0); break;
      case 2: opMarker(in); break;
      case 3: opPath(in); break;
      case 4: opRequest(in, 0); break;   // processSegment
      case 5: opRequest(in, 1); break;   // cutOutImage
      case 6: opRectangle(in); break;
      case 7: opRequest(in, 2); break;   // undo
      case 8: opRequest(in, 3); break;   // redo
      case 9:
        (void)canUndo();
        (void)canRedo();
        break;
      case 10: resetSegmentationInterface(); break;
      case 11: deinitSegmentation(); break;
      case 12: cancelSegmentation(); break;
      case 13: exitSegmentation(); break;
      case 14: freeLocalBuffers(); break;
      case 15: opRequest(in, 4); break;  // copySourceImage
      case 16: opRequest(in, 5); break;  // loadMaskImageInfo + loadBlendedImageInfo
      case 17: opLiveWire(in); break;
      case 18: opFetch(in); break;
      default: {  // a whole edit in one go
        opMarker(in);
        opPath(in);
        opRequest(in, 0);
        break;
      }
    }
    checkEngineState();
  }
  // The next input starts from nothing: whatever this one left is released.
  freeLocalBuffers();
  deinitSegmentation();
  resetSegmentationInterface();
  return 0;
}
