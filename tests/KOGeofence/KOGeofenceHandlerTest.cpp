// The geofence handler on the simulated device alone: permission, making room within the
// platform's limit, and what reaches region monitoring from fences good and bad. Nothing here
// needs the service: the device has no position, so no fence request is made.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "KOGeofence/KOGeofenceHandler.h"
#include "KOTestDevice.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "Sim/KOForwardingPlatform.h"
#include "kovantis/Kovantis.h"

namespace {

KOCircularRegion hostRegion(const std::string& id) { return {{48.1, 11.5}, 100, id, true, true}; }

KOValue fencesNamed(const std::string& prefix, int count) {
  KOArray fences;
  for (int i = 0; i < count; ++i) {
    fences.push_back(KOValue(KODictionary{{"geoId", prefix + std::to_string(i)},
                                          {"lat", 52.5 + i * 0.001},
                                          {"lng", 13.4},
                                          {"distance", 150},
                                          {"transitionType", i % 2 ? "exit" : "enter"}}));
  }
  return KOValue(std::move(fences));
}

std::vector<std::string> identifiers(const std::vector<KOCircularRegion>& regions) {
  std::vector<std::string> out;
  for (const auto& r : regions) out.push_back(r.identifier);
  return out;
}

}  // namespace

class KOGeofenceHandlerTest : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    KOLogger::debug(1);
    manager_ = device().location().makeManager();
  }
  KOGeofenceHandler& handler() { return KOGeofenceHandler::sharedInstance(); }
  KOSimLocationServices& location() { return device().location(); }
  std::size_t logged(const std::string& text) { return device().console().count(text); }
  /// Lets the platform's answers (refusals, status changes) arrive.
  void settle() { device().pumpMain(); }

  std::shared_ptr<KOSimLocationManager> manager_;
};

TEST_F(KOGeofenceHandlerTest, RoomIsMadeBeforeAddingInThePlatformsOrderHostRegionsIncluded) {
  Kovantis::sharedInstance().startGeofencingWithLocationManager(manager_);
  for (int i = 0; i < 15; ++i) manager_->startMonitoringForRegion(hostRegion("host-" + std::string(1, 'a' + i)));
  handler().addGeofences(fencesNamed("g", 8));
  settle();
  // 15 + 8 is 3 over: the first three in the platform's order go, though they are the host's.
  const auto ids = identifiers(location().monitoredRegions());
  ASSERT_EQ(ids.size(), 20u);
  EXPECT_EQ(ids.front(), "g0-KO");
  EXPECT_EQ(ids.back(), "host-o");
  EXPECT_EQ(std::count(ids.begin(), ids.end(), "host-c"), 0);
  EXPECT_EQ(std::count(ids.begin(), ids.end(), "host-d"), 1);
  EXPECT_TRUE(location().refusedRegions().empty());

  // Exactly 20 after adding: nothing is stopped. The ids of the SDK's own regions are replaced in place.
  for (const char* id : {"host-d", "host-e", "host-f", "host-g", "host-h", "host-i"}) {
    manager_->stopMonitoringForRegion(hostRegion(id));
  }
  handler().addGeofences(fencesNamed("n", 6));
  settle();
  EXPECT_EQ(location().monitoredRegions().size(), 20u);
  EXPECT_EQ(identifiers(location().monitoredRegions())[8], "host-j");
  EXPECT_TRUE(location().refusedRegions().empty());

  // The transition decides what the region notifies.
  const auto regions = location().monitoredRegions();
  EXPECT_TRUE(!regions[15].notifyOnEntry && regions[15].notifyOnExit) << regions[15].identifier;  // n1, exit
  EXPECT_TRUE(regions[16].notifyOnEntry && !regions[16].notifyOnExit) << regions[16].identifier;  // n2, enter
}

TEST_F(KOGeofenceHandlerTest, TenThousandFencesLeaveTwentyWatchedAndTheRestRefusedByThePlatform) {
  Kovantis::sharedInstance().startGeofencingWithLocationManager(manager_);
  manager_->startMonitoringForRegion(hostRegion("host"));
  handler().addGeofences(fencesNamed("g", 10000));
  ASSERT_TRUE(waitFor([&] { return location().refusedRegions().size() == 9980; }));
  settle();
  const auto ids = identifiers(location().monitoredRegions());
  EXPECT_EQ(ids.size(), 20u);
  EXPECT_EQ(std::count(ids.begin(), ids.end(), "host"), 0);
}

TEST_F(KOGeofenceHandlerTest, BadFencesAreLoggedAndNeverCrashTheHandler) {
  Kovantis::sharedInstance().startGeofencingWithLocationManager(manager_);
  const KOValue fences = KOJSONSerialization::parse(R"([
      {"geoId": "ok", "lat": 1, "lng": 2, "distance": 10.9, "transitionType": "sideways"},
      {"geoId": "north", "lat": 95, "lng": 2, "distance": 10},
      {"geoId": "negative", "lat": 1, "lng": 2, "distance": -5},
      {"geoId": "typed", "lat": "1.0", "lng": 2, "distance": 10},
      {"distance": 7, "geoId": 42, "lat": 1},
      {"geoId": null, "lat": 1, "lng": 3, "distance": null},
      {"distance": "250", "geoId": "d", "lat": 1, "lng": 2, "transitionType": "exit"},
      "not a fence"])");
  handler().addGeofences(fences);
  settle();
  EXPECT_EQ(logged("Kovantis - exception while initializing KOGeoFenceModel"), 4u);
  // A field of the wrong kind loses only itself; the platform refuses what is no circle.
  std::map<std::string, KOCircularRegion> watched;
  for (const auto& r : location().monitoredRegions()) watched[r.identifier] = r;
  ASSERT_TRUE(watched.contains("ok-KO"));
  EXPECT_EQ(watched["ok-KO"].radius, 10);
  EXPECT_TRUE(watched["ok-KO"].notifyOnEntry);
  ASSERT_TRUE(watched.contains("typed-KO"));
  EXPECT_EQ(watched["typed-KO"].center.latitude, 0);
  EXPECT_EQ(watched["typed-KO"].center.longitude, 2);
  EXPECT_EQ(watched["typed-KO"].radius, 10);
  ASSERT_TRUE(watched.contains("d-KO"));  // a distance given as text leaves the rest of the fence
  EXPECT_EQ(watched["d-KO"].center.latitude, 1);
  EXPECT_FALSE(watched["d-KO"].notifyOnEntry);  // its transition was read too
  ASSERT_TRUE(watched.contains("(null)-KO"));   // the id-less fences share one region
  EXPECT_EQ(identifiers(location().monitoredRegions()).size(), 4u);
  EXPECT_EQ(location().refusedRegions().size(), 2u);

  for (const char* notAList : {R"({"geoId": "g"})", R"("fences")", "7"}) {
    handler().addGeofences(KOJSONSerialization::parse(notAList));
  }
  EXPECT_EQ(logged("Kovantis - exception while adding geofences"), 3u);
  EXPECT_EQ(location().monitoredRegions().size(), 4u);
}

TEST_F(KOGeofenceHandlerTest, RefusedPermissionStartsNothingAndIsLoggedAtEveryStart) {
  struct Case {
    KOAuthorizationStatus status;
    bool servicesOn;
  };
  for (const Case& c : {Case{KOAuthorizationStatusNotDetermined, false}, Case{KOAuthorizationStatusDenied, true},
                        Case{KOAuthorizationStatusRestricted, true}}) {
    location().setServicesEnabled(c.servicesOn);
    location().setAuthorizationStatus(c.status);
    const auto before = logged("Kovantis - location permission denied/restricted");
    Kovantis::sharedInstance().startGeofencingWithLocationManager(manager_);
    Kovantis::sharedInstance().startGeofencingWithLocationManager(manager_, KOLocation{{1, 2}});
    settle();
    EXPECT_EQ(logged("Kovantis - location permission denied/restricted"), before + 2);
    EXPECT_FALSE(manager_->isUpdatingLocation());
    EXPECT_FALSE(handler().locationStarted());
    EXPECT_FALSE(handler().geoFencesCalled());
  }
  EXPECT_EQ(location().authorizationRequests(), 0);

  // Allowed later in the system settings: the handler, still the delegate, starts the updates.
  location().setServicesEnabled(true);
  location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedWhenInUse);
  ASSERT_TRUE(waitFor([&] { return manager_->isUpdatingLocation(); }));
  EXPECT_TRUE(handler().locationStarted());
}

TEST_F(KOGeofenceHandlerTest, AsksForTheWidestAuthorisationOffered) {
  // An undecided app may start: the answer comes later and does not start anything twice.
  location().setPromptAnswer(KOAuthorizationStatusAuthorizedAlways, /*later=*/true);
  location().setRequestsOffered(false, true);
  Kovantis::sharedInstance().startGeofencingWithLocationManager(manager_);
  EXPECT_TRUE(location().promptOpen());
  EXPECT_TRUE(handler().locationStarted());
  ASSERT_TRUE(location().answerPrompt());
  settle();
  EXPECT_EQ(location().authorizationStatus(), KOAuthorizationStatusAuthorizedWhenInUse);

  // A platform that offers neither request gets nothing started.
  location().setRequestsOffered(false, false);
  auto other = location().makeManager();
  Kovantis::sharedInstance().startGeofencingWithLocationManager(other);
  EXPECT_EQ(logged("Kovantis - sufficient location permission not available"), 1u);
  EXPECT_FALSE(other->isUpdatingLocation());
  EXPECT_EQ(handler().locationManager(), other);
  EXPECT_EQ(manager_->delegate(), nullptr);  // the earlier manager no longer reports to the handler
}

TEST_F(KOGeofenceHandlerTest, WithoutAManagerTheSDKMakesItsOwnAndWithoutMonitoringAddsNothing) {
  location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
  Kovantis::sharedInstance().startGeofencingWithLocationManager(nullptr);
  auto own = handler().locationManager();
  ASSERT_NE(own, nullptr);
  EXPECT_EQ(own->delegate().get(), static_cast<KOLocationManagerDelegate*>(&handler()));
  EXPECT_TRUE(std::dynamic_pointer_cast<KOSimLocationManager>(own)->isUpdatingLocation());

  location().setMonitoringAvailable(false);
  handler().addGeofences(fencesNamed("g", 2));
  EXPECT_EQ(logged("Kovantis - Region monitoring not available right now"), 1u);
  EXPECT_TRUE(location().monitoredRegions().empty());
}

TEST_F(KOGeofenceHandlerTest, APlatformThatThrowsIsLoggedAtTheStepItBroke) {
  // A bridge whose region list fails, then one whose authorisation cannot be read.
  class Broken : public KOForwardingLocationManager {
   public:
    using KOForwardingLocationManager::KOForwardingLocationManager;
    std::vector<KOCircularRegion> monitoredRegions() const override { throw std::runtime_error("no regions"); }
  };
  location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
  auto broken = std::make_shared<Broken>(manager_);
  Kovantis::sharedInstance().startGeofencingWithLocationManager(broken);
  handler().addGeofences(fencesNamed("g", 2));
  EXPECT_EQ(logged("Kovantis - exception while adding geofences : no regions"), 1u);
  EXPECT_TRUE(location().monitoredRegions().empty());  // nothing added once making room failed

  class Unreadable : public KOForwardingLocationManager {
   public:
    using KOForwardingLocationManager::KOForwardingLocationManager;
    KOAuthorizationStatus authorizationStatus() const override { throw std::runtime_error("no status"); }
  };
  Kovantis::sharedInstance().startGeofencingWithLocationManager(std::make_shared<Unreadable>(manager_));
  EXPECT_EQ(logged("Kovantis - exception : no status"), 1u);
}
