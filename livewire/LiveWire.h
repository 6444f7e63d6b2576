// Live-wire search: for one seed pixel, the cheapest eight-connected path
// from every pixel back to the seed (Dijkstra on the pixel grid with the
// indexed heap of MinPriorityQueue.h), so the caller can trace a boundary
// from any cursor position by following parents.
//
// Step cost: sqrt(((1 - alpha)/3) * |colour difference|^2 + alpha * |step|^2)
// with |step|^2 = 1 for straight and 2 for diagonal steps. Steps between an
// object pixel (label 2 or 4) and a background pixel (label 1 or 3) are
// "blocked" the established way: the largest double is stored into the
// down-right link of the pixel the step leaves, and the blocked link itself
// keeps its previous cost (0.0 in a fresh record). So a blocked step other
// than down-right costs nothing, and any blocked step makes that pixel's
// down-right step unusable. Callers rely on this; keep it.
//
// Costs: all link costs are computed before the search (8 per pixel); the
// search is O(N log N) with decrease-key in place. Memory: one Node_ (152
// bytes) plus 16 bytes of heap and 4 of position per pixel.
//
// Inputs: a 3-channel 8-bit colour image and a 1-channel 8-bit label image
// of the same size. Bad inputs log one line (tag "Error") and the call
// returns harmlessly; a seed outside the image throws std::out_of_range.
#pragma once

#include <opencv2/core/core_c.h>

#include <cstdint>
#include <vector>

#include "support/export.h"

// Link slots of a pixel (r, c), in this fixed order.
enum LiveWireSlot : int {
  kSlotDownRight = 0,  // (r+1, c+1)
  kSlotRight = 1,      // (r,   c+1)
  kSlotUpRight = 2,    // (r-1, c+1)
  kSlotUp = 3,         // (r-1, c)
  kSlotUpLeft = 4,     // (r-1, c-1)
  kSlotLeft = 5,       // (r,   c-1)
  kSlotDownLeft = 6,   // (r+1, c-1)
  kSlotDown = 7,       // (r+1, c)
};

// One directed step out of a pixel.
struct NodeLink {
  int32_t to;       // neighbour's pixel id, -1 outside the image
  double linkCost;  // cost of stepping to it; the largest double when unusable
};

// Search record of pixel (r, c): record and id r*width + c.
struct Node_ {
  int32_t pixel;        // own id
  double cost;          // best cost to the seed so far; largest double until reached
  int32_t parentPixel;  // next pixel towards the seed; -1 until reached, the seed's own id
  NodeLink links[8];    // in LiveWireSlot order
};

// Step cost between (r1, c1) and (r2, c2) of a 3-channel 8-bit image (see
// above). A null image, another format or a pixel outside it logs a line and
// gives the largest double.
SEGCORE_EXPORT double find_weight(IplImage* image, int r1, int c1, int r2, int c2, double alpha);

// Fills node.links[k].to for pixel (r, c) of a height x width grid; -1 for
// neighbours outside. The last argument is not used. A pixel outside the
// grid, or a grid whose ids do not fit in an int, logs a line and leaves node
// untouched.
SEGCORE_EXPORT void assign_index(Node_& node, int height, int width, int r, int c, double);

// Fills node.links[k].linkCost for pixel (r, c) from the colours and labels
// (blocked steps as described above); node.links must already hold the ids.
// Mismatched or malformed images, or (r, c) outside them, log a line and
// leave node untouched.
SEGCORE_EXPORT void assign_weight(IplImage* image, IplImage* labels, Node_& node, int r, int c,
                                  double alpha);

// Runs the search from (seedRow, seedCol) and returns width*height parent ids
// in pixel order (-1 for pixels the seed cannot reach). Bad images (no
// pixel data, wrong format or size, more pixels than int ids) and a search
// that does not fit in memory give an empty vector and a log line; a seed
// outside the image throws std::out_of_range.
SEGCORE_EXPORT std::vector<int> find_parent_info(IplImage* image, IplImage* labels, int seedRow,
                                                 int seedCol, double alpha);
// The same, and writes every pixel's final cost into costMap (same size as
// image, any depth, set with cvSet2D; unreachable pixels get the largest
// double, saturated by the map's depth).
SEGCORE_EXPORT std::vector<int> find_parent_info(IplImage* image, IplImage* labels, int seedRow,
                                                 int seedCol, double alpha, IplImage* costMap);

// Hands the contours of the last preview over to the caller, once:
//   [count, n1, x, y, ... (n1 pairs), -1, n2, ..., -1]
// with *length = 2 * (count + total points) + 1, or [0] with *length = 1 when
// there are none. The array is allocated with new[] and stored at *array;
// the caller releases it with delete[]. Afterwards `contours` is null and
// g_contoursFound 0. Null arguments, or no memory for the array, log a line
// and return null (with *array null and *length 0 when they can be written),
// leaving the contours in place.
SEGCORE_EXPORT int* fetch_path_array(int** array, int* length);
