// The SDK's service table and the emulator's request table must describe the same API: a path the
// SDK calls that the emulator does not answer (or answers for another method) would pass every
// unit test and fail only against the real service.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>

#include "Network/ADServiceRequestGenerator.h"
#include "kovantis/emulator/KOEmulator.h"

TEST(ServiceTableTest, TheSDKAndTheEmulatorAgreeOnEveryPathAndMethod) {
  std::set<std::pair<std::string, std::string>> sdk, emulator;
  for (const KOServiceRow& row : ADServiceRequestGenerator::serviceTable()) sdk.emplace(row.method, row.path);
  for (const KOEmulatorRoute& route : KOEmulator::routes()) {
    if (route.path.rfind("/__emulator/", 0) == 0) continue;  // its own control and inspection API
    emulator.emplace(route.method, route.path);
  }
  EXPECT_EQ(sdk.size(), ADServiceRequestGenerator::serviceTable().size()) << "a service listed twice";
  EXPECT_EQ(sdk, emulator);
}
