#include "segdemo/DemoServer.h"

#include <httplib.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "common/EditSession.h"
#include "segdemo/LiveWireTracer.h"
#include "segdemo/Worker.h"
#include "engine/SegmentationCore.h"
#include "support/ZIRKTimer.h"

using nlohmann::json;

namespace {

// The engine keeps at most this many masks; the server's copy of the
// history keeps as many.
constexpr size_t kHistorySlots = 31;

struct Reply {
  int status = 200;
  std::string body;
  std::string type = "application/json";
};

Reply ok(const json& j) { return Reply{200, j.dump(), "application/json"}; }
Reply fail(int status, const std::string& message, json extra = json::object()) {
  extra["error"] = message;
  return Reply{status, extra.dump(), "application/json"};
}

// Width and height from a PNG or JPEG header, without decoding the pixels,
// so that an oversized photo is refused before it takes memory. False for
// other formats (they are checked after decoding).
bool headerSize(const std::string& b, long long* w, long long* h) {
  auto u8 = [&](size_t i) { return static_cast<uint32_t>(static_cast<unsigned char>(b[i])); };
  if (b.size() >= 24 && b.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0 && b.compare(12, 4, "IHDR") == 0) {
    *w = (u8(16) << 24) | (u8(17) << 16) | (u8(18) << 8) | u8(19);
    *h = (u8(20) << 24) | (u8(21) << 16) | (u8(22) << 8) | u8(23);
    return true;
  }
  if (b.size() < 4 || u8(0) != 0xFF || u8(1) != 0xD8) return false;
  // JPEG: walk the segments up to a start-of-frame marker.
  for (size_t i = 2; i + 9 < b.size();) {
    if (u8(i) != 0xFF) return false;
    const unsigned marker = u8(i + 1);
    if (marker == 0xFF) { ++i; continue; }
    const size_t length = (u8(i + 2) << 8) | u8(i + 3);
    const bool frame = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (frame) {
      *h = (u8(i + 5) << 8) | u8(i + 6);
      *w = (u8(i + 7) << 8) | u8(i + 8);
      return true;
    }
    i += 2 + length;
  }
  return false;
}

std::string megapixels(long long pixels) {
  std::ostringstream s;
  s.precision(3);
  s << pixels / 1e6;
  return s.str();
}

// Reads a JSON [x, y] as a pixel of a width x height photo.
bool readPoint(const json& j, int width, int height, cv::Point* p, std::string* error) {
  if (!j.is_array() || j.size() != 2 || !j[0].is_number_integer() || !j[1].is_number_integer()) {
    *error = "a point must be [x, y] with two integers";
    return false;
  }
  const long long x = j[0].get<long long>(), y = j[1].get<long long>();
  if (x < 0 || y < 0 || x >= width || y >= height) {
    *error = "point (" + std::to_string(x) + ", " + std::to_string(y) + ") is outside the " +
             std::to_string(width) + "x" + std::to_string(height) + " photo";
    return false;
  }
  *p = cv::Point(static_cast<int>(x), static_cast<int>(y));
  return true;
}

// Masks of the server's copy of the history, one bit a pixel.
std::vector<uint8_t> packMask(const std::vector<unsigned char>& mask) {
  std::vector<uint8_t> bits((mask.size() + 7) / 8, 0);
  for (size_t i = 0; i < mask.size(); ++i)
    if (mask[i] == 0) bits[i / 8] |= static_cast<uint8_t>(1u << (i % 8));
  return bits;
}
std::vector<unsigned char> unpackMask(const std::vector<uint8_t>& bits, size_t pixels) {
  std::vector<unsigned char> mask(pixels, 255);
  if (bits.size() * 8 < pixels) return mask;  // not of this photo: no object
  for (size_t i = 0; i < pixels; ++i) mask[i] = (bits[i / 8] >> (i % 8)) & 1 ? 0 : 255;
  return mask;
}

// What the last finished request shows; never changed once published.
struct Shown {
  long id = 0;  // which photo: a new one gets a new id
  int width = 0, height = 0;
  cv::Mat photo, object, preview;  // BGR, 8-bit 255 = object, BGR
  bool canUndo = false, canRedo = false;

  // PNG files, encoded on first request.
  std::string png(const std::string& name) const {
    std::lock_guard<std::mutex> guard(pngLock);
    std::string& cached = pngs[name];
    if (cached.empty()) {
      cv::Mat image = name == "mask" ? object : name == "preview" ? preview : cutoutOf(photo, object);
      std::vector<uchar> bytes;
      cv::imencode(".png", image, bytes, {cv::IMWRITE_PNG_COMPRESSION, 1});
      cached.assign(bytes.begin(), bytes.end());
    }
    return cached;
  }
  mutable std::mutex pngLock;
  mutable std::map<std::string, std::string> pngs;
};

}  // namespace

struct DemoServer::Impl {
  explicit Impl(const DemoLimits& l) : limits(l) {}

  DemoLimits limits;
  httplib::Server http;

  std::mutex lock;  // guards busy, shown
  bool busy = false;
  std::shared_ptr<const Shown> shown = std::make_shared<Shown>();
  long nextId = 1;

  // Cancel hand-over between the request threads and the worker. A cancel
  // is passed to the engine only while a segmentation runs, and again every
  // few milliseconds until it ends, since setting up a rectangle's engine
  // lowers the flag.
  std::mutex cancelLock;
  bool segmenting = false, cancelAsked = false, cancelSent = false;

  // Worker-side state: the session and the server's copy of its history.
  std::unique_ptr<EditSession> session;
  std::vector<std::vector<uint8_t>> history;
  int position = 0;  // masks in effect: history[position - 1] is shown

  LiveWireTracer liveWire;

  Worker worker;

  std::shared_ptr<const Shown> current() {
    std::lock_guard<std::mutex> guard(lock);
    return shown;
  }

  // Runs `job` on the worker unless another one runs; waits for it,
  // bounded, passing cancels on to the engine meanwhile.
  Reply exclusive(long expectedId, std::function<Reply()> job) {
    {
      std::lock_guard<std::mutex> guard(lock);
      if (busy) return fail(409, "an edit is running; wait for it to finish or cancel it");
      if (expectedId > 0 && expectedId != shown->id)
        return fail(409, "another page opened a new photo; showing it now", {{"image", shown->id}});
      busy = true;
      // In the same step, so that no cancel made for this job is lost.
      std::lock_guard<std::mutex> cancelGuard(cancelLock);
      cancelAsked = cancelSent = false;
    }
    std::future<Reply> result = worker.submit<Reply>([this, job] {
      Reply r;
      try {
        r = job();
      } catch (const std::exception& e) {
        r = fail(500, std::string("the server failed: ") + e.what());
      }
      std::lock_guard<std::mutex> guard(lock);
      busy = false;
      return r;
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limits.editWaitSeconds);
    while (result.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready) {
      if (std::chrono::steady_clock::now() > deadline)
        return fail(503, "the edit did not finish in time; it goes on, try again later");
      std::lock_guard<std::mutex> guard(cancelLock);
      if (cancelAsked && segmenting) {
        cancelSegmentation();
        cancelSent = true;
      }
    }
    return result.get();
  }

  void publish(long id, const cv::Mat& photo) {
    auto s = std::make_shared<Shown>();
    s->id = id;
    s->width = photo.cols;
    s->height = photo.rows;
    s->photo = photo;
    s->object = objectMaskOf(session->mask(), photo.cols, photo.rows);
    s->preview = fromArgb(session->preview(), photo.cols, photo.rows);
    s->canUndo = canUndo();
    s->canRedo = canRedo();
    std::lock_guard<std::mutex> guard(lock);
    shown = s;
  }

  // Worker: a new edit sequence on `photo`.
  Reply startSequence(const cv::Mat& photo) {
    session.reset();  // tears the engine down
    session = std::make_unique<EditSession>(photo);
    history.clear();
    position = 0;
    long id;
    {
      std::lock_guard<std::mutex> guard(lock);
      id = nextId++;
    }
    publish(id, photo);
    return ok({{"width", photo.cols}, {"height", photo.rows}, {"image", id}});
  }

  Reply loadImage(const std::string& body) {
    if (body.empty()) return fail(400, "empty body: send an image file (PNG, JPEG, ...)");
    long long w = 0, h = 0;
    if (headerSize(body, &w, &h) && w * h > limits.maxPixels) return tooLarge(w, h);
    cv::Mat photo;
    try {
      photo = cv::imdecode(cv::Mat(1, static_cast<int>(body.size()), CV_8U, const_cast<char*>(body.data())),
                           cv::IMREAD_COLOR);
    } catch (const cv::Exception&) {
      photo.release();
    }
    if (photo.empty()) return fail(400, "the body is not an image that can be read (PNG, JPEG, BMP, TIFF, WebP, ...)");
    if (static_cast<long long>(photo.total()) > limits.maxPixels) return tooLarge(photo.cols, photo.rows);
    return exclusive(0, [this, photo] { return startSequence(photo); });
  }

  Reply tooLarge(long long w, long long h) {
    return fail(413, "the photo is " + std::to_string(w) + "x" + std::to_string(h) + " (" +
                         megapixels(w * h) + " megapixels); the limit is " +
                         megapixels(limits.maxPixels) + " megapixels");
  }

  // Parses an edit request into edits for the session (a brush radius, then
  // the edit); a message on bad input.
  bool parseEdit(const json& j, const Shown& s, std::vector<Edit>* edits, std::string* error) {
    if (!j.is_object() || !j.contains("kind") || !j["kind"].is_string()) {
      *error = "the body must be a JSON object with a string \"kind\"";
      return false;
    }
    Edit e;
    e.kind = j["kind"].get<std::string>();
    if (e.kind == "undo" || e.kind == "redo") {
      edits->push_back(e);
      return true;
    }
    if (e.kind == "rect") {
      const json& r = j.contains("rect") ? j["rect"] : json();
      if (!r.is_array() || r.size() != 4) {
        *error = "\"rect\" must be [x1, y1, x2, y2]";
        return false;
      }
      cv::Point a, b;
      if (!readPoint(json::array({r[0], r[1]}), s.width, s.height, &a, error) ||
          !readPoint(json::array({r[2], r[3]}), s.width, s.height, &b, error))
        return false;
      e.values = {a.x, a.y, b.x, b.y};
      edits->push_back(e);
      return true;
    }
    const bool loop = e.kind == "loop" || e.kind == "cutloop";
    if (!loop && e.kind != "add" && e.kind != "remove") {
      *error = "unknown kind \"" + e.kind + "\": use rect, loop, cutloop, add, remove, undo or redo";
      return false;
    }
    const json& points = j.contains("points") ? j["points"] : json();
    if (!points.is_array() || points.size() < (loop ? 3u : 1u)) {
      *error = std::string("\"points\" must be an array of at least ") + (loop ? "3" : "1") + " [x, y] points";
      return false;
    }
    if (points.size() > limits.maxPathPoints) {
      *error = "the path has " + std::to_string(points.size()) + " points; the limit is " +
               std::to_string(limits.maxPathPoints);
      return false;
    }
    for (const json& p : points) {
      cv::Point q;
      if (!readPoint(p, s.width, s.height, &q, error)) return false;
      e.values.push_back(q.x);
      e.values.push_back(q.y);
    }
    if (j.contains("radius")) {
      const json& r = j["radius"];
      if (!r.is_number_integer() || r.get<long long>() < 1 || r.get<long long>() > limits.maxRadius) {
        *error = "\"radius\" must be an integer from 1 to " + std::to_string(limits.maxRadius);
        return false;
      }
      edits->push_back(Edit{"brush", {r.get<int>()}, 0});
    }
    edits->push_back(e);
    return true;
  }

  Reply edit(const std::string& body) {
    const json j = json::parse(body, nullptr, false);
    if (j.is_discarded()) return fail(400, "the body is not valid JSON");
    const std::shared_ptr<const Shown> s = current();
    if (s->id == 0) return fail(409, "no photo yet: send one to /api/image first");
    long expected = 0;
    if (j.is_object() && j.contains("image")) {
      if (!j["image"].is_number_integer()) return fail(400, "\"image\" must be the photo's id");
      expected = j["image"].get<long>();
    }
    std::vector<Edit> edits;
    std::string error;
    if (!parseEdit(j, *s, &edits, &error)) return fail(400, error);
    return exclusive(expected, [this, edits] { return runEdit(edits); });
  }

  // Worker: applies the edits and keeps the server's history copy in step.
  Reply runEdit(const std::vector<Edit>& edits) {
    const Edit& e = edits.back();
    if ((e.kind == "undo" && !canUndo()) || (e.kind == "redo" && !canRedo()))
      return fail(409, "nothing to " + e.kind);
    for (size_t i = 0; i + 1 < edits.size(); ++i) session->apply(edits[i]);
    for (double* slot : {&g_t_preProcess, &g_t_colEst, &g_t_colUpd, &g_t_tAndNLinks, &g_t_maxflow,
                         &g_t_postProcess, &g_t_TotalTime})
      *slot = 0.0;
    {
      std::lock_guard<std::mutex> guard(cancelLock);
      segmenting = true;
    }
    const auto t0 = std::chrono::steady_clock::now();
    const EditSession::Result result = session->apply(e);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    bool sent;
    {
      std::lock_guard<std::mutex> guard(cancelLock);
      segmenting = false;
      sent = cancelSent;
    }
    if (result == EditSession::Result::kDone) {
      if (e.kind == "undo") {
        --position;
      } else if (e.kind == "redo") {
        ++position;
      } else {
        if (e.kind == "rect") position = 0;  // a new sequence
        history.resize(static_cast<size_t>(position));
        history.push_back(packMask(session->mask()));
        if (history.size() > kHistorySlots) history.erase(history.begin());
        position = static_cast<int>(history.size());
      }
    }
    // A cancelled edit, or one that a cancel reached too late, may leave the
    // engine's cancel request raised or (a rectangle) its history emptied:
    // the history is rebuilt from the server's copy, which lowers the flag.
    if (sent || result != EditSession::Result::kDone) {
      std::vector<std::vector<unsigned char>> masks;
      const size_t pixels = static_cast<size_t>(session->width()) * session->height();
      for (const auto& bits : history) masks.push_back(unpackMask(bits, pixels));
      session->restoreHistory(masks, position);
    }
    const std::shared_ptr<const Shown> s = current();
    publish(s->id, s->photo);
    json reply = {{"ms", std::round(ms * 10) / 10},
                  {"canUndo", canUndo()},
                  {"canRedo", canRedo()},
                  {"cancelled", result != EditSession::Result::kDone},
                  {"image", s->id}};
    const bool segmented = e.kind != "undo" && e.kind != "redo";
    if (segmented && result == EditSession::Result::kDone && g_t_TotalTime > 0.0) {
      const double staged = g_t_preProcess + g_t_colEst + g_t_colUpd + g_t_tAndNLinks + g_t_maxflow + g_t_postProcess;
      reply["stages"] = {{"analysis", g_t_preProcess},        {"colour models", g_t_colEst + g_t_colUpd},
                         {"graph filling", g_t_tAndNLinks},   {"max-flow", g_t_maxflow},
                         {"post-processing", g_t_postProcess}, {"refinement and rest", std::max(0.0, g_t_TotalTime - staged)}};
    }
    return ok(reply);
  }

  Reply cancel() {
    {
      std::lock_guard<std::mutex> guard(lock);
      if (!busy) return ok({{"cancelling", false}});
    }
    std::lock_guard<std::mutex> guard(cancelLock);
    cancelAsked = true;
    if (segmenting) {
      cancelSegmentation();
      cancelSent = true;
    }
    return ok({{"cancelling", true}});
  }

  // The cheapest path from the seed to `to` along the photo's edges.
  Reply liveWirePath(const std::string& body) {
    const json j = json::parse(body, nullptr, false);
    if (j.is_discarded()) return fail(400, "the body is not valid JSON");
    const std::shared_ptr<const Shown> s = current();
    if (s->id == 0) return fail(409, "no photo yet: send one to /api/image first");
    if (!j.is_object() || !j.contains("seed") || !j.contains("to"))
      return fail(400, "the body must be {\"seed\": [x, y], \"to\": [x, y]}");
    cv::Point seed, to;
    std::string error;
    if (!readPoint(j["seed"], s->width, s->height, &seed, &error) ||
        !readPoint(j["to"], s->width, s->height, &to, &error))
      return fail(400, error);
    json points = json::array();
    for (const cv::Point& p : liveWire.trace(s->id, s->photo, seed, to)) points.push_back({p.x, p.y});
    return ok({{"points", points}});
  }

  Reply state() {
    const std::shared_ptr<const Shown> s = current();
    bool running;
    {
      std::lock_guard<std::mutex> guard(lock);
      running = busy;
    }
    if (s->id == 0) return ok({{"image", nullptr}, {"busy", running}});
    return ok({{"image", s->id}, {"width", s->width}, {"height", s->height},
               {"canUndo", s->canUndo}, {"canRedo", s->canRedo}, {"busy", running}});
  }

  // `image`: the id the page knows, or empty.
  Reply png(const std::string& name, const std::string& image) {
    const std::shared_ptr<const Shown> s = current();
    if (s->id == 0) return fail(404, "no photo yet: send one to /api/image first");
    if (!image.empty() && image != std::to_string(s->id))
      return fail(409, "another page opened a new photo; showing it now", {{"image", s->id}});
    return Reply{200, s->png(name), "image/png"};
  }
};

DemoServer::DemoServer(const DemoLimits& limits) : m(std::make_unique<Impl>(limits)) {
  Impl* impl = m.get();
  auto send = [](httplib::Response& res, const Reply& r) {
    res.status = r.status;
    res.set_content(r.body, r.type.c_str());
    res.set_header("Cache-Control", "no-store");
  };
  m->http.set_payload_max_length(limits.maxUploadBytes);
  m->http.Get("/", [send](const httplib::Request&, httplib::Response& res) {
    send(res, Reply{200, segdemoPage(), "text/html; charset=utf-8"});
  });
  m->http.Get("/api/state", [impl, send](const httplib::Request&, httplib::Response& res) {
    send(res, impl->state());
  });
  for (const char* name : {"mask", "preview", "cutout"}) {
    m->http.Get(std::string("/api/") + name + ".png",
                [impl, send, name](const httplib::Request& req, httplib::Response& res) {
                  send(res, impl->png(name, req.get_param_value("image")));
                });
  }
  m->http.Post("/api/image", [impl, send](const httplib::Request& req, httplib::Response& res) {
    send(res, impl->loadImage(req.body));
  });
  m->http.Post("/api/edit", [impl, send](const httplib::Request& req, httplib::Response& res) {
    send(res, impl->edit(req.body));
  });
  m->http.Post("/api/cancel", [impl, send](const httplib::Request&, httplib::Response& res) {
    send(res, impl->cancel());
  });
  m->http.Post("/api/livewire", [impl, send](const httplib::Request& req, httplib::Response& res) {
    send(res, impl->liveWirePath(req.body));
  });
  // Errors found by the HTTP layer itself (unknown path, body too large)
  // get a JSON message too.
  const size_t maxUpload = limits.maxUploadBytes;
  m->http.set_error_handler(httplib::Server::HandlerWithResponse(
      [maxUpload](const httplib::Request& req, httplib::Response& res) {
    if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
    std::string message = "bad request";
    if (res.status == 404) message = "no such resource: " + req.method + " " + req.path;
    if (res.status == 413) message = "the request body is larger than " + std::to_string(maxUpload) + " bytes";
    res.set_content(json{{"error", message}}.dump(), "application/json");
    return httplib::Server::HandlerResponse::Handled;
  }));
  m->http.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
    res.status = 500;
    res.set_content(json{{"error", "the server failed on this request"}}.dump(), "application/json");
  });
}

DemoServer::~DemoServer() {
  stop();
  // The session tears the engine down on the worker, where it lives.
  m->worker.submit<Reply>([impl = m.get()] {
    impl->session.reset();
    return Reply{};
  }).wait();
}

bool DemoServer::loadPhotoFile(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read " + path;
    return false;
  }
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const Reply r = m->loadImage(bytes);
  if (r.status != 200) *error = path + ": " + json::parse(r.body)["error"].get<std::string>();
  return r.status == 200;
}

int DemoServer::bind(const std::string& host, int port) {
  if (port == 0) return m->http.bind_to_any_port(host);
  return m->http.bind_to_port(host, port) ? port : -1;
}

void DemoServer::run() { m->http.listen_after_bind(); }

void DemoServer::stop() { m->http.stop(); }
