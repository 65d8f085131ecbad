#include "KOSimLocationManager.h"

#include <cmath>
#include <numbers>

namespace {

constexpr double kEarthRadiusMetres = 6371000.0;

bool authorized(KOAuthorizationStatus status) {
  return status == KOAuthorizationStatusAuthorizedAlways || status == KOAuthorizationStatusAuthorizedWhenInUse;
}

bool inside(const KOCircularRegion& region, KOLocationCoordinate at) {
  return KOSimLocationServices::distance(region.center, at) <= region.radius;
}

}  // namespace

KOSimLocationServices::KOSimLocationServices(std::shared_ptr<KODispatch> dispatch) : dispatch_(std::move(dispatch)) {}

double KOSimLocationServices::distance(KOLocationCoordinate a, KOLocationCoordinate b) {
  const double toRadians = std::numbers::pi / 180.0;
  const double dLat = (b.latitude - a.latitude) * toRadians;
  const double dLng = (b.longitude - a.longitude) * toRadians;
  const double h = std::sin(dLat / 2) * std::sin(dLat / 2) + std::cos(a.latitude * toRadians) *
                                                                 std::cos(b.latitude * toRadians) * std::sin(dLng / 2) *
                                                                 std::sin(dLng / 2);
  return 2 * kEarthRadiusMetres * std::asin(std::sqrt(std::min(1.0, h)));
}

bool KOSimLocationServices::isValid(KOLocationCoordinate c) {
  return std::isfinite(c.latitude) && std::isfinite(c.longitude) && std::fabs(c.latitude) <= 90 &&
         std::fabs(c.longitude) <= 180;
}

std::shared_ptr<KOSimLocationManager> KOSimLocationServices::makeManager() {
  auto manager = std::make_shared<KOSimLocationManager>(weak_from_this());
  std::lock_guard<std::mutex> lock(mutex_);
  std::erase_if(managers_, [](const auto& m) { return m.expired(); });
  managers_.push_back(manager);
  return manager;
}

void KOSimLocationServices::deliver(std::weak_ptr<KOSimLocationManager> to, Call call) {
  dispatch_->asyncMain([to = std::move(to), call = std::move(call)] {
    auto manager = to.lock();
    if (!manager) return;
    auto delegate = manager->delegate();
    if (delegate) call(*manager, *delegate);
  });
}

void KOSimLocationServices::deliverToAll(const Call& call) {
  std::vector<std::weak_ptr<KOSimLocationManager>> managers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    managers = managers_;
  }
  for (auto& m : managers) deliver(m, call);
}

bool KOSimLocationServices::authorizedLocked() const { return enabled_ && authorized(status_); }

void KOSimLocationServices::deliverFixToUpdating() {
  std::vector<std::weak_ptr<KOSimLocationManager>> managers;
  KOLocation fix;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!authorizedLocked() || !position_) return;
    fix.coordinate = *position_;
    managers = managers_;
  }
  for (auto& weak : managers) {
    auto manager = weak.lock();
    if (!manager || !manager->isUpdatingLocation()) continue;
    deliver(weak, [fix](KOSimLocationManager& m, KOLocationManagerDelegate& d) {
      if (m.isUpdatingLocation()) d.locationManager(m, std::vector<KOLocation>{fix});
    });
  }
}

void KOSimLocationServices::changeStatus(KOAuthorizationStatus status) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (status_ == status) return;
    status_ = status;
  }
  deliverToAll([status](KOSimLocationManager& m, KOLocationManagerDelegate& d) { d.locationManager(m, status); });
  deliverFixToUpdating();
}

void KOSimLocationServices::setServicesEnabled(bool enabled) {
  std::lock_guard<std::mutex> lock(mutex_);
  enabled_ = enabled;
}

void KOSimLocationServices::setAuthorizationStatus(KOAuthorizationStatus status) { changeStatus(status); }

void KOSimLocationServices::setPromptAnswer(KOAuthorizationStatus answer, bool later) {
  std::lock_guard<std::mutex> lock(mutex_);
  answer_ = answer;
  answerLater_ = later;
}

void KOSimLocationServices::request(KOAuthorizationStatus wanted) {
  KOAuthorizationStatus answer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++requests_;
    // The prompt shows once: a decided app, or one with a prompt open, is not asked again.
    if (status_ != KOAuthorizationStatusNotDetermined || openPrompt_ || !enabled_) return;
    answer = answer_;
    // Allowing a request for use while in use cannot grant more than that.
    if (wanted == KOAuthorizationStatusAuthorizedWhenInUse && answer == KOAuthorizationStatusAuthorizedAlways) {
      answer = KOAuthorizationStatusAuthorizedWhenInUse;
    }
    if (answerLater_) {
      openPrompt_ = answer;
      return;
    }
  }
  changeStatus(answer);
}

bool KOSimLocationServices::answerPrompt() {
  KOAuthorizationStatus answer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!openPrompt_) return false;
    answer = *openPrompt_;
    openPrompt_.reset();
  }
  changeStatus(answer);
  return true;
}

void KOSimLocationServices::setRequestsOffered(bool always, bool whenInUse) {
  std::lock_guard<std::mutex> lock(mutex_);
  offersAlways_ = always;
  offersWhenInUse_ = whenInUse;
}

void KOSimLocationServices::setMonitoringAvailable(bool available) {
  std::lock_guard<std::mutex> lock(mutex_);
  monitoringAvailable_ = available;
}

void KOSimLocationServices::moveTo(KOLocationCoordinate coordinate) {
  std::vector<std::pair<KOCircularRegion, bool>> crossings;  // region, entered
  {
    std::lock_guard<std::mutex> lock(mutex_);
    position_ = coordinate;
    for (auto& [identifier, w] : watched_) {
      const bool now = inside(w.region, coordinate);
      if (now == w.inside) continue;
      w.inside = now;
      if (now ? w.region.notifyOnEntry : w.region.notifyOnExit) crossings.emplace_back(w.region, now);
    }
  }
  deliverFixToUpdating();
  for (const auto& crossing : crossings) {
    deliverToAll(
        [region = crossing.first, entered = crossing.second](KOSimLocationManager& m, KOLocationManagerDelegate& d) {
          if (entered) {
            d.locationManagerDidEnterRegion(m, region);
          } else {
            d.locationManagerDidExitRegion(m, region);
          }
        });
  }
}

void KOSimLocationServices::forget() {
  std::lock_guard<std::mutex> lock(mutex_);
  status_ = KOAuthorizationStatusNotDetermined;
  openPrompt_.reset();
  watched_.clear();
}

void KOSimLocationServices::startUpdating(const std::shared_ptr<KOSimLocationManager>& manager) {
  bool refused = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    refused = !enabled_ || status_ == KOAuthorizationStatusDenied || status_ == KOAuthorizationStatusRestricted;
  }
  if (refused) {
    deliver(manager, [](KOSimLocationManager& m, KOLocationManagerDelegate& d) {
      d.locationManager(m, KOLocationError{KOLocationErrorDenied, "location services are not allowed for this app"});
    });
    return;
  }
  deliverFixToUpdating();
}

void KOSimLocationServices::startMonitoring(const std::shared_ptr<KOSimLocationManager>& manager,
                                            const KOCircularRegion& region) {
  std::string refusal;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!monitoringAvailable_) {
      refusal = "region monitoring is not available";
    } else if (region.identifier.empty() || !isValid(region.center) || !std::isfinite(region.radius) ||
               region.radius < 0) {
      refusal = "the region is not valid";
    } else if (!watched_.contains(region.identifier) && watched_.size() >= kMaximumRegions) {
      refusal = "the app already monitors the most regions it may";
    } else {
      watched_[region.identifier] = Watched{region, position_ && inside(region, *position_)};
      return;
    }
    refused_.emplace_back(region, refusal);
  }
  deliver(manager, [region, refusal](KOSimLocationManager& m, KOLocationManagerDelegate& d) {
    d.locationManager(m, region, KOLocationError{KOLocationErrorRegionMonitoringFailure, refusal});
  });
}

void KOSimLocationServices::stopMonitoring(const std::string& identifier) {
  std::lock_guard<std::mutex> lock(mutex_);
  watched_.erase(identifier);
}

std::optional<KOLocationCoordinate> KOSimLocationServices::position() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return position_;
}

std::vector<KOCircularRegion> KOSimLocationServices::monitoredRegions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<KOCircularRegion> out;
  for (const auto& [identifier, w] : watched_) out.push_back(w.region);
  return out;
}

std::vector<std::pair<KOCircularRegion, std::string>> KOSimLocationServices::refusedRegions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return refused_;
}

KOAuthorizationStatus KOSimLocationServices::authorizationStatus() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return status_;
}

int KOSimLocationServices::authorizationRequests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

bool KOSimLocationServices::promptOpen() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return openPrompt_.has_value();
}

// ------------------------------------------------------------------------------------ manager

bool KOSimLocationManager::locationServicesEnabled() const {
  auto s = services_.lock();
  if (!s) return false;
  std::lock_guard<std::mutex> lock(s->mutex_);
  return s->enabled_;
}

KOAuthorizationStatus KOSimLocationManager::authorizationStatus() const {
  auto s = services_.lock();
  return s ? s->authorizationStatus() : KOAuthorizationStatusNotDetermined;
}

bool KOSimLocationManager::respondsToRequestAlwaysAuthorization() const {
  auto s = services_.lock();
  if (!s) return false;
  std::lock_guard<std::mutex> lock(s->mutex_);
  return s->offersAlways_;
}

void KOSimLocationManager::requestAlwaysAuthorization() {
  if (auto s = services_.lock()) s->request(KOAuthorizationStatusAuthorizedAlways);
}

bool KOSimLocationManager::respondsToRequestWhenInUseAuthorization() const {
  auto s = services_.lock();
  if (!s) return false;
  std::lock_guard<std::mutex> lock(s->mutex_);
  return s->offersWhenInUse_;
}

void KOSimLocationManager::requestWhenInUseAuthorization() {
  if (auto s = services_.lock()) s->request(KOAuthorizationStatusAuthorizedWhenInUse);
}

void KOSimLocationManager::startUpdatingLocation() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    updating_ = true;
  }
  if (auto s = services_.lock()) s->startUpdating(shared_from_this());
}

void KOSimLocationManager::stopUpdatingLocation() {
  std::lock_guard<std::mutex> lock(mutex_);
  updating_ = false;
}

bool KOSimLocationManager::isUpdatingLocation() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return updating_;
}

void KOSimLocationManager::setDelegate(std::weak_ptr<KOLocationManagerDelegate> delegate) {
  std::lock_guard<std::mutex> lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<KOLocationManagerDelegate> KOSimLocationManager::delegate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return delegate_.lock();
}

bool KOSimLocationManager::isMonitoringAvailableForCircularRegions() const {
  auto s = services_.lock();
  if (!s) return false;
  std::lock_guard<std::mutex> lock(s->mutex_);
  return s->monitoringAvailable_;
}

void KOSimLocationManager::startMonitoringForRegion(const KOCircularRegion& region) {
  if (auto s = services_.lock()) s->startMonitoring(shared_from_this(), region);
}

void KOSimLocationManager::stopMonitoringForRegion(const KOCircularRegion& region) {
  if (auto s = services_.lock()) s->stopMonitoring(region.identifier);
}

std::vector<KOCircularRegion> KOSimLocationManager::monitoredRegions() const {
  auto s = services_.lock();
  return s ? s->monitoredRegions() : std::vector<KOCircularRegion>{};
}
