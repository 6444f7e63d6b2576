// Cuts a bright disc out of a dark, noisy synthetic photo through the
// installed library, and runs one live-wire search. Exit status 0 when the cut
// overlaps the disc (IoU >= 0.9) and the search reaches every pixel.
#include <SegmentationCore/SegmentationCore.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

constexpr int kWidth = 200, kHeight = 150, kCx = 100, kCy = 75, kRadius = 40;

bool inDisc(int x, int y) { return (x - kCx) * (x - kCx) + (y - kCy) * (y - kCy) <= kRadius * kRadius; }

// Deterministic noise in [-12, 12]; unsigned arithmetic wraps without UB.
uint32_t g_state = 12345u;
uint32_t noisy(int base) {
  g_state = g_state * 1664525u + 1013904223u;
  return static_cast<uint32_t>(base + static_cast<int>((g_state >> 24) % 25u) - 12);
}

double cutDiscIoU() {
  std::vector<unsigned int> image(kWidth * kHeight);
  for (int i = 0; i < kWidth * kHeight; ++i) {
    const int base = inDisc(i % kWidth, i / kWidth) ? 215 : 35;
    image[i] = 0xFF000000u | noisy(base) << 16 | noisy(base) << 8 | noisy(base - 10);
  }
  std::vector<unsigned char> mask(kWidth * kHeight, 128);
  const int margin = kRadius + 12;
  doSegmentationBB(kWidth, kHeight, image.data(), kCx - margin, kCy - margin, kCx + margin,
                   kCy + margin, mask.data());
  deinitSegmentation();
  long both = 0, either = 0;
  for (int i = 0; i < kWidth * kHeight; ++i) {
    const bool cut = mask[i] == 0, disc = inDisc(i % kWidth, i / kWidth);  // 0 = object
    both += cut && disc;
    either += cut || disc;
  }
  return either == 0 ? 0.0 : static_cast<double>(both) / static_cast<double>(either);
}

// Live-wire search on a small gradient from the top-left pixel: every pixel
// reaches the seed by following parents in fewer steps than there are pixels.
bool liveWireReachesSeed() {
  const int w = 16, h = 12;
  IplImage* colour = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 3);
  IplImage* labels = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
  for (int y = 0; y < h; ++y) {
    auto* row = reinterpret_cast<uint8_t*>(colour->imageData + y * colour->widthStep);
    for (int x = 0; x < w * 3; ++x) row[x] = static_cast<uint8_t>(10 * y + x);
  }
  cvSetZero(labels);
  const std::vector<int> parents = find_parent_info(colour, labels, 0, 0, 0.5);
  cvReleaseImage(&colour);
  cvReleaseImage(&labels);
  if (parents.size() != static_cast<size_t>(w * h) || parents[0] != 0) return false;
  for (int start = 0; start < w * h; ++start) {
    int p = start;
    for (int steps = 0; p > 0 && steps < w * h; ++steps) p = parents[p];
    if (p != 0) return false;
  }
  return true;
}

}  // namespace

int main() {
  const double iou = cutDiscIoU();
  const bool wire = liveWireReachesSeed();
  std::printf("consumer: disc IoU %.3f, live-wire %s\n", iou, wire ? "reaches the seed" : "FAILED");
  return iou >= 0.9 && wire ? 0 : 1;
}
