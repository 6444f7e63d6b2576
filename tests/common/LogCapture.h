// Collects every line the engine logs, so tests can assert priority, tag and
// exact text. Installs itself as the Android logger for its lifetime.
#pragma once

#include <string>
#include <vector>

struct LogLine {
  int priority;
  std::string tag;
  std::string text;
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const;
  void clear();
  // Number of lines with exactly this priority, tag and text.
  int count(int priority, const std::string& tag, const std::string& text) const;
  // Number of lines with this tag whose text starts with prefix.
  int countPrefix(const std::string& tag, const std::string& prefix) const;
  // All lines, one per row, for failure messages.
  std::string dump() const;
};
