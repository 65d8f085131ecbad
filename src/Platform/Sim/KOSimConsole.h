// The simulated device's console: keeps every line for inspection, with the severity the SDK's
// logger gave it, and echoes them when asked.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "kovantis/KOPlatform.h"

class KOSimConsole : public KOConsole {
 public:
  /// A line as written, and its severity (0 for a plain line and for one written without one).
  struct Entry {
    std::string line;
    int severity = 0;
  };

  explicit KOSimConsole(bool echo = false) : echo_(echo) {}

  void writeLine(std::string_view line) override;
  void writeLogLine(std::string_view line, int severity) override;

  std::vector<std::string> lines() const;
  std::vector<Entry> entries() const;
  /// Lines that contain the text.
  std::size_t count(std::string_view text) const;
  bool contains(std::string_view text) const { return count(text) > 0; }
  void clear();
  void setEcho(bool echo);

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  bool echo_;
};
