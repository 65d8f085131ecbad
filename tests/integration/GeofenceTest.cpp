// Geofences end to end: the simulated device's location services, the SDK's handler and the
// emulator's fence answers and recorded hits.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "KOEmulatorTestDevice.h"
#include "KOGeofence/KOGeofenceHandler.h"
#include "KOUtilities/KOLogger.h"
#include "kovantis/Kovantis.h"

namespace {

const std::string kFences = "/v1/geoFences";
const std::string kHit = "/v1/geoFenceHit";

// Records what the host hears, in order.
class HostObserver : public KOGeoDelegate {
 public:
  void locManagerDidEnterRegion(KOLocationManager&, const KOCircularRegion& region) override {
    heard.push_back("enter " + region.identifier);
  }
  void locManagerDidExitRegion(KOLocationManager&, const KOCircularRegion& region) override {
    heard.push_back("exit " + region.identifier);
  }
  std::vector<std::string> heard;
};

}  // namespace

class GeofenceTest : public KOEmulatorTestDevice {
 protected:
  void SetUp() override {
    KOEmulatorTestDevice::SetUp();
    KOLogger::debug(1);
    manager_ = location().makeManager();
  }
  Kovantis& sdk() { return Kovantis::sharedInstance(); }
  KOSimLocationServices& location() { return device().location(); }
  std::size_t logged(const std::string& text) { return device().console().count(text); }
  bool watching(const std::string& id) {
    for (const auto& r : location().monitoredRegions()) {
      if (r.identifier == id) return true;
    }
    return false;
  }

  std::shared_ptr<KOSimLocationManager> manager_;
};

TEST_F(GeofenceTest, FencesNearTheDeviceAreWatchedAndAWalkReportsTheirCrossings) {
  emulator().seed(R"({"geofences": [
      {"geoId": "g1", "lat": 52.5200, "lng": 13.4050, "distance": 100, "transitionType": "enter"},
      {"geoId": "g2", "lat": 52.5230, "lng": 13.4050, "distance": 100, "transitionType": "exit"},
      {"geoId": "far", "lat": 48.1, "lng": 11.5, "distance": 100, "transitionType": "enter"}]})");
  location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
  location().moveTo({52.5180, 13.4050});
  manager_->startMonitoringForRegion({{52.5215, 13.4050}, 40, "home", true, true});
  auto host = std::make_shared<HostObserver>();
  sdk().setGeoDelegate(host);

  sdk().startGeofencingWithLocationManager(manager_);
  ASSERT_TRUE(waitFor([&] { return watching("g1-KO") && watching("g2-KO"); }));
  EXPECT_FALSE(watching("far-KO"));
  const auto asked = emulator().requests(kFences);
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].query.at("lat"), "52.518000");
  EXPECT_EQ(asked[0].query.at("lng"), "13.405000");

  // A later location update asks nothing.
  manager_->startUpdatingLocation();
  location().moveTo({52.5181, 13.4050});
  ASSERT_TRUE(waitFor([&] { return !manager_->isUpdatingLocation(); }));

  // Into g1 (reports entries), on to the host's region, into g2 (reports exits), out of it.
  for (double lat : {52.5200, 52.5215, 52.5230, 52.5260}) location().moveTo({lat, 13.4050});
  // A request is recorded once answered, after what it stored.
  ASSERT_TRUE(waitForRequests(kHit, 2));
  device().pumpMain();
  EXPECT_EQ(emulator().requestCount(kFences), 1u);
  EXPECT_EQ(emulator().requestCount(kHit), 2u);
  auto hits = emulator().geofenceHits();  // the two reports travel at once: either may arrive first
  std::sort(hits.begin(), hits.end(), [](const auto& a, const auto& b) { return a.geoId < b.geoId; });
  EXPECT_EQ(hits[0].geoId, "g1");
  EXPECT_EQ(hits[0].transitionType, "enter");
  EXPECT_DOUBLE_EQ(hits[0].lat, 52.52);  // the fence's centre, not the device
  EXPECT_DOUBLE_EQ(hits[0].lng, 13.405);
  EXPECT_EQ(hits[1].geoId, "g2");
  EXPECT_EQ(hits[1].transitionType, "exit");
  EXPECT_EQ(host->heard, (std::vector<std::string>{"enter g1-KO", "enter home", "exit home", "exit g2-KO"}));
}

TEST_F(GeofenceTest, ABackgroundCrossingRunsUnderItsTaskAndAFailedReportIsNotRetried) {
  emulator().seed(R"({"geofences": [{"geoId": "shop", "lat": 10, "lng": 20, "distance": 50}]})");
  location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
  sdk().startGeofencingWithLocationManager(manager_, KOLocation{{10.01, 20}});
  ASSERT_TRUE(waitFor([&] { return watching("shop-KO"); }));
  EXPECT_FALSE(manager_->isUpdatingLocation());  // the location given is used at once

  KOEmulatorFault fault;
  fault.path = kHit;
  fault.status = 500;
  fault.count = 1;
  emulator().injectFault(fault);
  device().application().setApplicationState(KOApplicationState::Background);
  location().moveTo({10, 20});
  ASSERT_TRUE(waitFor([&] { return logged("Kovantis - GeoFence Hit failed with error") == 1; }));
  // Kept until the system's time runs out, not ended by the report.
  EXPECT_EQ(device().application().activeBackgroundTasks(), std::vector<std::string>{"geoBgTask"});
  device().application().expireBackgroundTasks();
  EXPECT_TRUE(device().application().activeBackgroundTasks().empty());

  device().application().setApplicationState(KOApplicationState::Active);
  location().moveTo({10.01, 20});
  location().moveTo({10, 20});
  ASSERT_TRUE(waitForRequests(kHit, 2));
  device().pumpMain();
  EXPECT_EQ(emulator().requestCount(kHit), 2u);  // the failed one was not sent again
  EXPECT_EQ(emulator().geofenceHits().size(), 1u);
  EXPECT_TRUE(device().application().activeBackgroundTasks().empty());
}

TEST_F(GeofenceTest, PermissionGrantedLaterStartsTheUpdatesAndTheFetch) {
  location().setPromptAnswer(KOAuthorizationStatusAuthorizedAlways, /*later=*/true);
  location().moveTo({1, 1});
  sdk().startGeofencingWithLocationManager(manager_);
  device().pumpMain();
  EXPECT_TRUE(location().promptOpen());
  EXPECT_FALSE(KOGeofenceHandler::sharedInstance().geoFencesCalled());
  location().answerPrompt();
  EXPECT_TRUE(waitForRequests(kFences, 1));
}

TEST_F(GeofenceTest, AnswersWithoutFencesFailedOrHugeAreLoggedAndSurvived) {
  KOGeofenceHandler& handler = KOGeofenceHandler::sharedInstance();
  location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
  sdk().startGeofencingWithLocationManager(manager_, KOLocation{{std::nan(""), 0}});
  ASSERT_TRUE(waitFor([&] { return logged("Kovantis - error getting geofences from server") == 1; }));
  EXPECT_EQ(emulator().requests(kFences).at(0).status, 400);

  const KOLocation here{{52.5, 13.4}, 5};
  emulator().seedUnchecked(R"({"geofences": {"other": []}})");  // an answer without fences
  handler.callServerWithLocation(&here);
  ASSERT_TRUE(waitFor([&] {
    return logged("Kovantis - server didn't give any geofeces for location <+52.50000000,+13.40000000> +/- 5.00m");
  }));

  // 10,000 fences at once: the platform takes twenty and refuses the rest, as a phone does.
  std::string fences = R"({"geofences": {"search_radius": 1e7, "fencesInfo": [)";
  for (int i = 0; i < 10000; ++i) {
    fences += (i ? "," : "") + std::string(R"({"geoId":"f)") + std::to_string(i) + R"(","lat":52.5,"lng":13.4,)" +
              R"("distance":100,"transitionType":"enter"})";
  }
  emulator().seed(fences + "]}}");
  handler.callServerWithLocation(&here);
  ASSERT_TRUE(waitFor([&] { return location().refusedRegions().size() == 9980; }, 30));
  EXPECT_EQ(location().monitoredRegions().size(), 20u);
}
