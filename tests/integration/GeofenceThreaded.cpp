// Crossings heard while the app is in the background are reported from the shared queue's threads,
// each under its own background task, while the main thread goes on moving the device, asking the
// handler's state and replacing the host's observer.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "KOEmulatorTestDevice.h"
#include "KOGeofence/KOGeofenceHandler.h"
#include "kovantis/Kovantis.h"

namespace {
class Counter : public KOGeoDelegate {
 public:
  void locManagerDidEnterRegion(KOLocationManager&, const KOCircularRegion&) override { ++entries; }
  int entries = 0;
};
}  // namespace

class GeofenceThreaded : public KOEmulatorTestDevice {};

TEST_F(GeofenceThreaded, BackgroundReportsRunAlongsideTheMainThread) {
  // Twenty fences 300 m apart along a meridian, each reporting entries.
  std::string fences = "[";
  for (int i = 0; i < 20; ++i) {
    fences += (i ? "," : "") + std::string(R"({"geoId":"b)") + std::to_string(i) + R"(","lat":)" +
              std::to_string(i * 0.0027) + R"(,"lng":0,"distance":100})";
  }
  emulator().seed(R"({"geofences":)" + fences + "]}");
  auto manager = device().location().makeManager();
  device().location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
  Kovantis::sharedInstance().startGeofencingWithLocationManager(manager, KOLocation{{-0.01, 0}});
  ASSERT_TRUE(waitFor([&] { return device().location().monitoredRegions().size() == 20; }));

  device().application().setApplicationState(KOApplicationState::Background);
  auto counter = std::make_shared<Counter>();
  for (int round = 0; round < 3; ++round) {
    Kovantis::sharedInstance().setGeoDelegate(counter);
    for (int i = 0; i < 20; ++i) {
      device().location().moveTo({i * 0.0027, 0});
      device().location().moveTo({i * 0.0027 + 0.00135, 0});  // between two fences: outside both
      device().pumpMain();
      EXPECT_TRUE(KOGeofenceHandler::sharedInstance().locationStarted());
    }
    device().location().moveTo({-0.01, 0});
  }
  ASSERT_TRUE(waitFor([&] { return emulator().geofenceHits().size() == 60; }, 30));
  std::set<std::string> ids;
  for (const auto& hit : emulator().geofenceHits()) ids.insert(hit.geoId);
  EXPECT_EQ(ids.size(), 20u);
  EXPECT_EQ(counter->entries, 60);
  EXPECT_EQ(device().application().activeBackgroundTasks().size(), 60u);
  device().application().expireBackgroundTasks();
  EXPECT_TRUE(device().application().activeBackgroundTasks().empty());
}
