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
// Only the caller's functions are used (through common/EditSession): this is
// how an application drives the engine.
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/EditSession.h"

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

bool writeOutputs(const EditSession& session, const cv::Mat& photo, const std::string& prefix) {
  const cv::Mat object = objectMaskOf(session.mask(), session.width(), session.height());
  return cv::imwrite(prefix + "_mask.png", object) &&
         cv::imwrite(prefix + "_cutout.png", cutoutOf(photo, object)) &&
         cv::imwrite(prefix + "_preview.png", fromArgb(session.preview(), session.width(), session.height()));
}

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
  EditSession session(photo);
  int number = 0;
  for (const Edit& e : edits) {
    const auto t0 = std::chrono::steady_clock::now();
    const bool alive = session.apply(e) != EditSession::Result::kEngineGone;
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (e.kind != "brush") std::printf("edit %d (%s): %.1f ms\n", ++number, e.kind.c_str(), ms);
    if (!alive) {
      std::fprintf(stderr, "segcut: the engine was torn down\n");
      return 1;
    }
  }
  if (!writeOutputs(session, photo, prefix)) {
    std::fprintf(stderr, "segcut: cannot write %s_*.png\n", prefix.c_str());
    return 1;
  }
  const double total =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  std::printf("total: %.1f ms; wrote %s_mask.png, %s_cutout.png, %s_preview.png\n", total,
              prefix.c_str(), prefix.c_str(), prefix.c_str());
  return 0;
}
