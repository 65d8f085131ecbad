#include "KOSimClock.h"

#include <chrono>

namespace {
double realNow() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }
}  // namespace

double KOSimClock::now() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fixed_ ? *fixed_ : realNow() + offset_;
}

void KOSimClock::setNow(double secondsSince1970) {
  std::lock_guard<std::mutex> lock(mutex_);
  fixed_ = secondsSince1970;
}

void KOSimClock::advance(double seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (fixed_)
    *fixed_ += seconds;
  else
    offset_ += seconds;
}

void KOSimClock::useRealTime() {
  std::lock_guard<std::mutex> lock(mutex_);
  fixed_.reset();
  offset_ = 0;
}
