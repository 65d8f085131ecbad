// One simulated device for a whole fuzzing run, installed on first use: the targets that lay out or
// scale by the screen parse on a device, as the SDK does.
#pragma once

#include "Sim/KOSimDevice.h"

inline void installFuzzDevice() {
  static auto* device = [] {
    auto* d = new KOSimDevice();
    d->install();
    return d;
  }();
  static_cast<void>(device);
}
