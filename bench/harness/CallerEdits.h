// Edits driven the way an application drives the engine (only the caller's
// functions), the corrective edits a user would make on an evaluation photo,
// and cv::grabCut as the peer at the engine's working size. Shared by the
// benchmark programs.
#pragma once

#include <opencv2/core.hpp>

#include <cstdint>
#include <vector>

// Edit kinds, in the order the programs print them.
enum class EditKind { kRectangle, kStrokeAdd, kStrokeRemove, kLoopAdd };
constexpr int kEditKinds = 4;
// Short name: "rect", "add", "remove", "loop".
const char* editName(EditKind kind);

// A rectangle with inclusive corners, as doSegmentationBB takes it.
struct Box {
  int x1 = 0, y1 = 0, x2 = 0, y2 = 0;
};

// The edits on one photo: the rectangle, and the corrective edits each
// made on top of it (planEdits). Points are pixels of the photo.
struct EditPlan {
  Box box;
  std::vector<cv::Point> addStroke;     // brush stroke that adds
  std::vector<cv::Point> removeStroke;  // brush stroke that removes
  std::vector<cv::Point> loop;          // closed loop that adds
  int brush = 2;                        // brush radius in pixels
};

// The corrective edits a user would make after the rectangle, derived from
// the photo's truth mask (255 = object) and the rectangle's result (255 =
// object; may be empty):
//   add     a stroke over the object the result missed;
//   remove  a stroke over the background it took;
//   loop    a 16-gon of radius 4 % of the shorter side around the missed
//           object.
// Each goes to the deepest point of its region. Where the region is too
// thin for twice the brush (a good cut), the strokes change the cut: add
// goes to the deepest point, inside the box, of the background the result
// left out, remove to the deepest point of the object it took; the loop
// crosses the outline at the object's leftmost point (first in row order).
// A stroke with no region at all is a dab at the photo's centre.
// Strokes are three points along a row, at most 10 % of the shorter side
// long, clear of the region's edge. The brush radius is 2 % of the shorter
// side, at least 2: with 1 % (the command-line program's default) most
// strokes on the 640x480 photos change no pixel at all, which times an edit
// that does no work. The same truth and result give the same edits in every
// build.
EditPlan planEdits(const cv::Mat& truth, const Box& box, const cv::Mat& result = cv::Mat());

// The caller's side of one engine: the ARGB source, the mask and the preview
// buffer, nothing more. The engine is torn down with the session.
class CallerSession {
 public:
  explicit CallerSession(const cv::Mat& bgr);
  ~CallerSession();
  CallerSession(const CallerSession&) = delete;
  CallerSession& operator=(const CallerSession&) = delete;

  // Runs one edit; returns its wall time in ms. The caller's preparation
  // (painting the marker image, copying the source into the preview) is not
  // timed: the time runs from the first engine call of the edit to the
  // return of the last. The rectangle creates the engine (doSegmentationBB);
  // the others need it and go through setMarkerImage, setCurrentMarkerVector
  // and processSegment.
  double run(EditKind kind, const EditPlan& plan);
  // The caller's part of run(): the preview reset to the source and the
  // edit's marker image (CV_32S labels) and path, ready for request(); kept
  // apart so that a measurement can start after it.
  void prepare(EditKind kind, const EditPlan& plan);
  // The engine's part of run(), after prepare(); returns ms.
  double request(EditKind kind, const EditPlan& plan);

  // The newest mask as 255 = object, 0 = background.
  cv::Mat objectMask() const;
  // The engine's mask buffer (0 = object, 255 = background).
  const std::vector<uint8_t>& mask() const { return m_mask; }
  // 64-bit FNV-1a hash of the engine's mask buffer (two builds with the same
  // masks print the same hash).
  uint64_t maskHash() const;

 private:
  int m_width, m_height;
  std::vector<unsigned int> m_source;
  std::vector<unsigned int> m_preview;
  std::vector<uint8_t> m_mask;  // engine convention: 0 = object, 255 = background
  cv::Mat m_markers;            // of the prepared edit
  std::vector<int> m_path;      // its drawn path, x y pairs
};

// cv::grabCut from the rectangle, 5 iterations; 255 = object.
cv::Mat grabCutObject(const cv::Mat& bgr, const cv::Rect& rect);
// cv::grabCut on the photo reduced like the engine's working image (by
// sqrt(W*H/76800) when that is above 1, linear), from the scaled rectangle;
// the mask enlarged back (nearest); 255 = object. *ms is the whole time,
// the two resizes included.
cv::Mat grabCutAtWorkingSize(const cv::Mat& bgr, const Box& box, double* ms);
