#include "KOGeofenceHandler.h"

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "KOGeofenceModel.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"

namespace {

constexpr const char* kStartFailure = "Kovantis - exception : %@";
constexpr const char* kFetchFailure = "Kovantis - exception while getting geofences : %@";
constexpr const char* kAddFailure = "Kovantis - exception while adding geofences : %@";
constexpr const char* kHitFailure = "Kovantis - exception geofence hit : %@";
constexpr const char* kBackgroundTaskName = "geoBgTask";

// Authorisation requests exist from system version 8.0 on.
bool systemHasAuthorizationRequests() { return KovantisUtils::systemVersionAtLeast(8.0); }

// The text without its last `count` characters (not bytes), so that an identifier a host chose is
// never cut inside a character.
std::string dropLastCharacters(const std::string& text, int count) {
  std::size_t end = text.size();
  while (count-- > 0 && end > 0) {
    --end;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  }
  return text.substr(0, end);
}

}  // namespace

KOGeofenceHandler& KOGeofenceHandler::sharedInstance() {
  static auto* instance = new KOGeofenceHandler();
  return *instance;
}

KOGeofenceHandler::KOGeofenceHandler() : self_(this, [](KOLocationManagerDelegate*) {}) {}

std::shared_ptr<KOLocationManager> KOGeofenceHandler::locationManager() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return locationManager_;
}

std::shared_ptr<KOGeoDelegate> KOGeofenceHandler::delegate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return delegate_.lock();
}

void KOGeofenceHandler::setDelegate(std::weak_ptr<KOGeoDelegate> delegate) {
  std::lock_guard<std::mutex> lock(mutex_);
  delegate_ = std::move(delegate);
}

bool KOGeofenceHandler::locationStarted() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return locationStarted_;
}

bool KOGeofenceHandler::geoFencesCalled() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return geoFencesCalled_;
}

std::string KOGeofenceHandler::describe(const KOLocation& location) {
  return KOStringFormat::format("<%+.8f,%+.8f> +/- %.2fm",
                                {KOValue(location.coordinate.latitude), KOValue(location.coordinate.longitude),
                                 KOValue(location.horizontalAccuracy)});
}

void KOGeofenceHandler::becomeDelegateOf(const std::shared_ptr<KOLocationManager>& manager) {
  std::shared_ptr<KOLocationManager> previous;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    previous = std::exchange(locationManager_, manager);
  }
  // A manager the handler no longer works with must not report the same crossing a second time.
  if (previous && previous != manager && previous->delegate() == self_) previous->setDelegate({});
  manager->setDelegate(self_);
}

void KOGeofenceHandler::startGeofenceWithManager(std::shared_ptr<KOLocationManager> manager,
                                                 const std::optional<KOLocation>& andLocation) {
  KOLogger::guard(KO_HERE, this, kStartFailure, [&] {
    if (!manager) {
      initializeLocationManager();
      return;
    }
    becomeDelegateOf(manager);
    // While the user says no, the manager is kept and nothing more: a later grant goes on from here.
    if (KOConsentGate::shared().optedOut()) return;
    if (!locationManagerAllowedPermission()) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      locationStarted_ = true;
    }
    if (andLocation) {
      callServerWithLocation(&*andLocation);
    } else {
      manager->startUpdatingLocation();  // the first update asks for the fences
    }
  });
}

void KOGeofenceHandler::initializeLocationManager() {
  std::shared_ptr<KOLocationManager> manager = locationManager();
  if (!manager) {
    const auto& make = KOPlatform::current().makeLocationManager;
    if (make) manager = make();
    if (!manager) throw std::runtime_error("this platform makes no location manager");
  }
  becomeDelegateOf(manager);
  if (KOConsentGate::shared().optedOut()) return;
  if (!locationManagerAllowedPermission()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    locationStarted_ = true;
  }
  manager->startUpdatingLocation();
}

bool KOGeofenceHandler::locationManagerAllowedPermission() {
  std::shared_ptr<KOLocationManager> manager = locationManager();
  if (manager) {
    const KOAuthorizationStatus status = manager->authorizationStatus();
    if (!manager->locationServicesEnabled() || status == KOAuthorizationStatusRestricted ||
        status == KOAuthorizationStatusDenied) {
      KOLogger::logLocated(KO_HERE, this, KOLogSeverityWarning, "Kovantis - location permission denied/restricted");
      return false;
    }
  }
  if (systemHasAuthorizationRequests()) {
    // The widest the platform offers; it shows the prompt only while the app is undecided, and the
    // answer arrives later through the delegate.
    if (manager && manager->respondsToRequestAlwaysAuthorization()) {
      manager->requestAlwaysAuthorization();
    } else if (manager && manager->respondsToRequestWhenInUseAuthorization()) {
      manager->requestWhenInUseAuthorization();
    } else {
      KOLogger::logLocated(KO_HERE, this, KOLogSeverityWarning,
                           "Kovantis - sufficient location permission not available");
      return false;
    }
  }
  return true;
}

void KOGeofenceHandler::callServerWithLocation(const KOLocation* location) {
  KOLogger::guard(KO_HERE, this, kFetchFailure, [&] {
    // Not asked while consent is not granted; a grant asks then (resumeAfterConsent).
    if (!KOConsentGate::shared().mayCallService()) return;
    {
      // Once per process: later locations do not ask again, whatever the answer.
      std::lock_guard<std::mutex> lock(mutex_);
      geoFencesCalled_ = true;
    }
    const KOValue where = location ? KOValue(describe(*location)) : KOValue();
    KOServerInterface::sharedInstance().getGeofencesForLocation(
        location ? &location->coordinate : nullptr,
        [this, where](const KOValue& response) { handleGeofencesResponse(response, where); });
  });
}

void KOGeofenceHandler::handleGeofencesResponse(const KOValue& response, const KOValue& forLocation) {
  KOLogger::guard(KO_HERE, this, kFetchFailure, [&] {
    if (!response.isDictionary()) {
      KOLogger::logLocated(KO_HERE, this, KOLogSeverityError, "Kovantis - error getting geofences from server");
      return;
    }
    const KOValue& fences = validObjectForKey(response, "fencesInfo");
    // A long answer is described only when someone reads it.
    if (KOLogger::loggingEnabled()) KOLogger::logPlain(KOStringFormat::format("Kovantis - GeoFences : %@", {fences}));
    if (!fences.isAbsent()) {
      addGeofences(fences);
    } else {
      KOLogger::logLocated(
          KO_HERE, this, KOLogSeverityWarning,
          KOStringFormat::format("Kovantis - server didn't give any geofeces for location %@", {forLocation}));
    }
  });
}

void KOGeofenceHandler::addGeofences(const KOValue& fences) {
  KOLogger::guard(KO_HERE, this, kAddFailure, [&] {
    std::shared_ptr<KOLocationManager> manager = locationManager();
    if (!manager) throw std::runtime_error("no location manager");
    if (!manager->isMonitoringAvailableForCircularRegions()) {
      KOLogger::logLocated(KO_HERE, this, KOLogSeverityWarning, "Kovantis - Region monitoring not available right now");
      return;
    }
    cleanGeofencesWithNewFencesArray(fences);
    // Every fence goes to the platform, which refuses those beyond its limit itself.
    for (const KOValue& fence : fences.arrayValue()) {
      const KOGeofenceModel model(fence);
      KOCircularRegion region;
      region.center = {model.latitude, model.longitude};
      region.radius = static_cast<double>(model.distance);
      region.identifier = KOStringFormat::format("%@-KO", {model.geoCampaignID});
      region.notifyOnEntry = model.transitionType == 0;
      region.notifyOnExit = model.transitionType == 1;
      manager->startMonitoringForRegion(region);
    }
  });
}

void KOGeofenceHandler::cleanGeofencesWithNewFencesArray(const KOValue& fences) {
  std::shared_ptr<KOLocationManager> manager = locationManager();
  if (!manager) throw std::runtime_error("no location manager");
  const std::vector<KOCircularRegion> monitored = manager->monitoredRegions();
  const std::size_t total = monitored.size() + fences.arrayValue().size();
  if (total < kMaximumMonitoredRegions) return;
  // Whoever watches a region, the host included: the platform's limit is the app's.
  std::size_t excess = total - kMaximumMonitoredRegions;
  for (const KOCircularRegion& region : monitored) {
    if (excess == 0) break;
    manager->stopMonitoringForRegion(region);
    --excess;
  }
}

void KOGeofenceHandler::geofenceHit(const KOCircularRegion& region, const std::string& transitionType,
                                    const std::string& andGeoId) {
  KOLogger::guard(KO_HERE, this, kHitFailure, [&] {
    if (!KovantisUtils::checkIfString(andGeoId, kRegionSuffix)) return;  // a region of the host's
    if (!KOConsentGate::shared().mayCallService()) return;               // not kept for later, like a failed report
    const std::string geoId = dropLastCharacters(andGeoId, 3);
    const KOLocationCoordinate center = region.center;
    // Reported once: a failed report is logged, not kept for later.
    KOServerInterface::sharedInstance().geofenceHitWithLocation(
        &center, transitionType, geoId, [this](const KOValue& response) {
          if (response.isAbsent()) {
            KOLogger::logLocated(KO_HERE, this, KOLogSeverityError, "Kovantis - GeoFence Hit failed with error");
          }
        });
  });
}

void KOGeofenceHandler::performBgTask(const KOCircularRegion& region, const std::string& andTransitionType) {
  KOLogger::guard(KO_HERE, this, kHitFailure, [&] {
    const KOPlatform& platform = KOPlatform::current();
    std::weak_ptr<KOApplication> app = platform.application;
    auto task = std::make_shared<std::atomic<KOBackgroundTaskIdentifier>>(KOBackgroundTaskInvalid);
    // Ended only when the system's time runs out, not when the report is done.
    *task = platform.application->beginBackgroundTask(kBackgroundTaskName, [app, task] {
      if (auto running = app.lock()) running->endBackgroundTask(*task);
    });
    platform.dispatch->asyncBackground(
        [this, region, andTransitionType] { geofenceHit(region, andTransitionType, region.identifier); });
  });
}

void KOGeofenceHandler::locationManager(KOLocationManager& manager, const std::vector<KOLocation>& didUpdateLocations) {
  KOLogger::guard(KO_HERE, this, kStartFailure, [&] {
    manager.stopUpdatingLocation();
    if (geoFencesCalled()) return;
    callServerWithLocation(didUpdateLocations.empty() ? nullptr : &didUpdateLocations.back());
  });
}

void KOGeofenceHandler::locationManager(KOLocationManager&, const KOLocationError& didFailWithError) {
  KOLogger::logLocated(
      KO_HERE, this, KOLogSeverityError,
      KOStringFormat::format("Kovantis - location manager failed with error %@", {KOValue(didFailWithError.message)}));
}

void KOGeofenceHandler::locationManager(KOLocationManager& manager,
                                        KOAuthorizationStatus didChangeAuthorizationStatus) {
  KOLogger::guard(KO_HERE, this, kStartFailure, [&] {
    if (locationStarted() || !systemHasAuthorizationRequests() || KOConsentGate::shared().optedOut()) return;
    if (didChangeAuthorizationStatus != KOAuthorizationStatusAuthorizedAlways &&
        didChangeAuthorizationStatus != KOAuthorizationStatusAuthorizedWhenInUse) {
      return;
    }
    manager.startUpdatingLocation();
    std::lock_guard<std::mutex> lock(mutex_);
    locationStarted_ = true;
  });
}

void KOGeofenceHandler::locationManagerDidEnterRegion(KOLocationManager& manager, const KOCircularRegion& region) {
  KOLogger::guard(KO_HERE, this, kHitFailure, [&] {
    if (auto host = delegate()) host->locManagerDidEnterRegion(manager, region);
    regionCrossed(region, "enter");
  });
}

void KOGeofenceHandler::locationManagerDidExitRegion(KOLocationManager& manager, const KOCircularRegion& region) {
  KOLogger::guard(KO_HERE, this, kHitFailure, [&] {
    if (auto host = delegate()) host->locManagerDidExitRegion(manager, region);
    regionCrossed(region, "exit");
  });
}

void KOGeofenceHandler::regionCrossed(const KOCircularRegion& region, const char* transitionType) {
  if (KOPlatform::current().application->applicationState() != KOApplicationState::Active) {
    performBgTask(region, transitionType);
  } else {
    geofenceHit(region, transitionType, region.identifier);
  }
}

// ------------------------------------------------------------------------------------- consent

std::vector<KOCircularRegion> KOGeofenceHandler::watchedRegions() const {
  std::vector<KOCircularRegion> ours;
  if (const auto manager = locationManager()) {
    for (const KOCircularRegion& region : manager->monitoredRegions()) {
      if (KovantisUtils::checkIfString(region.identifier, kRegionSuffix)) ours.push_back(region);
    }
  }
  return ours;
}

void KOGeofenceHandler::withdrawRegions() {
  KOLogger::guard(KO_HERE, this, kStartFailure, [&] {
    const auto manager = locationManager();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      geoFencesCalled_ = false;
    }
    if (!manager) return;
    manager->stopUpdatingLocation();
    // The host's own regions stay: only those the SDK added go.
    for (const KOCircularRegion& region : watchedRegions()) manager->stopMonitoringForRegion(region);
  });
}

void KOGeofenceHandler::resumeAfterConsent() {
  KOLogger::guard(KO_HERE, this, kStartFailure, [&] {
    const auto manager = locationManager();
    if (!manager) return;  // the host never started geofencing
    if (!locationStarted()) {
      if (!locationManagerAllowedPermission()) return;
      std::lock_guard<std::mutex> lock(mutex_);
      locationStarted_ = true;
    }
    if (!geoFencesCalled()) manager->startUpdatingLocation();  // the first update asks for the fences
  });
}
