// A host app that tracks events until it is killed: the durability test starts it again and
// again on one device directory and kills it with SIGKILL at arbitrary moments.
//   kovantis-durability-child <device dir> <emulator port> <run number>
// It prints the number of events tracked so far, one line per ten events.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Sim/KOSimDevice.h"
#include "kovantis/Kovantis.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  KOSimDeviceConfig config;
  config.rootDirectory = argv[1];
  KOSimDevice device(config);
  device.install();
  device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", std::atoi(argv[2])));
  const std::int64_t run = std::atoll(argv[3]);

  Kovantis& sdk = Kovantis::sharedInstance();
  sdk.initializeWithApiKey(KOValue("durable-app"));
  // Bounded: the parent kills it long before; should the parent die, this ends on its own.
  for (std::int64_t seq = 0; seq < 1000000; ++seq) {
    sdk.trackEvent(KOValue("TICK"), KOValue(KODictionary{{"run", run}, {"seq", seq}}));
    if (seq % 10 == 9) {
      sdk.syncNow();
      device.pumpMain();
      std::printf("%lld\n", static_cast<long long>(seq + 1));
      std::fflush(stdout);
    }
  }
  return 0;
}
