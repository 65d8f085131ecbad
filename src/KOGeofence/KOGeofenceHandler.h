// Geofences: asks the service once per process for the fences near the device, hands them to the
// platform's region monitoring within its limit of 20 regions per app, and reports every entry
// into or exit from one of them back to the service. The handler is the delegate of the location
// manager it works with; a host that watched regions through that manager hears them through its
// KOGeoDelegate, first.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kovantis/KOGeoDelegate.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/KOValue.h"

class KOGeofenceHandler : public KOLocationManagerDelegate {
 public:
  /// The most regions one app may watch at once.
  static constexpr std::size_t kMaximumMonitoredRegions = 20;
  /// Appended to a fence's id to name its region; only such regions are reported.
  static constexpr const char* kRegionSuffix = "-KO";

  static KOGeofenceHandler& sharedInstance();

  // The delegate's calls share the property's name; the one not overridden stays visible.
  using KOLocationManagerDelegate::locationManager;
  std::shared_ptr<KOLocationManager> locationManager() const;
  std::shared_ptr<KOGeoDelegate> delegate() const;
  void setDelegate(std::weak_ptr<KOGeoDelegate> delegate);
  /// Whether location updates were started with permission.
  bool locationStarted() const;
  /// Whether fences were asked for in this process.
  bool geoFencesCalled() const;

  /// Works with the host's manager (or one of its own when none is given): asks for permission,
  /// then fetches fences for the given location at once, or for the first location update.
  void startGeofenceWithManager(std::shared_ptr<KOLocationManager> manager,
                                const std::optional<KOLocation>& andLocation = std::nullopt);
  /// Makes a manager when there is none, becomes its delegate and starts updates if permitted.
  void initializeLocationManager();
  /// Whether location may be used; asks for the widest authorisation the platform offers.
  bool locationManagerAllowedPermission();
  /// Asks the service for the fences near the location (nothing is sent without one).
  void callServerWithLocation(const KOLocation* location);
  /// The fence request's answer for the location (described for the log; nil when there was none).
  void handleGeofencesResponse(const KOValue& response, const KOValue& forLocation);
  /// Watches each fence of the list, after making room for all of them.
  void addGeofences(const KOValue& fences);
  /// Stops watching as many regions as the new fences would put over the limit, in the platform's
  /// order, whoever watches them.
  void cleanGeofencesWithNewFencesArray(const KOValue& fences);
  /// Reports a crossing of one of the SDK's regions ("enter" or "exit"); other regions are ignored.
  void geofenceHit(const KOCircularRegion& region, const std::string& transitionType, const std::string& andGeoId);
  /// The report of a crossing heard while the app is not active, under a background task.
  void performBgTask(const KOCircularRegion& region, const std::string& andTransitionType);

  void locationManager(KOLocationManager& manager, const std::vector<KOLocation>& didUpdateLocations) override;
  void locationManager(KOLocationManager& manager, const KOLocationError& didFailWithError) override;
  void locationManager(KOLocationManager& manager, KOAuthorizationStatus didChangeAuthorizationStatus) override;
  void locationManagerDidEnterRegion(KOLocationManager& manager, const KOCircularRegion& region) override;
  void locationManagerDidExitRegion(KOLocationManager& manager, const KOCircularRegion& region) override;

  /// The user said no: the SDK's regions are no longer watched and location updates stop; the
  /// fences are asked for again once consent is granted (resumeAfterConsent).
  void withdrawRegions();
  /// Consent granted: geofencing the host started goes on (permission, then the fences).
  void resumeAfterConsent();
  /// The regions of the SDK's fences the location manager watches.
  std::vector<KOCircularRegion> watchedRegions() const;

  /// A location as log lines show it.
  static std::string describe(const KOLocation& location);

 private:
  KOGeofenceHandler();
  void becomeDelegateOf(const std::shared_ptr<KOLocationManager>& manager);
  void regionCrossed(const KOCircularRegion& region, const char* transitionType);

  // What the managers hold: the handler itself, never freed, so their weak reference never lapses.
  std::shared_ptr<KOLocationManagerDelegate> self_;
  mutable std::mutex mutex_;
  std::shared_ptr<KOLocationManager> locationManager_;
  std::weak_ptr<KOGeoDelegate> delegate_;
  bool locationStarted_ = false;
  bool geoFencesCalled_ = false;
};
