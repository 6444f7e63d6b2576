// Drives random sequences of the caller's functions with small random images,
// marker images, strokes, rectangles, cancellations, undo and redo.
//
// The harness keeps the caller's side of the contract only where the engine
// cannot check it: every buffer it hands over holds at least as many pixels as
// the most recent source image. Everything else (call order, sizes, counts,
// points, rectangles, marker sizes) is left to chance.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <vector>

#include "engine/SegmentationCore.h"

namespace {

constexpr int kMaxSide = 24;
constexpr int kMaxSteps = 24;

struct Harness {
  int width = 0;   // size of the most recent source image
  int height = 0;
  std::vector<unsigned int> argb;
  std::vector<unsigned char> mask;

  // Caller buffers for the current source (at least one element each).
  void resize(int w, int h) {
    width = w > 0 ? w : 0;
    height = h > 0 ? h : 0;
    const size_t n = static_cast<size_t>(width) * height + 1;
    if (argb.size() < n) argb.resize(n);
    if (mask.size() < n) mask.resize(n);
  }
};

std::vector<unsigned int> randomImage(FuzzedDataProvider& in, int w, int h) {
  const size_t n = static_cast<size_t>(w > 0 ? w : 0) * (h > 0 ? h : 0) + 1;
  std::vector<unsigned int> pixels(n);
  // A few colours in blocks give the cut something to find.
  const unsigned int a = in.ConsumeIntegral<unsigned int>();
  const unsigned int b = in.ConsumeIntegral<unsigned int>();
  const int split = in.ConsumeIntegralInRange<int>(0, kMaxSide);
  for (size_t i = 0; i < n; ++i) {
    const int x = w > 0 ? static_cast<int>(i % w) : 0;
    pixels[i] = (x < split ? a : b) ^ (in.ConsumeBool() ? 0x00010101u : 0u);
  }
  return pixels;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  Harness h;
  h.resize(0, 0);
  const int steps = in.ConsumeIntegralInRange<int>(1, kMaxSteps);
  for (int step = 0; step < steps && in.remaining_bytes() > 0; ++step) {
    switch (in.ConsumeIntegralInRange<int>(0, 16)) {
      case 0: {  // new source image (sometimes without tearing down first)
        if (in.ConsumeBool()) deinitSegmentation();
        const int w = in.ConsumeIntegralInRange<int>(-1, kMaxSide);
        const int hh = in.ConsumeIntegralInRange<int>(-1, kMaxSide);
        std::vector<unsigned int> pixels = randomImage(in, w, hh);
        setSourceImage(w, hh, in.ConsumeBool() ? pixels.data() : nullptr);
        h.resize(w, hh);
        break;
      }
      case 1:
        initSegmentationEngine(0);
        break;
      case 2: {  // marker image, sometimes of another size than the source
        const bool same = in.ConsumeBool();
        const int w = same ? h.width : in.ConsumeIntegralInRange<int>(-1, kMaxSide);
        const int hh = same ? h.height : in.ConsumeIntegralInRange<int>(-1, kMaxSide);
        const size_t n = static_cast<size_t>(w > 0 ? w : 0) * (hh > 0 ? hh : 0) + 1;
        std::vector<int> markers(n);
        const int x0 = in.ConsumeIntegralInRange<int>(0, kMaxSide);
        const int x1 = in.ConsumeIntegralInRange<int>(0, kMaxSide);
        const int value = in.ConsumeIntegralInRange<int>(-5, 300);
        for (size_t i = 0; i < n; ++i) {
          const int x = w > 0 ? static_cast<int>(i % w) : 0;
          markers[i] = (x >= x0 && x <= x1) ? value : 0;
        }
        const int kind = in.ConsumeIntegralInRange<int>(-1, 4);
        setMarkerImage(w, hh, in.ConsumeBool() ? markers.data() : nullptr, kind);
        break;
      }
      case 3: {  // drawn path: any count, points inside and outside
        const int count = in.ConsumeIntegralInRange<int>(-2, 40);
        std::vector<int> points(static_cast<size_t>(count > 0 ? count : 0) + 1);
        for (int& p : points) p = in.ConsumeIntegralInRange<int>(-50, 100);
        setCurrentMarkerVector(count, in.ConsumeBool() ? points.data() : nullptr);
        break;
      }
      case 4:
        processSegment(0, 0, 0, in.ConsumeBool() ? h.argb.data() : nullptr,
                       in.ConsumeBool() ? h.mask.data() : nullptr);
        break;
      case 5:
        cutOutImage(0, 0, 0, in.ConsumeBool() ? h.argb.data() : nullptr,
                    in.ConsumeBool() ? h.mask.data() : nullptr);
        break;
      case 6: {  // one-call rectangle, inverted and outside rectangles included
        const int w = in.ConsumeIntegralInRange<int>(-1, kMaxSide);
        const int hh = in.ConsumeIntegralInRange<int>(-1, kMaxSide);
        std::vector<unsigned int> pixels = randomImage(in, w, hh);
        h.resize(w, hh);
        const int x1 = in.ConsumeIntegralInRange<int>(-5, kMaxSide + 5);
        const int y1 = in.ConsumeIntegralInRange<int>(-5, kMaxSide + 5);
        const int x2 = in.ConsumeIntegralInRange<int>(-5, kMaxSide + 5);
        const int y2 = in.ConsumeIntegralInRange<int>(-5, kMaxSide + 5);
        doSegmentationBB(w, hh, pixels.data(), x1, y1, x2, y2,
                         in.ConsumeBool() ? h.mask.data() : nullptr);
        break;
      }
      case 7:
        undo(h.argb.data(), h.mask.data());
        break;
      case 8:
        redo(h.argb.data(), h.mask.data());
        break;
      case 9:
        (void)canUndo();
        (void)canRedo();
        break;
      case 10:
        resetSegmentationInterface();
        break;
      case 11:
        deinitSegmentation();
        break;
      case 12:
        cancelSegmentation();
        break;
      case 13:
        exitSegmentation();
        break;
      case 14:
        freeLocalBuffers();
        break;
      case 15:
        copySourceImage(in.ConsumeBool() ? h.argb.data() : nullptr);
        break;
      default:
        loadMaskImageInfo(h.mask.data());
        loadBlendedImageInfo(h.argb.data());
        break;
    }
  }
  // The next input starts from nothing: whatever this one left is released.
  freeLocalBuffers();
  deinitSegmentation();
  resetSegmentationInterface();
  return 0;
}
