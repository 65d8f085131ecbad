#include "KOSimClock.h"

#include <chrono>
#include <cmath>
#include <limits>

namespace {
double realNow() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }
}  // namespace

double KOSimClock::now() const {
  // Read on every tracked event: the published copies, without the lock.
  const double fixed = fixedNow_.load(std::memory_order_acquire);
  return std::isnan(fixed) ? realNow() + offsetNow_.load(std::memory_order_acquire) : fixed;
}

void KOSimClock::setNow(double secondsSince1970) {
  changed([&] { fixed_ = secondsSince1970; });
}

void KOSimClock::advance(double seconds) {
  changed([&] {
    if (fixed_)
      *fixed_ += seconds;
    else
      offset_ += seconds;
  });
}

void KOSimClock::useRealTime() {
  changed([&] {
    fixed_.reset();
    offset_ = 0;
  });
}

bool KOSimClock::isFixed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fixed_.has_value();
}

void KOSimClock::setObserver(std::function<void()> observer) {
  std::lock_guard<std::mutex> lock(mutex_);
  observer_ = std::move(observer);
}

void KOSimClock::changed(const std::function<void()>& change) {
  std::function<void()> observer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    change();
    offsetNow_.store(offset_, std::memory_order_release);
    fixedNow_.store(fixed_ ? *fixed_ : std::numeric_limits<double>::quiet_NaN(), std::memory_order_release);
    observer = observer_;
  }
  if (observer) observer();
}
