// Collects every line the engine logs, so tests can assert priority, tag and
// text. Installs itself as the Android logger for its lifetime.
#pragma once

#include <android/log.h>

#include <algorithm>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

struct LogLine {
  int priority;
  std::string tag;
  std::string text;
};

class LogCapture {
 public:
  LogCapture() {
    clear();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(&capture);
  }
  ~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const { return s_lines; }
  void clear() {
    std::lock_guard<std::mutex> guard(s_lock);
    s_lines.clear();
  }
  // Number of lines with exactly this priority, tag and text.
  int count(int priority, const std::string& tag, const std::string& text) const {
    return countIf([&](const LogLine& l) { return l.priority == priority && l.tag == tag && l.text == text; });
  }
  // Number of lines with this tag whose text starts with prefix.
  int countPrefix(const std::string& tag, const std::string& prefix) const {
    return countIf([&](const LogLine& l) { return l.tag == tag && l.text.rfind(prefix, 0) == 0; });
  }
  // All lines, one per row, for failure messages.
  std::string dump() const {
    std::lock_guard<std::mutex> guard(s_lock);
    std::ostringstream out;
    for (const LogLine& l : s_lines) out << l.priority << ' ' << l.tag << ": " << l.text << '\n';
    return out.str();
  }

 private:
  static void capture(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> guard(s_lock);
    s_lines.push_back(LogLine{data->priority, data->tag ? data->tag : "", message ? message : ""});
  }
  template <typename Match>
  static int countIf(Match match) {
    std::lock_guard<std::mutex> guard(s_lock);
    return static_cast<int>(std::count_if(s_lines.begin(), s_lines.end(), match));
  }
  static inline std::mutex s_lock;
  static inline std::vector<LogLine> s_lines;
};
