// The simulated device's clock: real time shifted by an offset, or a fixed moment for tests.
#pragma once

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

 private:
  mutable std::mutex mutex_;
  std::optional<double> fixed_;
  double offset_ = 0;
};
