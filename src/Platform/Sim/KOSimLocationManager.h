// The simulated device's location services and its location managers.
//
// KOSimLocationServices is the device's side: the system switch, the app's authorisation and how
// the user answers a request (at once, or later when the script says so), the device's position
// (moved by the script), and region monitoring as the platform does it: at most 20 regions per app,
// shared by every location manager of the app (the host's own regions count too), a further one
// refused through the delegate, and an entry or an exit fired when a move crosses a watched
// circle's boundary. Every delegate call arrives on the main queue.
//
//   auto manager = device.location().makeManager();   // what the host hands the SDK
//   device.location().setPromptAnswer(KOAuthorizationStatusAuthorizedAlways, /*later=*/true);
//   ...
//   device.location().answerPrompt();                  // the user taps "Allow"
//   device.location().moveTo({52.52, 13.40});
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kovantis/KOPlatform.h"

class KOSimLocationManager;

class KOSimLocationServices : public std::enable_shared_from_this<KOSimLocationServices> {
 public:
  /// The most regions one app may watch at once.
  static constexpr std::size_t kMaximumRegions = 20;

  explicit KOSimLocationServices(std::shared_ptr<KODispatch> dispatch);

  /// A new location manager of the app.
  std::shared_ptr<KOSimLocationManager> makeManager();

  // Scripting.
  /// The system-wide switch (on by default).
  void setServicesEnabled(bool enabled);
  /// The user changed the app's authorisation in the system settings; every manager hears it.
  void setAuthorizationStatus(KOAuthorizationStatus status);
  /// How the user answers the permission prompt (always allow, unless told otherwise), and whether
  /// the answer waits for answerPrompt().
  void setPromptAnswer(KOAuthorizationStatus answer, bool later = false);
  /// The user answers the open prompt now; false when none is open.
  bool answerPrompt();
  /// Which authorisation requests the platform offers (both by default).
  void setRequestsOffered(bool always, bool whenInUse);
  void setMonitoringAvailable(bool available);
  /// The device is here now: updating managers hear the fix, and each watched circle whose
  /// boundary the move crosses fires its entry or exit (if the region asks for it).
  void moveTo(KOLocationCoordinate coordinate);
  /// The app was deleted: no authorisation, no watched regions.
  void forget();

  // Inspection.
  std::optional<KOLocationCoordinate> position() const;
  /// The app's watched regions, ordered by identifier (the simulated platform's own order).
  std::vector<KOCircularRegion> monitoredRegions() const;
  /// Regions refused since the start, oldest first, with the reason.
  std::vector<std::pair<KOCircularRegion, std::string>> refusedRegions() const;
  KOAuthorizationStatus authorizationStatus() const;
  /// Authorisation requests the app made, whether or not a prompt was shown.
  int authorizationRequests() const;
  bool promptOpen() const;

  /// Great-circle distance in metres.
  static double distance(KOLocationCoordinate a, KOLocationCoordinate b);
  static bool isValid(KOLocationCoordinate coordinate);

 private:
  friend class KOSimLocationManager;

  struct Watched {
    KOCircularRegion region;
    bool inside = false;
  };
  using Call = std::function<void(KOSimLocationManager&, KOLocationManagerDelegate&)>;

  bool authorizedLocked() const;
  /// Posts the call to the main queue for one manager (or every live one when none is named).
  void deliver(std::weak_ptr<KOSimLocationManager> to, Call call);
  void deliverToAll(const Call& call);
  /// Hands the current fix to every updating manager, once the app may have it.
  void deliverFixToUpdating();
  void changeStatus(KOAuthorizationStatus status);
  void request(KOAuthorizationStatus wanted);
  void startUpdating(const std::shared_ptr<KOSimLocationManager>& manager);
  void startMonitoring(const std::shared_ptr<KOSimLocationManager>& manager, const KOCircularRegion& region);
  void stopMonitoring(const std::string& identifier);

  std::shared_ptr<KODispatch> dispatch_;
  mutable std::mutex mutex_;
  bool enabled_ = true;
  bool monitoringAvailable_ = true;
  bool offersAlways_ = true;
  bool offersWhenInUse_ = true;
  KOAuthorizationStatus status_ = KOAuthorizationStatusNotDetermined;
  KOAuthorizationStatus answer_ = KOAuthorizationStatusAuthorizedAlways;
  bool answerLater_ = false;
  std::optional<KOAuthorizationStatus> openPrompt_;
  int requests_ = 0;
  std::optional<KOLocationCoordinate> position_;
  std::map<std::string, Watched> watched_;
  std::vector<std::pair<KOCircularRegion, std::string>> refused_;
  std::vector<std::weak_ptr<KOSimLocationManager>> managers_;
};

/// One location manager of the app. Calls on a manager whose device is gone do nothing.
class KOSimLocationManager : public KOLocationManager, public std::enable_shared_from_this<KOSimLocationManager> {
 public:
  explicit KOSimLocationManager(std::weak_ptr<KOSimLocationServices> services) : services_(std::move(services)) {}

  bool locationServicesEnabled() const override;
  KOAuthorizationStatus authorizationStatus() const override;
  bool respondsToRequestAlwaysAuthorization() const override;
  void requestAlwaysAuthorization() override;
  bool respondsToRequestWhenInUseAuthorization() const override;
  void requestWhenInUseAuthorization() override;
  void startUpdatingLocation() override;
  void stopUpdatingLocation() override;
  void setDelegate(std::weak_ptr<KOLocationManagerDelegate> delegate) override;
  std::shared_ptr<KOLocationManagerDelegate> delegate() const override;
  bool isMonitoringAvailableForCircularRegions() const override;
  void startMonitoringForRegion(const KOCircularRegion& region) override;
  void stopMonitoringForRegion(const KOCircularRegion& region) override;
  std::vector<KOCircularRegion> monitoredRegions() const override;

  bool isUpdatingLocation() const;

 private:
  friend class KOSimLocationServices;

  std::weak_ptr<KOSimLocationServices> services_;
  mutable std::mutex mutex_;
  std::weak_ptr<KOLocationManagerDelegate> delegate_;
  bool updating_ = false;
};
