#include "kovantis/KOPlatform.h"

#include <atomic>
#include <mutex>

namespace {

std::mutex gInstallMutex;
std::atomic<const KOPlatform*> gCurrent{nullptr};

// Every platform ever installed stays alive until the process ends: work in flight on an older
// one (a network completion, a delayed call) must never reach freed memory.
std::vector<std::shared_ptr<const KOPlatform>>& installed() {
  static auto* list = new std::vector<std::shared_ptr<const KOPlatform>>();
  return *list;
}

}  // namespace

void KOPlatform::install(std::shared_ptr<const KOPlatform> platform) {
  if (!platform) throw KOAssertionFailure("KOPlatform::install: no platform");
  const KOPlatform& p = *platform;
  if (!p.appInfo || !p.deviceInfo || !p.advertising || !p.preferences || !p.fileSystem || !p.keychain ||
      !p.application || !p.userInterface || !p.notificationCenter || !p.locale || !p.clock || !p.console ||
      !p.dispatch) {
    throw KOAssertionFailure("KOPlatform::install: every interface must be set");
  }
  std::lock_guard<std::mutex> lock(gInstallMutex);
  installed().push_back(platform);
  gCurrent.store(platform.get(), std::memory_order_release);
}

const KOPlatform& KOPlatform::current() {
  const KOPlatform* p = gCurrent.load(std::memory_order_acquire);
  if (!p) {
    throw KOAssertionFailure(
        "no KOPlatform installed: install one before the first call to the SDK (KOPlatform::install; on the "
        "simulated device KOSimDevice::install)");
  }
  return *p;
}

bool KOPlatform::isInstalled() noexcept { return gCurrent.load(std::memory_order_acquire) != nullptr; }

void KONotificationCategory::setActions(std::vector<KONotificationAction> actions, int forContext) {
  KOMutableUserNotificationCategory::setActions(actions, forContext);
  if (!minimalContextActions) minimalContextActions.emplace();
  // Recorded again on every call: what a host sets twice is reported twice.
  if (forContext == KOUserNotificationActionContextMinimal) {
    minimalContextActions->insert(minimalContextActions->end(), actions.begin(), actions.end());
  }
}
