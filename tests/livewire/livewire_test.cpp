// The live-wire search against a plain O(N^2) Dijkstra over link costs that
// the test derives itself from the colours and labels, and the hand-over of
// the preview contours.
#include "livewire/LiveWire.h"

#include <gtest/gtest.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc/imgproc_c.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/LogCapture.h"
#include "engine/EngineState.h"

namespace {

// Neighbour offsets in link-slot order: down-right, right, up-right, up,
// up-left, left, down-left, down.
const int kDr[8] = {1, 0, -1, -1, -1, 0, 1, 1};
const int kDc[8] = {1, 1, 1, 0, -1, -1, -1, 0};

struct Images {
  IplImage* colour = nullptr;
  IplImage* labels = nullptr;
  Images(int w, int h) {
    colour = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 3);
    labels = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    cvSetZero(colour);
    cvSetZero(labels);
  }
  ~Images() {
    cvReleaseImage(&colour);
    cvReleaseImage(&labels);
  }
  Images(const Images&) = delete;
  Images& operator=(const Images&) = delete;
};

// Directed link costs of every pixel, slot by slot, as the caller documents
// them: outside -> DBL_MAX; a step between object (2, 4) and background
// (1, 3) costs 0 but makes the pixel's down-right step DBL_MAX; otherwise
// sqrt(((1-a)/3)*|dcolour|^2 + a*|dstep|^2).
std::vector<std::vector<double>> linkCosts(const IplImage* colour, const IplImage* labels,
                                           double alpha) {
  const int w = colour->width, h = colour->height;
  auto fg = [](double l) { return l == 2 || l == 4; };
  auto bg = [](double l) { return l == 1 || l == 3; };
  std::vector<std::vector<double>> cost(static_cast<size_t>(w) * h, std::vector<double>(8, 0.0));
  for (int r = 0; r < h; ++r)
    for (int c = 0; c < w; ++c) {
      std::vector<double>& out = cost[r * w + c];
      const double own = cvGet2D(labels, r, c).val[0];
      bool anyBlocked = false;
      for (int k = 0; k < 8; ++k) {
        const int qr = r + kDr[k], qc = c + kDc[k];
        if (qr < 0 || qr >= h || qc < 0 || qc >= w) {
          out[k] = DBL_MAX;
          continue;
        }
        const double other = cvGet2D(labels, qr, qc).val[0];
        if ((fg(own) && bg(other)) || (bg(own) && fg(other))) {
          anyBlocked = true;  // out[k] stays 0
          continue;
        }
        const CvScalar a = cvGet2D(colour, r, c), b = cvGet2D(colour, qr, qc);
        double colourSq = 0;
        for (int ch = 0; ch < 3; ++ch)
          colourSq += (a.val[ch] - b.val[ch]) * (a.val[ch] - b.val[ch]);
        out[k] =
            std::sqrt((1 - alpha) / 3 * colourSq + alpha * (kDr[k] * kDr[k] + kDc[k] * kDc[k]));
      }
      if (anyBlocked) out[0] = DBL_MAX;
    }
  return cost;
}

// Textbook Dijkstra: pick the cheapest unsettled pixel by a linear scan.
// DBL_MAX links are never usable; NaN links (alpha outside [0, 1]) fail
// every comparison, as they would anywhere.
std::vector<double> plainDijkstra(const std::vector<std::vector<double>>& cost, int w, int h,
                                  int seed) {
  const size_t n = static_cast<size_t>(w) * h;
  std::vector<double> dist(n, DBL_MAX);
  std::vector<bool> done(n, false);
  dist[seed] = 0;
  for (size_t round = 0; round < n; ++round) {
    int u = -1;
    for (size_t i = 0; i < n; ++i)
      if (!done[i] && dist[i] < DBL_MAX && (u < 0 || dist[i] < dist[u])) u = static_cast<int>(i);
    if (u < 0) break;
    done[u] = true;
    for (int k = 0; k < 8; ++k) {
      const int qr = u / w + kDr[k], qc = u % w + kDc[k];
      if (qr < 0 || qr >= h || qc < 0 || qc >= w || cost[u][k] == DBL_MAX) continue;
      const double alt = dist[u] + cost[u][k];
      if (alt < dist[qr * w + qc]) dist[qr * w + qc] = alt;
    }
  }
  return dist;
}

bool near(double a, double b) { return std::fabs(a - b) <= 1e-9 * (1 + std::fabs(b)); }

// Parents must agree with the reference distances: reached pixels step to
// a neighbour whose cost plus the link is their own, and the chain ends at
// the seed; unreached pixels have parent -1.
void checkSearch(const IplImage* colour, const IplImage* labels, int seedRow, int seedCol,
                 double alpha, const std::vector<int>& parents, const IplImage* costMap) {
  const int w = colour->width, h = colour->height;
  const int seed = seedRow * w + seedCol;
  const auto cost = linkCosts(colour, labels, alpha);
  const std::vector<double> dist = plainDijkstra(cost, w, h, seed);
  ASSERT_EQ(parents.size(), dist.size());
  for (int v = 0; v < w * h; ++v) {
    SCOPED_TRACE(::testing::Message()
                 << "pixel " << v << " of " << w << "x" << h << ", seed " << seed);
    if (costMap != nullptr) {
      const double got = cvGet2D(costMap, v / w, v % w).val[0];
      ASSERT_TRUE(near(got, dist[v])) << got << " vs " << dist[v];
    }
    if (dist[v] == DBL_MAX) {
      ASSERT_EQ(parents[v], -1);
      continue;
    }
    if (v == seed) {
      ASSERT_EQ(parents[v], seed);
      continue;
    }
    const int p = parents[v];
    ASSERT_GE(p, 0);
    int slot = -1;
    for (int k = 0; k < 8; ++k)
      if ((p / w) + kDr[k] == v / w && (p % w) + kDc[k] == v % w) slot = k;
    ASSERT_GE(slot, 0) << "parent " << p << " is no neighbour";
    ASSERT_TRUE(near(dist[p] + cost[p][slot], dist[v]));
    int steps = 0, at = v;
    while (at != seed && steps++ <= w * h) at = parents[at];
    ASSERT_EQ(at, seed) << "parent chain does not reach the seed";
  }
}

void fillRandom(Images& img, std::mt19937& rng, int colourLevels, int labelKinds) {
  for (int r = 0; r < img.colour->height; ++r)
    for (int c = 0; c < img.colour->width; ++c) {
      uint8_t* px =
          reinterpret_cast<uint8_t*>(img.colour->imageData) + r * img.colour->widthStep + 3 * c;
      for (int ch = 0; ch < 3; ++ch)
        px[ch] = static_cast<uint8_t>((rng() % colourLevels) * (255 / colourLevels));
      const uint8_t labelSet[] = {0, 1, 2, 3, 4, 7};
      reinterpret_cast<uint8_t*>(img.labels->imageData)[r * img.labels->widthStep + c] =
          labelSet[rng() % labelKinds];
    }
}

TEST(LiveWire, CostsMatchAPlainDijkstraOnRandomImages) {
  std::mt19937 rng(2024);
  for (int trial = 0; trial < 300; ++trial) {
    const int w = 1 + static_cast<int>(rng() % 14), h = 1 + static_cast<int>(rng() % 14);
    Images img(w, h);
    // Few colour levels give ties; label kinds 1 (all unknown) to 6 (all).
    fillRandom(img, rng, trial % 3 == 0 ? 2 : 256, 1 + static_cast<int>(rng() % 6));
    const double alpha = std::uniform_real_distribution<double>(0, 1)(rng);
    const int corner = static_cast<int>(rng() % 5);
    const int seedRow = corner == 4 ? static_cast<int>(rng() % h) : (corner & 1 ? h - 1 : 0);
    const int seedCol = corner == 4 ? static_cast<int>(rng() % w) : (corner & 2 ? w - 1 : 0);
    IplImage* costMap = cvCreateImage(cvSize(w, h), IPL_DEPTH_64F, 1);
    const std::vector<int> parents =
        find_parent_info(img.colour, img.labels, seedRow, seedCol, alpha, costMap);
    SCOPED_TRACE(::testing::Message() << "trial " << trial << " alpha " << alpha);
    checkSearch(img.colour, img.labels, seedRow, seedCol, alpha, parents, costMap);
    EXPECT_EQ(find_parent_info(img.colour, img.labels, seedRow, seedCol, alpha), parents);
    cvReleaseImage(&costMap);
    if (HasFatalFailure()) return;
  }
}

// With alpha above 1 a step between very different colours has no real
// cost (the root of a negative number): pixels cut off that way stay
// unreached with parent -1 and the largest cost.
TEST(LiveWire, PixelsWithoutAUsableStepStayUnreached) {
  std::mt19937 rng(7);
  int unreached = 0;
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 2 + static_cast<int>(rng() % 8), h = 2 + static_cast<int>(rng() % 8);
    Images img(w, h);
    fillRandom(img, rng, 2, trial % 2 == 0 ? 1 : 6);
    const int seedRow = static_cast<int>(rng() % h), seedCol = static_cast<int>(rng() % w);
    IplImage* costMap = cvCreateImage(cvSize(w, h), IPL_DEPTH_64F, 1);
    const std::vector<int> parents =
        find_parent_info(img.colour, img.labels, seedRow, seedCol, 2.0, costMap);
    SCOPED_TRACE(trial);
    checkSearch(img.colour, img.labels, seedRow, seedCol, 2.0, parents, costMap);
    for (int p : parents) unreached += p == -1;
    cvReleaseImage(&costMap);
    if (HasFatalFailure()) return;
  }
  EXPECT_GT(unreached, 0);  // the case was exercised
}

// A step between object and background: free across, and the pixel's
// down-right step is gone even towards an unlabelled neighbour. A record
// that already held a cost in the blocked slot keeps it.
TEST(LiveWire, BlockedStepStoresIntoTheDownRightSlot) {
  Images img(2, 2);
  uint8_t* labels = reinterpret_cast<uint8_t*>(img.labels->imageData);
  labels[0] = 2;  // (0, 0) object
  labels[1] = 1;  // (0, 1) background
  cvSet2D(img.colour, 1, 0, cvScalar(0, 0, 30, 0));
  Node_ node{};
  assign_index(node, 2, 2, 0, 0, 0.0);
  EXPECT_EQ(node.links[kSlotDownRight].to, 3);
  EXPECT_EQ(node.links[kSlotRight].to, 1);
  EXPECT_EQ(node.links[kSlotDown].to, 2);
  for (int k : {kSlotUpRight, kSlotUp, kSlotUpLeft, kSlotLeft, kSlotDownLeft})
    EXPECT_EQ(node.links[k].to, -1);
  node.links[kSlotRight].linkCost = 5.0;
  assign_weight(img.colour, img.labels, node, 0, 0, 0.0);
  EXPECT_EQ(node.links[kSlotDownRight].linkCost, DBL_MAX);
  EXPECT_EQ(node.links[kSlotRight].linkCost, 5.0);
  EXPECT_DOUBLE_EQ(node.links[kSlotDown].linkCost, std::sqrt(900.0 / 3));
  EXPECT_EQ(node.links[kSlotLeft].linkCost, DBL_MAX);

  // find_weight: hand-computed diagonal and an equal-colour straight step.
  IplImage* colour = cvCreateImage(cvSize(3, 3), IPL_DEPTH_8U, 3);
  cvSetZero(colour);
  cvSet2D(colour, 0, 0, cvScalar(10, 20, 30, 0));
  cvSet2D(colour, 1, 1, cvScalar(13, 24, 30, 0));
  EXPECT_DOUBLE_EQ(find_weight(colour, 0, 0, 1, 1, 0.25), std::sqrt(0.75 / 3 * 25 + 0.25 * 2));
  EXPECT_DOUBLE_EQ(find_weight(colour, 1, 1, 0, 0, 0.25), std::sqrt(0.75 / 3 * 25 + 0.25 * 2));
  EXPECT_EQ(find_weight(colour, 2, 1, 2, 2, 0.0), 0.0);
  cvReleaseImage(&colour);
}

TEST(LiveWire, SinglePixelAndBadInputs) {
  Images one(1, 1);
  EXPECT_EQ(find_parent_info(one.colour, one.labels, 0, 0, 0.5), std::vector<int>{0});

  Images img(4, 3);
  // (0, 4) would be pixel 4 of a 4-wide image: the seed is checked by row and column.
  EXPECT_THROW(find_parent_info(img.colour, img.labels, 0, 4, 0.5), std::out_of_range);
  EXPECT_THROW(find_parent_info(img.colour, img.labels, -1, 0, 0.5), std::out_of_range);

  LogCapture log;
  IplImage* small = cvCreateImage(cvSize(2, 2), IPL_DEPTH_8U, 1);
  EXPECT_TRUE(find_parent_info(img.colour, nullptr, 0, 0, 0.5).empty());
  EXPECT_TRUE(find_parent_info(img.colour, small, 0, 0, 0.5).empty());
  EXPECT_TRUE(find_parent_info(img.colour, img.labels, 0, 0, 0.5, small).empty());
  EXPECT_EQ(find_weight(img.colour, 0, 0, 3, 4, 0.5), DBL_MAX);
  Node_ node{};
  assign_weight(img.colour, img.labels, node, 3, 0, 0.5);
  EXPECT_EQ(node.links[0].linkCost, 0.0);  // untouched
  EXPECT_EQ(log.countPrefix("Error", ""), 5) << log.dump();
  cvReleaseImage(&small);
}

class PathArray : public ::testing::Test {
 protected:
  void TearDown() override { ZIRK_ReleaseContourStorage(); }
};

// Two contours found the way the preview finds them; a small block size
// spreads the long one over several storage blocks.
TEST_F(PathArray, HandsTheContoursOverOnce) {
  IplImage* mask = cvCreateImage(cvSize(100, 60), IPL_DEPTH_8U, 1);
  cvSetZero(mask);
  cvRectangle(mask, cvPoint(3, 4), cvPoint(12, 9), cvScalarAll(255), -1);
  // A comb: notches along its top and bottom edges make a long contour.
  cvRectangle(mask, cvPoint(2, 15), cvPoint(97, 50), cvScalarAll(255), -1);
  for (int x = 3; x < 97; x += 2) {
    cvSet2D(mask, 15, x, cvScalarAll(0));
    cvSet2D(mask, 50, x, cvScalarAll(0));
  }
  IplImage* work = cvCloneImage(mask);
  storage = cvCreateMemStorage(1024);
  cvFindContours(work, storage, &contours, sizeof(CvContour), CV_RETR_LIST, CV_CHAIN_APPROX_SIMPLE,
                 cvPoint(0, 0));
  cvReleaseImage(&work);
  ASSERT_NE(contours, nullptr);
  g_contoursFound = 1;

  // What the array must say, read element by element from the sequences.
  std::vector<int> expected{0};
  int longest = 0;
  for (CvSeq* seq = contours; seq != nullptr; seq = seq->h_next) {
    ++expected[0];
    expected.push_back(seq->total);
    longest = std::max(longest, seq->total);
    for (int i = 0; i < seq->total; ++i) {
      const CvPoint* p = reinterpret_cast<const CvPoint*>(cvGetSeqElem(seq, i));
      expected.push_back(p->x);
      expected.push_back(p->y);
    }
    expected.push_back(-1);
  }
  ASSERT_EQ(expected[0], 2);
  ASSERT_GT(longest * static_cast<int>(sizeof(CvPoint)), 1024);  // crosses storage blocks

  LogCapture log;
  EXPECT_EQ(fetch_path_array(nullptr, nullptr), nullptr);
  EXPECT_EQ(log.countPrefix("Error", "fetch_path_array"), 1);
  EXPECT_EQ(g_contoursFound, 1);

  int* array = nullptr;
  int length = 0;
  int* returned = fetch_path_array(&array, &length);
  EXPECT_EQ(returned, array);
  ASSERT_EQ(length, static_cast<int>(expected.size()));
  EXPECT_EQ(std::vector<int>(array, array + length), expected);
  // Every listed point lies on the object and on its border.
  for (int at = 1, c = 0; c < array[0]; ++c) {
    const int n = array[at++];
    for (int i = 0; i < n; ++i, at += 2) {
      const int x = array[at], y = array[at + 1];
      EXPECT_EQ(cvGet2D(mask, y, x).val[0], 255) << x << "," << y;
      bool border = x == 0 || y == 0 || x == 99 || y == 59;
      for (int k = 0; k < 8 && !border; ++k)
        border = cvGet2D(mask, y + kDr[k], x + kDc[k]).val[0] == 0;
      EXPECT_TRUE(border) << x << "," << y;
    }
    EXPECT_EQ(array[at++], -1);
  }
  delete[] array;
  EXPECT_EQ(contours, nullptr);
  EXPECT_EQ(g_contoursFound, 0);

  array = nullptr;
  returned = fetch_path_array(&array, &length);
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(returned, array);
  EXPECT_EQ(length, 1);
  EXPECT_EQ(array[0], 0);
  delete[] array;
  cvReleaseImage(&mask);
}

}  // namespace
