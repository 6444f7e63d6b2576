// Cuts a bright disc out of a dark, noisy synthetic photo through the
// installed library, and runs one live-wire search. Exit status 0 when the cut
// overlaps the disc (IoU >= 0.9) and the search gives every pixel a parent.
#include <SegmentationCore/SegmentationCore.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

constexpr int kWidth = 200, kHeight = 150, kCx = 100, kCy = 75, kRadius = 40;

bool inDisc(int i) {
  const int x = i % kWidth, y = i / kWidth;
  return (x - kCx) * (x - kCx) + (y - kCy) * (y - kCy) <= kRadius * kRadius;
}

// Deterministic noise in [-12, 12]; unsigned arithmetic wraps without UB.
uint32_t g_state = 12345u;
uint32_t noisy(int base) {
  g_state = g_state * 1664525u + 1013904223u;
  return static_cast<uint32_t>(base + static_cast<int>((g_state >> 24) % 25u) - 12);
}

double cutDiscIoU() {
  std::vector<unsigned int> image(kWidth * kHeight);
  for (int i = 0; i < kWidth * kHeight; ++i) {
    const int base = inDisc(i) ? 215 : 35;
    image[i] = 0xFF000000u | noisy(base) << 16 | noisy(base) << 8 | noisy(base - 10);
  }
  std::vector<unsigned char> mask(kWidth * kHeight, 128);
  const int m = kRadius + 12;
  doSegmentationBB(kWidth, kHeight, image.data(), kCx - m, kCy - m, kCx + m, kCy + m, mask.data());
  deinitSegmentation();
  long both = 0, either = 0;
  for (int i = 0; i < kWidth * kHeight; ++i) {
    both += mask[i] == 0 && inDisc(i);  // 0 = object
    either += mask[i] == 0 || inDisc(i);
  }
  return either == 0 ? 0.0 : static_cast<double>(both) / static_cast<double>(either);
}

// Live-wire search on a small gradient from the top-left pixel.
bool liveWireGivesParents() {
  IplImage* colour = cvCreateImage(cvSize(16, 12), IPL_DEPTH_8U, 3);
  IplImage* labels = cvCreateImage(cvSize(16, 12), IPL_DEPTH_8U, 1);
  for (int y = 0; y < 12; ++y) {
    uint8_t* row = reinterpret_cast<uint8_t*>(colour->imageData + y * colour->widthStep);
    for (int x = 0; x < 16 * 3; ++x) row[x] = static_cast<uint8_t>(10 * y + x);
  }
  cvSetZero(labels);
  const std::vector<int> parents = find_parent_info(colour, labels, 0, 0, 0.5);
  cvReleaseImage(&colour);
  cvReleaseImage(&labels);
  return parents.size() == 16u * 12u && parents[0] == 0;
}

}  // namespace

int main() {
  const double iou = cutDiscIoU();
  const bool wire = liveWireGivesParents();
  std::printf("consumer: disc IoU %.3f, live-wire %s\n", iou, wire ? "gives parents" : "FAILED");
  return iou >= 0.9 && wire ? 0 : 1;
}
