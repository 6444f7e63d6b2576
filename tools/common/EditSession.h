// One edit sequence on one photo, driven through the caller's functions only:
// the way an application drives the engine. Shared by segcut and segdemo.
#pragma once

#include <opencv2/core.hpp>

#include <string>
#include <vector>

// One edit: "rect" (x1 y1 x2 y2, corners inclusive), "loop", "cutloop",
// "add", "remove" (x y pairs), "brush" (radius), "undo", "redo".
struct Edit {
  std::string kind;
  std::vector<int> values;  // rect corners, brush radius, or x y pairs
  int line = 0;             // line of an edits file, for messages
};

// The photo as 0xFFRRGGBB words, and back.
std::vector<unsigned int> toArgb(const cv::Mat& bgr);
cv::Mat fromArgb(const std::vector<unsigned int>& argb, int width, int height);

// An engine mask (0 = object) as an 8-bit image with 255 = object, and back.
cv::Mat objectMaskOf(const std::vector<unsigned char>& mask, int width, int height);
std::vector<unsigned char> engineMaskOf(const cv::Mat& object);
// The photo as BGRA with the background transparent.
cv::Mat cutoutOf(const cv::Mat& bgr, const cv::Mat& object);

class EditSession {
 public:
  enum class Result { kDone, kCancelled, kEngineGone };

  explicit EditSession(const cv::Mat& photo);
  ~EditSession();
  EditSession(const EditSession&) = delete;
  EditSession& operator=(const EditSession&) = delete;

  // Applies one edit. A cancelled (or timed-out) edit leaves the mask and the
  // preview as they were before it.
  Result apply(const Edit& e);

  // Starts a fresh history in the engine holding `masks` (engine convention,
  // oldest first) and steps back to `position` masks; shows the mask there.
  // Creating the history anew also lowers a cancel request left raised.
  void restoreHistory(const std::vector<std::vector<unsigned char>>& masks, int position);

  int width() const { return m_width; }
  int height() const { return m_height; }
  int brush() const { return m_brush; }
  const std::vector<unsigned char>& mask() const { return m_mask; }  // 0 = object
  const std::vector<unsigned int>& preview() const { return m_preview; }

 private:
  void ensureEngine();
  void render(void (*step)(unsigned int*, unsigned char*));

  int m_width, m_height;
  std::vector<unsigned int> m_source;
  std::vector<unsigned int> m_preview;
  std::vector<unsigned char> m_mask;  // engine convention: 0 = object
  int m_brush;
  bool m_engine = false;  // set up by the first edit
};
