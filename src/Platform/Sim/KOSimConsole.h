// The simulated device's console: keeps every line for inspection, and echoes them when asked.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "kovantis/KOPlatform.h"

class KOSimConsole : public KOConsole {
 public:
  explicit KOSimConsole(bool echo = false) : echo_(echo) {}

  void writeLine(std::string_view line) override;

  std::vector<std::string> lines() const;
  /// Lines that contain the text.
  std::size_t count(std::string_view text) const;
  bool contains(std::string_view text) const { return count(text) > 0; }
  void clear();
  void setEcho(bool echo);

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  bool echo_;
};
