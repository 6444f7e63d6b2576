// phone_edits: the time and memory of the edits a phone user makes, in one
// run, with a machine-readable line per figure.
//
//   phone_edits [--runs N] [--only-large | --only-photos] [--photo NAME]
//               [--size WxH] [--engine-only]
//   phone_edits --compare OUT_A OUT_B
//
// 1. The phone-size photo: the photo NAME (default book) enlarged to WxH
//    (default 4000x3000, cv::resize linear), its rectangle scaled and its
//    truth mask enlarged (nearest) with it. Four edit kinds: the rectangle
//    through doSegmentationBB; then, each on an engine that has just made
//    that rectangle, a brush stroke that adds, one that removes and a loop
//    that adds (setMarkerImage, setCurrentMarkerVector, processSegment).
//    Per kind, over N runs:
//    - the request's wall time (min / median / max) and the mask pixels it
//      changed;
//    - the engine's peak memory: the process's peak resident memory during
//      the request minus its resident memory just before it. Every run of
//      every kind is a fresh child process (fork): it loads the photo, makes
//      the setup rectangle if the kind needs one, returns freed heap to the
//      system (malloc_trim), then reads VmRSS, resets the high-water mark
//      (writing 5 to /proc/self/clear_refs), runs the request and reads
//      VmHWM. The caller holds only its ARGB source, mask and preview
//      buffers and the marker image of the edit. Also "kept": resident
//      memory after the request minus before it; and the request's page
//      faults and user and system CPU time (getrusage, all threads);
//    - the stage slots of the request (medians, ms): the whole segment and
//      its box set-up, colour models, graph filling, box max-flows and
//      post-processing; "rest", what the segment spends beyond those slots
//      (the full-resolution refinement and small bookkeeping); the working
//      image's neighbour weights (made when the rectangle creates the
//      engine); and "outside", the request's time outside the segment
//      (conversions, preview, mask). Any "GTime" log line the engine writes
//      during the request is listed as well.
// 2. The evaluation photos: per run and photo, the engine's rectangle edit
//    and cv::grabCut at the engine's working size, which of the two goes
//    first alternating (the photo reduced to at most 76800 pixels, 5
//    iterations from the scaled rectangle, the mask enlarged back with
//    nearest); then one corrective edit on the rectangle's engine, the
//    brush stroke that adds. Per photo
//    min / median / max, the ratio of the medians engine / grabCut, the
//    pixels the stroke changed, the errors against the truth mask; then the
//    mean and median over the photos. With --engine-only cv::grabCut is
//    not run and no ratio is printed (for profiling the engine alone).
//
// Where the corrective edits go follows from the truth mask and the
// rectangle's result (planEdits in harness/CallerEdits.h: over what the cut
// got wrong, or changing a good cut), so builds with the same masks make the
// same edits. Each figure also goes out as one line
//   figure <name> min=<v> median=<v> max=<v>
// or, for a mask, "figure <name> hash=<hex>" (64-bit FNV-1a of the engine's
// mask buffer). "phone_edits --compare OUT_A OUT_B" prints the figures of
// two saved outputs (say, of two builds) side by side with the ratio B / A
// and whether each mask is the same; a file holding several runs' outputs
// counts each figure's median over them.
#include <opencv2/imgproc.hpp>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "common/PhotoSet.h"
#include "harness/CallerEdits.h"
#include "support/ZIRKTimer.h"

namespace {

const char* kUsage =
    "usage: phone_edits [--runs N] [--only-large | --only-photos] [--photo NAME] [--size WxH]\n"
    "                   [--engine-only]\n"
    "\n"
    "  --runs N       runs of every figure (default 3)\n"
    "  --only-large   only the phone-size photo\n"
    "  --only-photos  only the evaluation photos\n"
    "  --photo NAME   photo enlarged for the phone-size edits (default book)\n"
    "  --size WxH     its size (default 4000x3000)\n"
    "  --engine-only  the evaluation photos without cv::grabCut (no ratios)\n"
    "\n"
    "   or: phone_edits --compare OUT_A OUT_B\n"
    "\n"
    "  the figure lines of two saved outputs side by side, with B / A\n";

constexpr EditKind kKinds[kEditKinds] = {EditKind::kRectangle, EditKind::kStrokeAdd, EditKind::kStrokeRemove,
                                         EditKind::kLoopAdd};
constexpr unsigned kChildSeconds = 600;  // a child still running then is killed

struct Options {
  int runs = 3;
  bool large = true, photos = true;
  bool peer = true;  // cv::grabCut beside the engine on the evaluation photos
  std::string photo = "book";
  cv::Size size{4000, 3000};
};

// ------------------------------------------------------------------ figures

struct Spread {
  double min = 0, median = 0, max = 0;
};

Spread spreadOf(std::vector<double> v) {
  if (v.empty()) return {};
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  const double median = n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
  return {v.front(), median, v.back()};
}

double medianOf(const std::vector<double>& v) { return spreadOf(v).median; }

void printFigure(const std::string& name, const std::vector<double>& values) {
  const Spread s = spreadOf(values);
  std::printf("figure %s min=%.3f median=%.3f max=%.3f\n", name.c_str(), s.min, s.median, s.max);
}

void printFigure(const std::string& name, double value) {
  std::printf("figure %s value=%.4f\n", name.c_str(), value);
}

void printHash(const std::string& name, uint64_t hash) {
  std::printf("figure %s hash=%016" PRIx64 "\n", name.c_str(), hash);
}

// "min/median/max" with one decimal, for the tables.
std::string spreadText(const std::vector<double>& values) {
  if (values.empty()) return "-";
  const Spread s = spreadOf(values);
  char text[64];
  std::snprintf(text, sizeof text, "%.1f/%.1f/%.1f", s.min, s.median, s.max);
  return text;
}

// ------------------------------------------------------------ measurements

// A kB field of /proc/self/status ("VmRSS", "VmHWM"); -1 when unreadable.
long statusKb(const char* field) {
  std::ifstream in("/proc/self/status");
  const std::string prefix = std::string(field) + ":";
  std::string line;
  while (std::getline(in, line))
    if (line.compare(0, prefix.size(), prefix) == 0) return std::atol(line.c_str() + prefix.size());
  return -1;
}

// Resets the peak resident memory to the current one; false when the
// kernel refuses.
bool resetPeakRss() {
  std::ofstream out("/proc/self/clear_refs");
  out << "5";
  out.flush();
  return static_cast<bool>(out);
}

// The stage slots after a request, in ms, as named in the tables.
std::map<std::string, double> stageSlots(double wallMs) {
  std::map<std::string, double> s;
  s["segment"] = g_t_TotalTime;
  s["box"] = g_t_preProcess;
  s["models"] = g_t_colEst + g_t_colUpd;
  s["fits"] = g_t_colEst;
  s["refits"] = g_t_colUpd;
  s["graph"] = g_t_tAndNLinks;
  s["maxflow"] = g_t_maxflow;
  s["post"] = g_t_postProcess;
  s["rest"] = g_t_TotalTime - g_t_preProcess - g_t_colEst - g_t_colUpd - g_t_tAndNLinks - g_t_maxflow -
              g_t_postProcess;
  s["nlinks"] = g_t_nLinksComputation;
  s["outside"] = wallMs - g_t_TotalTime - g_t_nLinksComputation;
  return s;
}
const char* const kSlotOrder[] = {"segment", "box", "models", "fits", "refits", "graph", "maxflow", "rest", "post", "nlinks", "outside"};

// "<name> =<ms>" lines with tag GTime, summed by name.
void addTimerLines(const LogCapture& log, std::map<std::string, double>* into) {
  for (const LogLine& l : log.lines()) {
    if (l.tag != "GTime") continue;
    const size_t eq = l.text.rfind(" =");
    if (eq == std::string::npos) continue;
    std::string name = l.text.substr(0, eq);
    std::replace(name.begin(), name.end(), ' ', '_');  // figure names are one word
    (*into)["gtime:" + name] += std::atof(l.text.c_str() + eq + 2);
  }
}

// Lines with tag Error, each also shown on stderr.
int errorLines(const LogCapture& log) {
  int n = 0;
  for (const LogLine& l : log.lines()) {
    if (l.tag != "Error") continue;
    std::fprintf(stderr, "engine error: %s\n", l.text.c_str());
    ++n;
  }
  return n;
}

// ------------------------------------------------------ phone-size photo

// One request measured in a child process: "key value" pairs.
using Report = std::map<std::string, double>;

// The photo enlarged, its truth mask (nearest) and its rectangle scaled;
// false when the photo is missing.
bool enlargedPhoto(const Options& o, cv::Mat* image, cv::Mat* truth, Box* box) {
  const Photo p = loadPhoto(o.photo);
  if (p.image.empty() || p.truth.empty()) return false;
  cv::resize(p.image, *image, o.size, 0, 0, cv::INTER_LINEAR);
  cv::resize(p.truth, *truth, o.size, 0, 0, cv::INTER_NEAREST);
  const double fx = static_cast<double>(o.size.width) / p.image.cols;
  const double fy = static_cast<double>(o.size.height) / p.image.rows;
  *box = {static_cast<int>(p.x1 * fx), static_cast<int>(p.y1 * fy), static_cast<int>(p.x2 * fx),
          static_cast<int>(p.y2 * fy)};
  return true;
}

// The child's side: setup, then the measured request; writes the report.
[[noreturn]] void childRequest(const Options& o, EditKind kind, int fd) {
  alarm(kChildSeconds);
  LogCapture log;
  std::string out;
  auto put = [&](const std::string& key, double v) {
    char line[256];
    std::snprintf(line, sizeof line, "%s %.17g\n", key.c_str(), v);
    out += line;
  };
  cv::Mat image, truth;
  EditPlan plan;
  if (enlargedPhoto(o, &image, &truth, &plan.box)) {
    CallerSession session(image);
    image.release();
    if (kind != EditKind::kRectangle) {
      session.run(EditKind::kRectangle, plan);
      plan = planEdits(truth, plan.box, session.objectMask());
    }
    truth.release();
    session.prepare(kind, plan);
    const std::vector<uint8_t> previous = session.mask();
    malloc_trim(0);
    log.clear();
    g_t_nLinksComputation = 0.0;  // only a request that makes the engine sets it
    const long before = statusKb("VmRSS");
    put("reset", resetPeakRss() ? 1 : 0);
    rusage usage0, usage1;
    getrusage(RUSAGE_SELF, &usage0);
    const double ms = session.request(kind, plan);
    getrusage(RUSAGE_SELF, &usage1);
    put("faults", static_cast<double>(usage1.ru_minflt - usage0.ru_minflt));
    put("sys_ms", (usage1.ru_stime.tv_sec - usage0.ru_stime.tv_sec) * 1e3 +
                      (usage1.ru_stime.tv_usec - usage0.ru_stime.tv_usec) * 1e-3);
    put("user_ms", (usage1.ru_utime.tv_sec - usage0.ru_utime.tv_sec) * 1e3 +
                       (usage1.ru_utime.tv_usec - usage0.ru_utime.tv_usec) * 1e-3);
    put("peak_kb", statusKb("VmHWM"));
    put("after_kb", statusKb("VmRSS"));
    put("before_kb", before);
    put("wall_ms", ms);
    put("errors", errorLines(log));
    std::map<std::string, double> slots = stageSlots(ms);
    addTimerLines(log, &slots);
    for (const auto& [name, v] : slots) put("slot:" + name, v);
    put("x1", plan.box.x1);
    put("y1", plan.box.y1);
    put("x2", plan.box.x2);
    put("y2", plan.box.y2);
    put("brush", plan.brush);
    const std::vector<cv::Point>& points = kind == EditKind::kStrokeAdd      ? plan.addStroke
                                           : kind == EditKind::kStrokeRemove ? plan.removeStroke
                                                                             : plan.loop;
    if (!points.empty()) {
      put("at_x", points[points.size() / 2].x);
      put("at_y", points[points.size() / 2].y);
    }
    size_t changed = 0;
    for (size_t i = 0; i < previous.size(); ++i) changed += previous[i] != session.mask()[i];
    put("changed", static_cast<double>(changed));
    const uint64_t hash = session.maskHash();
    put("hash_hi", static_cast<double>(hash >> 32));
    put("hash_lo", static_cast<double>(hash & 0xFFFFFFFFu));
  }
  for (size_t done = 0; done < out.size();) {
    const ssize_t n = write(fd, out.data() + done, out.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  _exit(0);
}

// Runs one request in a fresh child; empty report when the child failed.
Report measureInChild(const Options& o, EditKind kind) {
  std::fflush(stdout);
  int fds[2];
  if (pipe(fds) != 0) return {};
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return {};
  }
  if (pid == 0) {
    close(fds[0]);
    childRequest(o, kind, fds[1]);
  }
  close(fds[1]);
  std::string text;
  char buf[4096];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  Report r;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "phone_edits: the %s child ended abnormally (status %d)\n", editName(kind), status);
    return r;
  }
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string line = text.substr(start, end - start);
    const size_t space = line.rfind(' ');
    if (space != std::string::npos) r[line.substr(0, space)] = std::atof(line.c_str() + space + 1);
  }
  return r;
}

void largeEdits(const Options& o) {
  std::vector<Report> reports[kEditKinds];
  for (int run = 0; run < o.runs; ++run)
    for (int k = 0; k < kEditKinds; ++k) {
      Report r = measureInChild(o, kKinds[k]);
      if (!r.empty()) reports[k].push_back(r);
    }
  if (reports[0].empty()) {
    std::printf("no rectangle edit on %s (under %s)\n", o.photo.c_str(), photoSetDir().c_str());
    return;
  }
  const Report& first = reports[0].front();
  const double brush = reports[1].empty() ? 0 : reports[1].front().at("brush");
  std::printf("== %s enlarged to %dx%d: rectangle (%.0f, %.0f)-(%.0f, %.0f), brush %.0f px; %d run(s), each\n"
              "   edit in a fresh process (the others on the engine of that rectangle)\n",
              o.photo.c_str(), o.size.width, o.size.height, first.at("x1"), first.at("y1"), first.at("x2"),
              first.at("y2"), brush, o.runs);

  auto column = [](const std::vector<Report>& rs, const std::string& key, double scale = 1.0) {
    std::vector<double> v;
    for (const Report& r : rs) {
      auto it = r.find(key);
      v.push_back(it == r.end() ? 0.0 : it->second * scale);
    }
    return v;
  };
  auto difference = [](std::vector<double> a, const std::vector<double>& b) {
    for (size_t i = 0; i < a.size(); ++i) a[i] -= b[i];
    return a;
  };
  const double mb = 1.0 / 1024;
  std::printf("%-7s %24s %22s %8s %8s %10s %12s %6s\n", "edit", "wall ms min/med/max", "engine peak MB",
              "held MB", "kept MB", "changed px", "at", "errors");
  bool unreset = false;
  for (int k = 0; k < kEditKinds; ++k) {
    const std::vector<Report>& rs = reports[k];
    if (rs.empty()) {
      std::printf("%-7s failed\n", editName(kKinds[k]));
      continue;
    }
    const std::vector<double> before = column(rs, "before_kb", mb);
    const std::vector<double> peak = difference(column(rs, "peak_kb", mb), before);
    const std::vector<double> kept = difference(column(rs, "after_kb", mb), before);
    for (double reset : column(rs, "reset")) unreset |= reset == 0;
    char at[32] = "";
    if (rs.front().count("at_x"))
      std::snprintf(at, sizeof at, "%.0f,%.0f", rs.front().at("at_x"), rs.front().at("at_y"));
    std::printf("%-7s %24s %22s %8.1f %8.1f %10.0f %12s %6.0f\n", editName(kKinds[k]),
                spreadText(column(rs, "wall_ms")).c_str(), spreadText(peak).c_str(), medianOf(before),
                medianOf(kept), medianOf(column(rs, "changed")), at, spreadOf(column(rs, "errors")).max);
  }
  if (unreset) std::printf("(the peak could not be reset: engine peak MB includes the setup's)\n");

  // Stage slots: medians, and any timer lines the engine logged.
  std::printf("\nstage slots, median ms:\n%-7s", "edit");
  for (const char* name : kSlotOrder) std::printf(" %8s", name);
  std::printf("\n");
  for (int k = 0; k < kEditKinds; ++k) {
    if (reports[k].empty()) continue;
    std::printf("%-7s", editName(kKinds[k]));
    for (const char* name : kSlotOrder) std::printf(" %8.1f", medianOf(column(reports[k], std::string("slot:") + name)));
    std::printf("\n");
    for (const auto& [key, v] : reports[k].front()) {
      if (key.compare(0, 11, "slot:gtime:") != 0) continue;
      std::printf("        GTime %s: %.1f ms (median)\n", key.c_str() + 11, medianOf(column(reports[k], key)));
    }
  }

  std::printf("\n");
  for (int k = 0; k < kEditKinds; ++k) {
    const std::vector<Report>& rs = reports[k];
    if (rs.empty()) continue;
    const std::string prefix = std::string("large.") + editName(kKinds[k]) + ".";
    const std::vector<double> before = column(rs, "before_kb", mb);
    printFigure(prefix + "wall_ms", column(rs, "wall_ms"));
    printFigure(prefix + "peak_mb", difference(column(rs, "peak_kb", mb), before));
    printFigure(prefix + "kept_mb", difference(column(rs, "after_kb", mb), before));
    printFigure(prefix + "page_faults", column(rs, "faults"));
    printFigure(prefix + "cpu_user_ms", column(rs, "user_ms"));
    printFigure(prefix + "cpu_sys_ms", column(rs, "sys_ms"));
    for (const auto& [key, v] : rs.front())
      if (key.rfind("slot:", 0) == 0) printFigure(prefix + key.substr(5) + "_ms", column(rs, key));
    const Report& last = rs.back();
    printHash(prefix + "mask",
              (static_cast<uint64_t>(last.at("hash_hi")) << 32) | static_cast<uint64_t>(last.at("hash_lo")));
  }
  std::printf("\n");
}

// ------------------------------------------------------ evaluation photos

struct PhotoFigures {
  std::vector<double> engine, grabCut, stroke;
  std::map<std::string, std::vector<double>> slots;  // the rectangle's stage slots per run
  size_t strokeChanged = 0;  // mask pixels the add stroke changed
  double engineError = 0, grabCutError = 0;
  uint64_t rectHash = 0, strokeHash = 0;
};

// One run on one photo: the engine's rectangle and stroke, and grabCut,
// in the order given.
void photoRun(const Photo& p, bool engineFirst, bool withPeer, PhotoFigures* f) {
  const Box box{p.x1, p.y1, p.x2, p.y2};
  auto engine = [&] {
    CallerSession session(p.image);
    EditPlan plan;
    plan.box = box;
    f->engine.push_back(session.run(EditKind::kRectangle, plan));
    for (const auto& slot : stageSlots(f->engine.back())) f->slots[slot.first].push_back(slot.second);
    f->rectHash = session.maskHash();
    const cv::Mat result = session.objectMask();
    f->engineError = errorRate(result, p.truth);
    f->stroke.push_back(session.run(EditKind::kStrokeAdd, planEdits(p.truth, box, result)));
    f->strokeHash = session.maskHash();
    f->strokeChanged = static_cast<size_t>(cv::countNonZero(session.objectMask() != result));
  };
  auto peer = [&] {
    if (!withPeer) return;
    double ms = 0;
    f->grabCutError = errorRate(grabCutAtWorkingSize(p.image, box, &ms), p.truth);
    f->grabCut.push_back(ms);
  };
  if (engineFirst) {
    engine();
    peer();
  } else {
    peer();
    engine();
  }
}

void photoEdits(const Options& o) {
  if (!photoSetAvailable()) {
    std::printf("photo set not found under %s\n", photoSetDir().c_str());
    return;
  }
  std::vector<Photo> photos;
  for (const std::string& name : photoNames()) {
    Photo p = loadPhoto(name);
    if (!p.image.empty() && !p.truth.empty()) photos.push_back(std::move(p));
  }
  std::printf("== %zu evaluation photos, %d run(s); per run and photo the engine's rectangle (then an add\n"
              "   stroke on it) and cv::grabCut at the engine's working size, alternating which goes first\n",
              photos.size(), o.runs);
  LogCapture log;
  std::vector<PhotoFigures> figures(photos.size());
  int errors = 0;
  for (int run = 0; run < o.runs; ++run)
    for (size_t i = 0; i < photos.size(); ++i) {
      photoRun(photos[i], (run + static_cast<int>(i)) % 2 == 0, o.peer, &figures[i]);
      errors += errorLines(log);
      log.clear();
    }

  std::printf("%-9s %9s %20s %20s %7s %18s %7s %6s %7s\n", "photo", "size", "engine rect ms", "grabCut ms",
              "ratio", "add stroke ms", "add px", "err%", "gc err%");
  std::vector<double> engineMedians, grabCutMedians, strokeMedians, ratios;
  for (size_t i = 0; i < photos.size(); ++i) {
    const PhotoFigures& f = figures[i];
    const double ratio = o.peer ? medianOf(f.engine) / medianOf(f.grabCut) : 0.0;
    engineMedians.push_back(medianOf(f.engine));
    grabCutMedians.push_back(medianOf(f.grabCut));
    strokeMedians.push_back(medianOf(f.stroke));
    ratios.push_back(ratio);
    char size[32];
    std::snprintf(size, sizeof size, "%dx%d", photos[i].image.cols, photos[i].image.rows);
    std::printf("%-9s %9s %20s %20s %7.3f %18s %7zu %6.2f %7.2f\n", photos[i].name.c_str(), size,
                spreadText(f.engine).c_str(), spreadText(f.grabCut).c_str(), ratio, spreadText(f.stroke).c_str(),
                f.strokeChanged, 100 * f.engineError, 100 * f.grabCutError);
  }
  if (photos.empty()) return;
  auto mean = [](const std::vector<double>& v) {
    double s = 0;
    for (double x : v) s += x;
    return s / static_cast<double>(v.size());
  };
  std::printf("%-9s %9s %20.1f %20.1f %7.3f %18.1f   (ratio of the means)\n", "mean", "", mean(engineMedians),
              mean(grabCutMedians), mean(engineMedians) / mean(grabCutMedians), mean(strokeMedians));
  std::printf("%-9s %9s %20.1f %20.1f %7.3f %18.1f   (median of the ratios)\n", "median", "", medianOf(engineMedians),
              medianOf(grabCutMedians), medianOf(ratios), medianOf(strokeMedians));
  if (errors > 0) std::printf("(the engine logged %d error line(s))\n", errors);
  // Where the rectangle's time goes: each stage slot's median per photo,
  // averaged over the photos.
  std::printf("rectangle stages, mean over the photos of each photo's median (ms):");
  std::map<std::string, double> slotMeans;
  for (const char* name : kSlotOrder) {
    std::vector<double> medians;
    for (const PhotoFigures& f : figures)
      if (f.slots.count(name) != 0) medians.push_back(medianOf(f.slots.at(name)));
    if (medians.empty()) continue;
    slotMeans[name] = mean(medians);
    std::printf(" %s %.1f", name, slotMeans[name]);
  }
  std::printf("\n");

  std::printf("\n");
  for (size_t i = 0; i < photos.size(); ++i) {
    const std::string prefix = "photos." + photos[i].name + ".";
    printFigure(prefix + "rect_ms", figures[i].engine);
    if (o.peer) {
      printFigure(prefix + "grabcut_ms", figures[i].grabCut);
      printFigure(prefix + "ratio", ratios[i]);
    }
    printFigure(prefix + "add_ms", figures[i].stroke);
    printHash(prefix + "rect.mask", figures[i].rectHash);
    printHash(prefix + "add.mask", figures[i].strokeHash);
    for (const auto& slot : figures[i].slots) printFigure(prefix + "rect." + slot.first + "_ms", slot.second);
  }
  printFigure("photos.mean.rect_ms", mean(engineMedians));
  for (const auto& slot : slotMeans) printFigure("photos.mean.rect." + slot.first + "_ms", slot.second);
  printFigure("photos.mean.add_ms", mean(strokeMedians));
  if (!o.peer) return;
  printFigure("photos.mean.grabcut_ms", mean(grabCutMedians));
  printFigure("photos.ratio_of_means", mean(engineMedians) / mean(grabCutMedians));
  printFigure("photos.median_ratio", medianOf(ratios));
}

// ------------------------------------------------------ two builds' outputs

// The figure lines of a saved output: per figure the median (or value) of
// every occurrence (a file may hold several runs), or the mask hashes.
struct FigureFile {
  std::vector<std::string> order;  // first appearance
  std::map<std::string, std::vector<double>> values;
  std::map<std::string, std::set<std::string>> hashes;
};

bool readFigures(const std::string& path, FigureFile* f) {
  std::ifstream in(path);
  if (!in) return false;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string tag, name, field;
    if (!(words >> tag >> name) || tag != "figure") continue;
    if (f->values.count(name) == 0 && f->hashes.count(name) == 0) f->order.push_back(name);
    while (words >> field) {
      const size_t eq = field.find('=');
      if (eq == std::string::npos) continue;
      const std::string key = field.substr(0, eq), value = field.substr(eq + 1);
      if (key == "median" || key == "value") f->values[name].push_back(std::atof(value.c_str()));
      if (key == "hash") f->hashes[name].insert(value);
    }
  }
  return true;
}

// Prints every figure of A beside B's and the ratio B / A; masks as same or
// different.
int compareOutputs(const std::string& pathA, const std::string& pathB) {
  FigureFile a, b;
  if (!readFigures(pathA, &a) || !readFigures(pathB, &b)) {
    std::fprintf(stderr, "phone_edits: cannot read %s or %s\n", pathA.c_str(), pathB.c_str());
    return 1;
  }
  std::printf("%-36s %12s %12s %8s\n", "figure (median of the medians)", "A", "B", "B/A");
  int differing = 0;
  for (const std::string& name : a.order) {
    if (a.hashes.count(name)) {
      const bool same = b.hashes.count(name) && b.hashes.at(name) == a.hashes.at(name);
      differing += !same;
      std::printf("%-36s %34s\n", name.c_str(), !b.hashes.count(name) ? "only in A" : same ? "same mask" : "MASK DIFFERS");
    } else if (b.values.count(name)) {
      const double va = medianOf(a.values.at(name)), vb = medianOf(b.values.at(name));
      std::printf("%-36s %12.3f %12.3f %8.3f\n", name.c_str(), va, vb, va != 0 ? vb / va : 0.0);
    } else {
      std::printf("%-36s %12.3f %25s\n", name.c_str(), medianOf(a.values.at(name)), "only in A");
    }
  }
  for (const std::string& name : b.order)
    if (a.values.count(name) == 0 && a.hashes.count(name) == 0) std::printf("%-36s %34s\n", name.c_str(), "only in B");
  if (differing > 0) std::printf("%d mask(s) differ\n", differing);
  return 0;
}

bool parseOptions(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--runs" && i + 1 < argc) {
      o->runs = std::atoi(argv[++i]);
      if (o->runs < 1) return false;
    } else if (arg == "--only-large") {
      o->photos = false;
    } else if (arg == "--only-photos") {
      o->large = false;
    } else if (arg == "--engine-only") {
      o->peer = false;
    } else if (arg == "--photo" && i + 1 < argc) {
      o->photo = argv[++i];
    } else if (arg == "--size" && i + 1 < argc) {
      if (std::sscanf(argv[++i], "%dx%d", &o->size.width, &o->size.height) != 2 || o->size.width < 1 ||
          o->size.height < 1)
        return false;
    } else {
      return false;
    }
  }
  return o->large || o->photos;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc == 4 && std::strcmp(argv[1], "--compare") == 0) return compareOutputs(argv[2], argv[3]);
  if (!parseOptions(argc, argv, &o)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  // The phone-size edits come first: their children are forked before this
  // process has started any worker threads.
  if (o.large) largeEdits(o);
  if (o.photos) photoEdits(o);
  return 0;
}
