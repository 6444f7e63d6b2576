// segcut: cuts an object out of a photo with the engine's exported functions.
//
//   segcut --image PHOTO (--rect X1 Y1 X2 Y2 | --edits FILE) --out PREFIX
//
// PHOTO is any image OpenCV can read. The rectangle's corners are inclusive
// pixel coordinates. Writes
//   PREFIX_mask.png     8-bit, 255 = object, 0 = background
//   PREFIX_cutout.png   the photo as RGBA, background transparent
//   PREFIX_preview.png  the photo with the object's outline painted yellow
// and prints the time of every edit in milliseconds.
//
// An edits file holds one edit a line, applied in order; blank lines and
// lines starting with '#' are skipped. Coordinates are pixels of the photo.
//   rect X1 Y1 X2 Y2      a new cut from a rectangle (starts a new sequence)
//   loop X Y X Y ...      closed loop around a part to add (3 points or more)
//   cutloop X Y X Y ...   closed loop around a part to remove (3 points or more)
//   add X Y X Y ...       brush stroke over object the cut missed
//   remove X Y X Y ...    brush stroke over background the cut took
//   brush R               brush radius in pixels for later strokes
//                         (default: 1% of the shorter side, at least 2)
//   undo, redo            step back or forth in the history
// A stroke of a single point is a dab of the brush.
//
// Only the caller's umbrella header is used, spelled as an installed caller
// spells it: this is how an application drives the engine.
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <SegmentationCore/SegmentationCore.h>

namespace {

const char* kUsage =
    "usage: segcut --image PHOTO (--rect X1 Y1 X2 Y2 | --edits FILE) --out PREFIX\n"
    "\n"
    "Cuts the object out of PHOTO and writes PREFIX_mask.png (255 = object),\n"
    "PREFIX_cutout.png (RGBA, transparent background) and PREFIX_preview.png\n"
    "(outline painted). Prints the time of each edit in ms.\n"
    "\n"
    "  --rect X1 Y1 X2 Y2   cut from a rectangle, corners inclusive\n"
    "  --edits FILE         apply the edits of FILE, one a line:\n"
    "      rect X1 Y1 X2 Y2     new cut from a rectangle\n"
    "      loop X Y X Y ...     closed loop around a part to add\n"
    "      cutloop X Y X Y ...  closed loop around a part to remove\n"
    "      add X Y X Y ...      brush stroke over missed object\n"
    "      remove X Y X Y ...   brush stroke over wrongly taken background\n"
    "      brush R              brush radius in pixels for later strokes\n"
    "      undo | redo          step in the history\n"
    "    blank lines and lines starting with '#' are skipped.\n";

// Labels of the caller's marker image.
constexpr int kUnknown = 0, kBackground = 1, kObject = 2, kBackgroundEst = 3, kObjectEst = 4;
// Edit kinds.
constexpr int kLoopAdd = 0, kLoopRemove = 1, kStrokeAdd = 2, kStrokeRemove = 3;

struct Edit {
  std::string kind;
  std::vector<int> values;  // rect corners, brush radius, or x y pairs
  int line = 0;
};

bool parseEdits(const std::string& file, std::vector<Edit>* edits) {
  std::ifstream in(file);
  if (!in) {
    std::fprintf(stderr, "segcut: cannot read %s\n", file.c_str());
    return false;
  }
  std::string text;
  for (int line = 1; std::getline(in, text); ++line) {
    std::istringstream words(text);
    Edit e;
    e.line = line;
    if (!(words >> e.kind) || e.kind[0] == '#') continue;
    std::string word;
    while (words >> word) {
      char* end = nullptr;
      const long v = std::strtol(word.c_str(), &end, 10);
      if (end == word.c_str() || *end != '\0') {
        std::fprintf(stderr, "segcut: %s:%d: '%s' is not a number\n", file.c_str(), line, word.c_str());
        return false;
      }
      e.values.push_back(static_cast<int>(v));
    }
    const size_t n = e.values.size();
    bool ok = true;
    if (e.kind == "rect") ok = n == 4;
    else if (e.kind == "brush") ok = n == 1 && e.values[0] >= 1;
    else if (e.kind == "undo" || e.kind == "redo") ok = n == 0;
    else if (e.kind == "loop" || e.kind == "cutloop") ok = n >= 6 && n % 2 == 0;
    else if (e.kind == "add" || e.kind == "remove") ok = n >= 2 && n % 2 == 0;
    else {
      std::fprintf(stderr, "segcut: %s:%d: unknown edit '%s'\n", file.c_str(), line, e.kind.c_str());
      return false;
    }
    if (!ok) {
      std::fprintf(stderr, "segcut: %s:%d: wrong number of values for '%s'\n", file.c_str(), line,
                   e.kind.c_str());
      return false;
    }
    edits->push_back(e);
  }
  return true;
}

std::vector<cv::Point> pointsOf(const Edit& e) {
  std::vector<cv::Point> points;
  for (size_t i = 0; i + 1 < e.values.size(); i += 2) points.emplace_back(e.values[i], e.values[i + 1]);
  return points;
}

// The photo as 0xFFRRGGBB words.
std::vector<unsigned int> toArgb(const cv::Mat& bgr) {
  std::vector<unsigned int> argb(bgr.total());
  for (int y = 0; y < bgr.rows; ++y) {
    const cv::Vec3b* row = bgr.ptr<cv::Vec3b>(y);
    for (int x = 0; x < bgr.cols; ++x)
      argb[static_cast<size_t>(y) * bgr.cols + x] =
          0xFF000000u | (unsigned(row[x][2]) << 16) | (unsigned(row[x][1]) << 8) | row[x][0];
  }
  return argb;
}

cv::Mat fromArgb(const std::vector<unsigned int>& argb, int width, int height) {
  cv::Mat bgr(height, width, CV_8UC3);
  for (int y = 0; y < height; ++y) {
    cv::Vec3b* row = bgr.ptr<cv::Vec3b>(y);
    for (int x = 0; x < width; ++x) {
      const unsigned int w = argb[static_cast<size_t>(y) * width + x];
      row[x] = cv::Vec3b(w & 0xFF, (w >> 8) & 0xFF, (w >> 16) & 0xFF);
    }
  }
  return bgr;
}

class Session {
 public:
  explicit Session(const cv::Mat& photo)
      : m_width(photo.cols),
        m_height(photo.rows),
        m_source(toArgb(photo)),
        m_preview(m_source),
        m_mask(m_source.size(), 255),
        m_brush(std::max(2, std::min(photo.cols, photo.rows) / 100)) {}
  ~Session() { deinitSegmentation(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Applies one edit; false when the engine went away.
  bool apply(const Edit& e) {
    if (e.kind == "brush") {
      m_brush = e.values[0];
      return true;
    }
    if (e.kind == "rect") {
      std::vector<unsigned int> argb = m_source;
      // Only 0 and 255 are ever written: a byte left at 7 means no mask came
      // back (a cancelled cut).
      std::fill(m_mask.begin(), m_mask.end(), 7);
      doSegmentationBB(m_width, m_height, argb.data(), e.values[0], e.values[1], e.values[2],
                       e.values[3], m_mask.data());
      m_engine = true;
      if (m_mask[0] == 7) {
        m_preview = m_source;
        std::fill(m_mask.begin(), m_mask.end(), 255);
      } else {
        // The rectangle's preview stays inside the engine: at the newest
        // mask a redo renders that same mask again.
        render(&redo);
      }
      return true;
    }
    if (!m_engine) {
      setSourceImage(m_width, m_height, m_source.data());
      initSegmentationEngine(0);
      m_engine = true;
    }
    if (e.kind == "undo" || e.kind == "redo") {
      render(e.kind == "undo" ? &undo : &redo);
      return true;
    }
    const std::vector<cv::Point> points = pointsOf(e);
    cv::Mat markers(m_height, m_width, CV_32S, cv::Scalar(kUnknown));
    int kind = kLoopAdd;
    if (e.kind == "loop" || e.kind == "cutloop") {
      kind = e.kind == "loop" ? kLoopAdd : kLoopRemove;
      cv::fillPoly(markers, std::vector<std::vector<cv::Point>>{points},
                   cv::Scalar(kind == kLoopAdd ? kObjectEst : kBackgroundEst));
    } else {
      kind = e.kind == "add" ? kStrokeAdd : kStrokeRemove;
      const cv::Scalar label(kind == kStrokeAdd ? kObject : kBackground);
      cv::polylines(markers, std::vector<std::vector<cv::Point>>{points}, false, label, 2 * m_brush + 1);
      for (const cv::Point& p : points) cv::circle(markers, p, m_brush, label, cv::FILLED);
    }
    std::vector<int> path(e.values);
    m_preview = m_source;
    setMarkerImage(m_width, m_height, markers.ptr<int>(), kind);
    setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
    return processSegment(0, 0, 0, m_preview.data(), m_mask.data()) == 0;
  }

  bool write(const std::string& prefix, const cv::Mat& photo) const {
    cv::Mat object(m_height, m_width, CV_8U);
    for (int y = 0; y < m_height; ++y)
      for (int x = 0; x < m_width; ++x)
        object.at<uint8_t>(y, x) = m_mask[static_cast<size_t>(y) * m_width + x] == 0 ? 255 : 0;
    cv::Mat cutout;
    cv::cvtColor(photo, cutout, cv::COLOR_BGR2BGRA);
    cutout.setTo(cv::Scalar(0, 0, 0, 0), object == 0);
    return cv::imwrite(prefix + "_mask.png", object) && cv::imwrite(prefix + "_cutout.png", cutout) &&
           cv::imwrite(prefix + "_preview.png", fromArgb(m_preview, m_width, m_height));
  }

 private:
  // Shows the history step on a fresh copy of the photo. A step back to
  // before the first edit leaves the mask buffer alone: it is reset to
  // "no object" first so the output matches the empty state.
  void render(void (*step)(unsigned int*, unsigned char*)) {
    m_preview = m_source;
    std::fill(m_mask.begin(), m_mask.end(), 255);
    step(m_preview.data(), m_mask.data());
  }

  int m_width, m_height;
  std::vector<unsigned int> m_source;
  std::vector<unsigned int> m_preview;
  std::vector<unsigned char> m_mask;  // engine convention: 0 = object
  int m_brush;
  bool m_engine = false;  // set up by the first edit
};

}  // namespace

int main(int argc, char** argv) {
  std::string image, editsFile, prefix;
  std::vector<Edit> edits;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--image" && i + 1 < argc) {
      image = argv[++i];
    } else if (arg == "--out" && i + 1 < argc) {
      prefix = argv[++i];
    } else if (arg == "--edits" && i + 1 < argc) {
      editsFile = argv[++i];
    } else if (arg == "--rect" && i + 4 < argc) {
      Edit e;
      e.kind = "rect";
      for (int k = 0; k < 4; ++k) e.values.push_back(std::atoi(argv[++i]));
      edits.push_back(e);
    } else {
      std::fprintf(stderr, "segcut: unexpected argument '%s'\n\n%s", arg.c_str(), kUsage);
      return 2;
    }
  }
  if (image.empty() || prefix.empty() || (edits.empty() == editsFile.empty())) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (!editsFile.empty() && !parseEdits(editsFile, &edits)) return 2;

  const cv::Mat photo = cv::imread(image, cv::IMREAD_COLOR);
  if (photo.empty()) {
    std::fprintf(stderr, "segcut: cannot read the photo %s\n", image.c_str());
    return 1;
  }
  std::printf("%s: %dx%d\n", image.c_str(), photo.cols, photo.rows);

  const auto start = std::chrono::steady_clock::now();
  Session session(photo);
  int number = 0;
  for (const Edit& e : edits) {
    const auto t0 = std::chrono::steady_clock::now();
    const bool alive = session.apply(e);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (e.kind != "brush") std::printf("edit %d (%s): %.1f ms\n", ++number, e.kind.c_str(), ms);
    if (!alive) {
      std::fprintf(stderr, "segcut: the engine was torn down\n");
      return 1;
    }
  }
  if (!session.write(prefix, photo)) {
    std::fprintf(stderr, "segcut: cannot write %s_*.png\n", prefix.c_str());
    return 1;
  }
  const double total =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  std::printf("total: %.1f ms; wrote %s_mask.png, %s_cutout.png, %s_preview.png\n", total,
              prefix.c_str(), prefix.c_str(), prefix.c_str());
  return 0;
}
