#include "KOUtilities/KOSDKSettings.h"

KOSDKSettings& KOSDKSettings::shared() {
  // Never destroyed: a sync or a tap still running while the process exits may read it.
  static auto* settings = new KOSDKSettings();
  return *settings;
}

std::shared_ptr<KOInAppDelegate> KOSDKSettings::inAppDelegate() const {
  std::lock_guard<std::mutex> lock(delegateMutex_);
  return delegate_.lock();
}

void KOSDKSettings::setInAppDelegate(std::weak_ptr<KOInAppDelegate> delegate) {
  std::lock_guard<std::mutex> lock(delegateMutex_);
  delegate_ = std::move(delegate);
}
