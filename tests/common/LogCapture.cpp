#include "common/LogCapture.h"

#include <android/log.h>

#include <mutex>
#include <sstream>

namespace {

std::mutex g_lock;
std::vector<LogLine> g_lines;

void captureLogger(const struct __android_logger_data* data, const char* message) {
  std::lock_guard<std::mutex> guard(g_lock);
  g_lines.push_back(LogLine{data->priority, data->tag ? data->tag : "", message ? message : ""});
}

}  // namespace

LogCapture::LogCapture() {
  clear();
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger(captureLogger);
}

LogCapture::~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }

const std::vector<LogLine>& LogCapture::lines() const { return g_lines; }

void LogCapture::clear() {
  std::lock_guard<std::mutex> guard(g_lock);
  g_lines.clear();
}

int LogCapture::count(int priority, const std::string& tag, const std::string& text) const {
  std::lock_guard<std::mutex> guard(g_lock);
  int n = 0;
  for (const LogLine& l : g_lines) n += (l.priority == priority && l.tag == tag && l.text == text);
  return n;
}

int LogCapture::countPrefix(const std::string& tag, const std::string& prefix) const {
  std::lock_guard<std::mutex> guard(g_lock);
  int n = 0;
  for (const LogLine& l : g_lines) n += (l.tag == tag && l.text.rfind(prefix, 0) == 0);
  return n;
}

std::string LogCapture::dump() const {
  std::lock_guard<std::mutex> guard(g_lock);
  std::ostringstream out;
  for (const LogLine& l : g_lines) out << l.priority << ' ' << l.tag << ": " << l.text << '\n';
  return out.str();
}
