// One simulated device and one in-process emulator for the whole benchmark run: the SDK's
// handlers are process-wide, so every benchmark shares them.
#pragma once

#include <memory>

#include "KOUtilities/KovantisUtils.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/emulator/KOEmulator.h"

struct KOBenchRig {
  KOSimDevice device;
  std::unique_ptr<KOEmulator> emulator;

  KOBenchRig() {
    device.install();
    KOEmulator::Options options;
    options.dataDir = device.rootDirectory() + "/emulator";
    emulator = std::make_unique<KOEmulator>(options);
    device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", emulator->start(0)));
    KovantisUtils::saveAppId(KOValue("bench-app"));
  }

  static KOBenchRig& shared() {
    static auto* rig = new KOBenchRig();
    return *rig;
  }
};
