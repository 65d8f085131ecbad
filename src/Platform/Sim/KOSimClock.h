// The simulated device's clock: real time shifted by an offset, or a fixed moment for tests. While
// it is fixed, the device's delayed calls run in its time: moving it fires what became due.
#pragma once

#include <atomic>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>

#include "kovantis/KOPlatform.h"

class KOSimClock : public KOClock {
 public:
  double now() const override;

  /// Stops the clock at the given seconds since 1970.
  void setNow(double secondsSince1970);
  /// Moves the clock forward (fixed or running).
  void advance(double seconds);
  /// Runs with real time again, without offset.
  void useRealTime();
  bool isFixed() const;
  /// Told after every change of the time (the device's dispatch listens), outside the clock's lock.
  void setObserver(std::function<void()> observer);

 private:
  void changed(const std::function<void()>& change);

  mutable std::mutex mutex_;
  std::optional<double> fixed_;
  double offset_ = 0;
  std::function<void()> observer_;
  // What now() reads: the fixed moment (NaN while running) and the offset, published by each change.
  std::atomic<double> fixedNow_{std::numeric_limits<double>::quiet_NaN()};
  std::atomic<double> offsetNow_{0};
};
