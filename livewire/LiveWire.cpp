#include "livewire/LiveWire.h"

#include <android/log.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <new>
#include <stdexcept>

#include "engine/EngineState.h"
#include "livewire/MinPriorityQueue.h"

namespace {

constexpr double kUnusable = DBL_MAX;

// Row and column offsets of the eight link slots, in slot order.
constexpr int kSlotRow[8] = {1, 0, -1, -1, -1, 0, 1, 1};
constexpr int kSlotCol[8] = {1, 1, 1, 0, -1, -1, -1, 0};

bool isForeground(uint8_t label) { return label == 2 || label == 4; }
bool isBackground(uint8_t label) { return label == 1 || label == 3; }

// An 8-bit image of this many channels whose pixels can be read: it has
// data, and its rows are at least as long as its pixels (a header made by
// the caller may claim otherwise).
bool isReadable(const IplImage* image, int channels) {
  return image != nullptr && image->depth == IPL_DEPTH_8U && image->nChannels == channels &&
         image->width > 0 && image->height > 0 && image->imageData != nullptr &&
         static_cast<int64_t>(image->widthStep) >= static_cast<int64_t>(image->width) * channels;
}

bool isColourImage(const IplImage* image) { return isReadable(image, 3); }

// Colour image and label image that the search can walk together; pixel ids
// (row * width + column) must fit in an int.
bool acceptsImages(const IplImage* image, const IplImage* labels, const char* function) {
  if (isColourImage(image) && isReadable(labels, 1) && labels->width == image->width &&
      labels->height == image->height &&
      static_cast<int64_t>(image->width) * image->height <= INT32_MAX) {
    return true;
  }
  __android_log_print(ANDROID_LOG_ERROR, "Error",
                      "%s: needs an 8-bit 3-channel image and an 8-bit label image of its size",
                      function);
  return false;
}

bool inside(const IplImage* image, int r, int c) {
  return r >= 0 && r < image->height && c >= 0 && c < image->width;
}

// find_weight without checks: both pixels are inside the image.
double stepCost(const IplImage* image, int r1, int c1, int r2, int c2, double alpha) {
  const uint8_t* data = reinterpret_cast<const uint8_t*>(image->imageData);
  const uint8_t* p =
      data + static_cast<size_t>(r1) * image->widthStep + 3 * static_cast<size_t>(c1);
  const uint8_t* q =
      data + static_cast<size_t>(r2) * image->widthStep + 3 * static_cast<size_t>(c2);
  const double d0 = static_cast<int>(q[0]) - static_cast<int>(p[0]);
  const double d1 = static_cast<int>(q[1]) - static_cast<int>(p[1]);
  const double d2 = static_cast<int>(q[2]) - static_cast<int>(p[2]);
  const double dr = r2 - r1;
  const double dc = c2 - c1;
  return std::sqrt((1.0 - alpha) / 3.0 * (d0 * d0 + d1 * d1 + d2 * d2) +
                   alpha * (dr * dr + dc * dc));
}

void fillIndices(Node_& node, int height, int width, int r, int c) {
  for (int k = 0; k < 8; ++k) {
    const int64_t qr = static_cast<int64_t>(r) + kSlotRow[k];
    const int64_t qc = static_cast<int64_t>(c) + kSlotCol[k];
    const bool in = qr >= 0 && qr < height && qc >= 0 && qc < width;
    node.links[k].to = in ? static_cast<int32_t>(qr * width + qc) : -1;
  }
}

// Link costs of (r, c); the images are valid and (r, c) is inside them.
void fillCosts(const IplImage* image, const IplImage* labels, Node_& node, int r, int c,
               double alpha) {
  const uint8_t* labelData = reinterpret_cast<const uint8_t*>(labels->imageData);
  const uint8_t own = labelData[static_cast<size_t>(r) * labels->widthStep + c];
  for (int k = 0; k < 8; ++k) {
    const int qr = r + kSlotRow[k];
    const int qc = c + kSlotCol[k];
    // An id without a neighbour in the image cannot come from fillIndices;
    // it is treated as outside rather than read.
    if (node.links[k].to == -1 || !inside(image, qr, qc)) {
      node.links[k].linkCost = kUnusable;
      continue;
    }
    const uint8_t other = labelData[static_cast<size_t>(qr) * labels->widthStep + qc];
    if ((isForeground(own) && isBackground(other)) || (isBackground(own) && isForeground(other))) {
      // Blocked step: the store goes to the down-right slot, and slot k keeps
      // its cost. Established behaviour that callers rely on.
      node.links[kSlotDownRight].linkCost = kUnusable;
      continue;
    }
    node.links[k].linkCost = stepCost(image, r, c, qr, qc, alpha);
  }
}

// The search shared by both forms of find_parent_info; costMap may be null.
std::vector<int> searchFrom(IplImage* image, IplImage* labels, int seedRow, int seedCol,
                            double alpha, IplImage* costMap) {
  const int width = image->width;
  const int height = image->height;
  const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);

  // 1. Records with their links and costs.
  std::vector<Node_> nodes(count);  // zero-filled
  for (int r = 0; r < height; ++r) {
    for (int c = 0; c < width; ++c) {
      Node_& node = nodes.at(static_cast<size_t>(r) * width + c);
      node.pixel = r * width + c;
      node.cost = kUnusable;
      node.parentPixel = -1;
      fillIndices(node, height, width, r, c);
      fillCosts(image, labels, node, r, c, alpha);
    }
  }

  // 2. The seed is its own parent.
  const int seed = seedRow * width + seedCol;
  nodes.at(seed).cost = 0.0;
  nodes.at(seed).parentPixel = seed;

  // 3. Every record enters the queue in pixel order, so ids equal push order.
  MinPriorityQueue queue;
  queue.heap.reserve(count + 1);
  queue.position.reserve(count);
  for (const Node_& node : nodes) queue.push(Qnode{node.pixel, node.cost});

  // 4. Settle one pixel per round and relax its links.
  for (size_t round = 0; round < count; ++round) {
    const Qnode u = queue.pop_min();
    const Node_& from = nodes.at(u.index);
    for (int k = 0; k < 8; ++k) {
      const int v = from.links[k].to;
      if (v == -1 || queue.position.at(v) < 0) continue;
      const double alt = from.links[k].linkCost + from.cost;
      Node_& to = nodes.at(v);
      if (alt < to.cost) {
        to.parentPixel = u.index;
        const int at = queue.position.at(v);
        queue.heap.at(at).weight = alt;
        queue.prelocate_up(at);
        to.cost = alt;
      }
    }
  }

  // 5. Parents (and costs) in pixel order.
  std::vector<int> parents(count);
  for (size_t i = 0; i < count; ++i) parents[i] = nodes[i].parentPixel;
  if (costMap != nullptr) {
    for (int r = 0; r < height; ++r)
      for (int c = 0; c < width; ++c)
        cvSet2D(costMap, r, c, cvScalar(nodes[static_cast<size_t>(r) * width + c].cost, 0, 0, 0));
  }
  return parents;
}

// The search, refusing a seed outside the image with std::out_of_range (the
// documented answer) and answering an image too large for memory (about 170
// bytes per pixel) with a log line and no parents.
std::vector<int> search(IplImage* image, IplImage* labels, int seedRow, int seedCol, double alpha,
                        IplImage* costMap) {
  if (seedRow < 0 || seedRow >= image->height || seedCol < 0 || seedCol >= image->width) {
    throw std::out_of_range("find_parent_info: seed outside the image");
  }
  try {
    return searchFrom(image, labels, seedRow, seedCol, alpha, costMap);
  } catch (const std::bad_alloc&) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "find_parent_info: out of memory for a %dx%d search", image->width,
                        image->height);
    return {};
  }
}

// Points of one contour, or 0 for a sequence that does not hold points.
int pointCount(const CvSeq* seq) {
  return seq->elem_size == static_cast<int>(sizeof(CvPoint)) ? seq->total : 0;
}

}  // namespace

double find_weight(IplImage* image, int r1, int c1, int r2, int c2, double alpha) {
  if (!isColourImage(image) || !inside(image, r1, c1) || !inside(image, r2, c2)) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "find_weight: pixels (%d, %d) and (%d, %d) need an 8-bit 3-channel image "
                        "holding both",
                        r1, c1, r2, c2);
    return kUnusable;
  }
  return stepCost(image, r1, c1, r2, c2, alpha);
}

void assign_index(Node_& node, int height, int width, int r, int c, double) {
  if (height < 1 || width < 1 || static_cast<int64_t>(height) * width > INT32_MAX || r < 0 ||
      r >= height || c < 0 || c >= width) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "assign_index: pixel (%d, %d) is not in a %d x %d grid of int ids", r, c,
                        height, width);
    return;
  }
  fillIndices(node, height, width, r, c);
}

void assign_weight(IplImage* image, IplImage* labels, Node_& node, int r, int c, double alpha) {
  if (!acceptsImages(image, labels, "assign_weight")) return;
  if (!inside(image, r, c)) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "assign_weight: pixel (%d, %d) is outside", r,
                        c);
    return;
  }
  fillCosts(image, labels, node, r, c, alpha);
}

std::vector<int> find_parent_info(IplImage* image, IplImage* labels, int seedRow, int seedCol,
                                  double alpha) {
  if (!acceptsImages(image, labels, "find_parent_info")) return {};
  return search(image, labels, seedRow, seedCol, alpha, nullptr);
}

std::vector<int> find_parent_info(IplImage* image, IplImage* labels, int seedRow, int seedCol,
                                  double alpha, IplImage* costMap) {
  if (!acceptsImages(image, labels, "find_parent_info")) return {};
  // cvSet2D addresses the map's region of interest, so that is what must
  // match; a map without pixels would make it throw.
  if (costMap == nullptr || costMap->imageData == nullptr ||
      cvGetSize(costMap).width != image->width || cvGetSize(costMap).height != image->height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "find_parent_info: the cost map must have the image's size");
    return {};
  }
  return search(image, labels, seedRow, seedCol, alpha, costMap);
}

int* fetch_path_array(int** array, int* length) {
  if (array == nullptr || length == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "fetch_path_array: null array or length");
    if (array != nullptr) *array = nullptr;
    if (length != nullptr) *length = 0;
    return nullptr;
  }
  const CvSeq* first = g_contoursFound == 1 ? contours : nullptr;

  // 1. Size: per contour its count, its pairs and the -1; one more for the total.
  size_t contourCount = 0;
  size_t total = 1;
  for (const CvSeq* seq = first; seq != nullptr; seq = seq->h_next) {
    ++contourCount;
    total += 2 + 2 * static_cast<size_t>(pointCount(seq));
  }

  // 2. Fill: [count, n, x, y, ..., -1, ...]. A list too long for an int
  // length, or no memory for it, is logged and stays where it is.
  int* out = total <= static_cast<size_t>(INT_MAX) ? new (std::nothrow) int[total] : nullptr;
  if (out == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "fetch_path_array: no memory for %zu ints of contours", total);
    *array = nullptr;
    *length = 0;
    return nullptr;
  }
  size_t at = 0;
  out[at++] = static_cast<int>(contourCount);
  for (const CvSeq* seq = first; seq != nullptr; seq = seq->h_next) {
    const int n = pointCount(seq);
    out[at++] = n;
    if (n > 0) {
      CvSeqReader reader;
      cvStartReadSeq(seq, &reader, 0);
      for (int i = 0; i < n; ++i) {
        CvPoint p;
        CV_READ_SEQ_ELEM(p, reader);
        out[at++] = p.x;
        out[at++] = p.y;
      }
    }
    out[at++] = -1;
  }

  // 3. Handed over once: the next call gives [0].
  *array = out;
  *length = static_cast<int>(total);
  contours = nullptr;
  g_contoursFound = 0;
  return out;
}
