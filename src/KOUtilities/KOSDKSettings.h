// The host's switches and the in-app delegate, kept below the handlers: every handler reads them
// here, and the facade's accessors write them. Safe to read from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "kovantis/KOInAppDelegate.h"

class KOSDKSettings {
 public:
  static KOSDKSettings& shared();

  bool disableInbox() const { return disableInbox_.load(std::memory_order_relaxed); }
  void setDisableInbox(bool value) { disableInbox_.store(value, std::memory_order_relaxed); }
  bool disableInApps() const { return disableInApps_.load(std::memory_order_relaxed); }
  void setDisableInApps(bool value) { disableInApps_.store(value, std::memory_order_relaxed); }
  bool disableBadgeReset() const { return disableBadgeReset_.load(std::memory_order_relaxed); }
  void setDisableBadgeReset(bool value) { disableBadgeReset_.store(value, std::memory_order_relaxed); }
  /// Whether the SDK opens a push's deep link itself (the host's choice at start).
  bool handleDeepLinks() const { return handleDeepLinks_.load(std::memory_order_relaxed); }
  void setHandleDeepLinks(bool value) { handleDeepLinks_.store(value, std::memory_order_relaxed); }

  /// The host's in-app delegate, held weakly: nullptr once the host let it go.
  std::shared_ptr<KOInAppDelegate> inAppDelegate() const;
  void setInAppDelegate(std::weak_ptr<KOInAppDelegate> delegate);

 private:
  KOSDKSettings() = default;

  std::atomic<bool> disableInbox_{false};
  std::atomic<bool> disableInApps_{false};
  std::atomic<bool> disableBadgeReset_{false};
  std::atomic<bool> handleDeepLinks_{false};
  mutable std::mutex delegateMutex_;
  std::weak_ptr<KOInAppDelegate> delegate_;
};
