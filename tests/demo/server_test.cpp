// segdemo's HTTP interface against a running server: bad input, live-wire
// paths, concurrent and cancelled edits.
#include <gtest/gtest.h>
#include <httplib.h>
#include <opencv2/imgcodecs.hpp>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "segdemo/DemoServer.h"

using nlohmann::json;

namespace {

// The evaluation photos: SEGCORE_GRABCUT_DIR when set, as for the other
// tests, else the folder the build was configured with.
std::string photoFolder() {
  const char* env = std::getenv("SEGCORE_GRABCUT_DIR");
  return env != nullptr && *env != '\0' ? std::string(env) : std::string(SEGDEMO_PHOTO_DIR);
}

const std::string kPhotos = photoFolder();
const std::string kBook = kPhotos + "/images/book.jpg";
const std::string kRect = R"({"kind": "rect", "rect": [59, 24, 618, 459]})";

std::string encode(const cv::Mat& image, const char* ext) {
  std::vector<uchar> bytes;
  cv::imencode(ext, image, bytes);
  return std::string(bytes.begin(), bytes.end());
}

cv::Mat decodePng(const httplib::Result& r, int flags = cv::IMREAD_GRAYSCALE) {
  if (!r || r->status != 200) return cv::Mat();
  return cv::imdecode(cv::Mat(1, static_cast<int>(r->body.size()), CV_8U, const_cast<char*>(r->body.data())),
                      flags);
}

bool same(const cv::Mat& a, const cv::Mat& b) {
  return !a.empty() && a.size() == b.size() && cv::countNonZero(a != b) == 0;
}

class DemoServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::ifstream(kBook)) GTEST_SKIP() << "photo set not found at " << kPhotos;
    DemoLimits limits;
    limits.maxPixels = 2000000;
    limits.maxUploadBytes = 8u << 20;
    m_server = std::make_unique<DemoServer>(limits);
    m_port = m_server->bind("127.0.0.1", 0);
    ASSERT_GT(m_port, 0);
    m_thread = std::thread([this] { m_server->run(); });
  }
  void TearDown() override {
    if (!m_server) return;
    m_server->stop();
    m_thread.join();
  }
  httplib::Client client() {
    httplib::Client c("127.0.0.1", m_port);
    c.set_read_timeout(std::chrono::seconds(60));
    return c;
  }
  httplib::Result post(const std::string& path, const std::string& body) {
    return client().Post(path.c_str(), body, "application/json");
  }
  int edit(const std::string& body) { return post("/api/edit", body)->status; }
  cv::Mat mask() { return decodePng(client().Get("/api/mask.png")); }
  void loadBook() {
    std::string error;
    ASSERT_TRUE(m_server->loadPhotoFile(kBook, &error)) << error;
  }

  std::unique_ptr<DemoServer> m_server;
  int m_port = 0;
  std::thread m_thread;
};

struct BadRequest {
  const char* what;
  std::string method, path, body;
  int status;
  std::string message;  // part of the error message
};

// One request of each kind of refusal: no photo yet, an upload that is no
// image or too large, a body that is not the edit asked for, a point outside
// the photo, too many points, nothing to undo, a photo replaced since, an
// unknown path.
TEST_F(DemoServerTest, BadInputGetsAClearErrorAndTheServerKeepsServingPathsAndMasks) {
  std::string million = R"({"kind": "add", "points": [)";
  for (int i = 0; i < 1000000; ++i) million += i ? ",[1,1]" : "[1,1]";
  million += "]}";
  const cv::Mat big(1500, 2000, CV_8UC3, cv::Scalar(40, 90, 160));  // 3 MP, above the test's 2 MP
  const std::vector<BadRequest> withPhoto = {
      {"truncated JPEG", "POST", "/api/image", encode(cv::imread(kBook), ".jpg").substr(0, 300), 400, "not an image"},
      {"PNG above the pixel limit", "POST", "/api/image", encode(big, ".png"), 413, "2000x1500 (3 megapixels)"},
      {"upload above the byte limit", "POST", "/api/image", std::string(9u << 20, 'x'), 413, "larger than 8388608 bytes"},
      {"malformed JSON", "POST", "/api/edit", R"({"kind": "rect", )", 400, "not valid JSON"},
      {"unknown kind", "POST", "/api/edit", R"({"kind": "spiral"})", 400, "unknown kind \"spiral\""},
      {"rect past the right edge", "POST", "/api/edit", R"({"kind": "rect", "rect": [0, 0, 640, 10]})", 400,
       "point (640, 10) is outside the 640x480 photo"},
      {"a million points", "POST", "/api/edit", million, 400, "1000000 points; the limit is 100000"},
      {"undo with nothing to undo", "POST", "/api/edit", R"({"kind": "undo"})", 409, "nothing to undo"},
      {"mask of a photo replaced since", "GET", "/api/mask.png?image=999", "", 409, "another page"},
      {"unknown path", "GET", "/api/photo.tiff", "", 404, "no such resource"},
  };
  auto check = [&](const BadRequest& c) {
    SCOPED_TRACE(c.what);
    httplib::Client cli = client();
    const httplib::Result r = c.method == "GET" ? cli.Get(c.path.c_str())
                                                : cli.Post(c.path.c_str(), c.body, "application/octet-stream");
    ASSERT_TRUE(r) << "no answer";
    EXPECT_EQ(r->status, c.status);
    const json j = json::parse(r->body, nullptr, false);
    ASSERT_TRUE(j.is_object() && j.contains("error") && j["error"].is_string()) << r->body;
    EXPECT_NE(j["error"].get<std::string>().find(c.message), std::string::npos) << j["error"];
  };
  check({"edit before a photo", "POST", "/api/edit", kRect, 409, "no photo yet"});
  loadBook();
  for (const BadRequest& c : withPhoto) check(c);

  // Still serving the same photo, and a good edit works.
  const httplib::Result r = post("/api/edit", kRect);
  ASSERT_TRUE(r);
  ASSERT_EQ(r->status, 200) << r->body;
  EXPECT_FALSE(json::parse(r->body)["cancelled"].get<bool>());
  const cv::Mat result = mask();
  ASSERT_EQ(result.size(), cv::Size(640, 480));
  EXPECT_GT(cv::countNonZero(result), 640 * 480 / 10);
  // The preview shows the photo in its own colours wherever no outline is drawn.
  const cv::Mat preview = decodePng(client().Get("/api/preview.png"), cv::IMREAD_COLOR);
  ASSERT_EQ(preview.size(), result.size());
  const cv::Mat changed = preview != cv::imread(kBook);
  EXPECT_LT(cv::countNonZero(changed.reshape(1)), 640 * 480 / 20);

  // Live-wire paths from random seeds (each used twice) join seed and target
  // inside the photo in steps of 1 to 2 pixels (the search runs at 0.25 MP).
  cv::RNG rng(19);
  for (int i = 0, sx = 0, sy = 0; i < 8; ++i) {
    if (i % 2 == 0) sx = rng.uniform(0, 640), sy = rng.uniform(0, 480);
    const int tx = rng.uniform(0, 640), ty = rng.uniform(0, 480);
    SCOPED_TRACE(testing::Message() << "seed " << sx << "," << sy << " to " << tx << "," << ty);
    const httplib::Result path = post("/api/livewire", json({{"seed", {sx, sy}}, {"to", {tx, ty}}}).dump());
    ASSERT_TRUE(path && path->status == 200);
    const json points = json::parse(path->body)["points"];
    ASSERT_GE(points.size(), 1u);
    EXPECT_EQ(points.front(), json({sx, sy}));
    EXPECT_EQ(points.back(), json({tx, ty}));
    for (size_t k = 1; k < points.size(); ++k) {
      const int x = points[k][0], y = points[k][1];
      const int step = std::max(std::abs(x - points[k - 1][0].get<int>()), std::abs(y - points[k - 1][1].get<int>()));
      ASSERT_TRUE(x >= 0 && y >= 0 && x < 640 && y < 480 && step <= 3) << "at point " << k;
    }
  }
}

// While one client runs the rectangle again, another's edits are refused
// (409) or are the same rectangle, and every mask it reads is the one before
// or after. A cancelled edit leaves the mask and the whole history, a pending
// redo included, as they were.
TEST_F(DemoServerTest, ConcurrentAndCancelledEditsLeaveConsistentMasksAndHistory) {
  loadBook();
  const std::string stroke = R"({"kind": "remove", "points": [[250, 240], [450, 240]], "radius": 10})";
  ASSERT_EQ(edit(kRect), 200);
  const cv::Mat rectMask = mask();
  ASSERT_EQ(edit(stroke), 200);
  const cv::Mat strokeMask = mask();
  ASSERT_FALSE(same(rectMask, strokeMask));

  std::atomic<bool> done{false};
  int editStatus = 0;
  std::thread editor([&] {
    editStatus = edit(kRect);
    done = true;
  });
  // The other client starts once the edit runs.
  for (int i = 0; i < 400 && !done; ++i) {
    const httplib::Result r = client().Get("/api/state");
    if (r && json::parse(r->body)["busy"].get<bool>()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  int refused = 0, otherMasks = 0, failures = 0;
  for (int i = 0; i < 2000 && !done; ++i) {
    httplib::Client cli = client();
    if (i % 4 == 0) {
      const cv::Mat m = decodePng(cli.Get("/api/mask.png"));
      otherMasks += !same(m, rectMask) && !same(m, strokeMask);
      continue;
    }
    const httplib::Result r = i % 4 == 1 ? cli.Post("/api/edit", kRect, "application/json")
                              : i % 4 == 2 ? cli.Post("/api/image", std::string("x"), "image/png")
                                           : cli.Get("/api/state");
    const int expected = i % 4 == 2 ? 400 : 200;
    failures += !r || (r->status != expected && !(i % 4 == 1 && r->status == 409));
    refused += r && r->status == 409;
  }
  editor.join();
  EXPECT_EQ(editStatus, 200);
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(otherMasks, 0);
  EXPECT_GT(refused, 0) << "no request arrived while the edit ran";
  EXPECT_TRUE(same(mask(), rectMask));
  const json state = json::parse(client().Get("/api/state")->body);
  EXPECT_FALSE(state["busy"].get<bool>());
  EXPECT_FALSE(state["canUndo"].get<bool>());

  const std::string loop = R"({"kind": "cutloop", "points": [[100, 60], [560, 60], [560, 420], [100, 420]]})";
  bool sawCancel = false;
  for (int attempt = 0; attempt < 8 && !sawCancel; ++attempt) {
    // History: the rectangle, then the stroke, stepped back to the rectangle.
    ASSERT_EQ(edit(kRect), 200);
    const cv::Mat before = mask();
    ASSERT_EQ(edit(stroke), 200);
    const cv::Mat after = mask();
    ASSERT_EQ(edit(R"({"kind": "undo"})"), 200);

    std::atomic<bool> finished{false};
    json reply;
    std::thread cancelled([&] {
      const httplib::Result r = post("/api/edit", loop);
      if (r && r->status == 200) reply = json::parse(r->body);
      finished = true;
    });
    for (int i = 0; i < 2000 && !finished; ++i) {
      post("/api/cancel", "{}");
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    cancelled.join();
    ASSERT_TRUE(reply.is_object()) << "the edit failed";
    if (!reply["cancelled"].get<bool>()) continue;  // finished first: again
    sawCancel = true;
    EXPECT_FALSE(reply["canUndo"].get<bool>());
    EXPECT_TRUE(reply["canRedo"].get<bool>());
    EXPECT_TRUE(same(mask(), before));
    ASSERT_EQ(edit(R"({"kind": "redo"})"), 200);
    EXPECT_TRUE(same(mask(), after));
    ASSERT_EQ(edit(R"({"kind": "undo"})"), 200);
    EXPECT_TRUE(same(mask(), before));
    // The next edit runs to the end (with the colour models kept, its mask may differ).
    const httplib::Result next = post("/api/edit", stroke);
    ASSERT_EQ(next->status, 200);
    EXPECT_FALSE(json::parse(next->body)["cancelled"].get<bool>());
    const cv::Rect band(250, 230, 201, 21);
    EXPECT_LT(cv::countNonZero(mask()(band)), cv::countNonZero(before(band)) / 2);
  }
  EXPECT_TRUE(sawCancel) << "every edit finished before its cancel";
}

}  // namespace
