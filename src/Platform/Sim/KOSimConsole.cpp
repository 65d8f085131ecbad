#include "KOSimConsole.h"

#include <cstdio>

void KOSimConsole::writeLine(std::string_view line) { writeLogLine(line, 0); }

void KOSimConsole::writeLogLine(std::string_view line, int severity) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back({std::string(line), severity});
  if (echo_) std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

std::vector<std::string> KOSimConsole::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> lines;
  lines.reserve(entries_.size());
  for (const auto& e : entries_) lines.push_back(e.line);
  return lines;
}

std::vector<KOSimConsole::Entry> KOSimConsole::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

std::size_t KOSimConsole::count(std::string_view text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t n = 0;
  for (const auto& e : entries_) {
    if (e.line.find(text) != std::string::npos) ++n;
  }
  return n;
}

void KOSimConsole::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

void KOSimConsole::setEcho(bool echo) {
  std::lock_guard<std::mutex> lock(mutex_);
  echo_ = echo;
}
