// segdemo's HTTP server: one page and a JSON interface over one edit
// sequence of the engine. The engine is process-wide, so every request that
// touches it runs on one worker thread, one at a time; a second such request
// while one runs gets 409. Reading results (the PNG images, the state) never
// waits: it is served from the last finished edit.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct DemoLimits {
  long long maxPixels = 50000000;         // a photo above 50 megapixels is refused
  size_t maxUploadBytes = 100u << 20;     // an upload above 100 MiB is refused
  size_t maxPathPoints = 100000;          // points of one loop or stroke
  int maxRadius = 1000;                   // brush radius in pixels
  int editWaitSeconds = 120;              // a request gives up waiting for its edit after this
};

class DemoServer {
 public:
  explicit DemoServer(const DemoLimits& limits = DemoLimits());
  ~DemoServer();
  DemoServer(const DemoServer&) = delete;
  DemoServer& operator=(const DemoServer&) = delete;

  // Starts a new edit sequence on the photo in `path`; false with a message.
  bool loadPhotoFile(const std::string& path, std::string* error);
  // Binds to host:port (port 0: any free port). Returns the port, or -1.
  int bind(const std::string& host, int port);
  // Serves until stop() is called (from another thread or a signal handler's
  // helper thread).
  void run();
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> m;
};

// The page, compiled in.
const std::string& segdemoPage();
