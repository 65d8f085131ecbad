#include "KOSimConsole.h"

#include <cstdio>

void KOSimConsole::writeLine(std::string_view line) {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.emplace_back(line);
  if (echo_) std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

std::vector<std::string> KOSimConsole::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::size_t KOSimConsole::count(std::string_view text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t n = 0;
  for (const auto& l : lines_) {
    if (l.find(text) != std::string::npos) ++n;
  }
  return n;
}

void KOSimConsole::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

void KOSimConsole::setEcho(bool echo) {
  std::lock_guard<std::mutex> lock(mutex_);
  echo_ = echo;
}
