// segdemo: a local page that drives the engine, to try it by hand.
//
//   segdemo [--image PHOTO] [--host ADDR] [--port N]
//
// Serves one page and a JSON interface (see segdemo/DemoServer.h and the
// README) on ADDR:N, 127.0.0.1:8080 by default; port 0 picks a free port.
// Without --image it starts on the main job's default photo when that has
// been fetched, else with no photo (the page opens one).
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <thread>

#include "segdemo/DemoServer.h"

namespace {

const char* kUsage =
    "usage: segdemo [--image PHOTO] [--host ADDR] [--port N]\n"
    "\n"
    "Serves a page on http://ADDR:N/ (default 127.0.0.1:8080; port 0 = any free\n"
    "port) to cut objects out of PHOTO by hand. Ctrl+C stops it.\n";

DemoServer* g_server = nullptr;
volatile std::sig_atomic_t g_stop = 0;

void onSignal(int) { g_stop = 1; }

}  // namespace

int main(int argc, char** argv) {
  std::string image, host = "127.0.0.1";
  int port = 8080;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--image" && i + 1 < argc) {
      image = argv[++i];
    } else if (arg == "--host" && i + 1 < argc) {
      host = argv[++i];
    } else if (arg == "--port" && i + 1 < argc) {
      char* end = nullptr;
      const long p = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || p < 0 || p > 65535) {
        std::fprintf(stderr, "segdemo: --port takes a number from 0 to 65535\n");
        return 2;
      }
      port = static_cast<int>(p);
    } else {
      std::fprintf(stderr, "segdemo: unexpected argument '%s'\n\n%s", arg.c_str(), kUsage);
      return 2;
    }
  }
  struct stat info;
  if (image.empty() && stat(SEGDEMO_DEFAULT_PHOTO, &info) == 0) image = SEGDEMO_DEFAULT_PHOTO;

  DemoServer server;
  if (!image.empty()) {
    std::string error;
    if (!server.loadPhotoFile(image, &error)) {
      std::fprintf(stderr, "segdemo: %s\n", error.c_str());
      return 1;
    }
  }
  const int bound = server.bind(host, port);
  if (bound < 0) {
    std::fprintf(stderr, "segdemo: cannot listen on %s:%d\n", host.c_str(), port);
    return 1;
  }
  g_server = &server;
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
  // The server is stopped from a plain thread: a signal handler may only set a flag.
  std::thread watcher([] {
    while (!g_stop) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    g_server->stop();
  });
  std::printf("segdemo: serving %s on http://%s:%d/\n", image.empty() ? "no photo yet" : image.c_str(),
              host.c_str(), bound);
  std::fflush(stdout);
  server.run();
  g_stop = 1;
  watcher.join();
  return 0;
}
