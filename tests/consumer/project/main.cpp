// Uses the installed SDK the way a host application would.
#include <cstdio>

#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOValue.h"

int main() {
  KOSimDevice device;
  device.install();
  const KOValue payload(KODictionary{{"sku", "A1"}, {"price", 9.99}});
  if (!(payload["price"] == KOValue(9.99)) || !KOPlatform::isInstalled()) return 1;
  std::printf("consumer linked Kovantis %s\n", LIBRARY_VERSION);
  return 0;
}
