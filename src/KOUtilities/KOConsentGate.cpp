#include "KOUtilities/KOConsentGate.h"

#include <string>

#include "KOUtilities/KOLogger.h"
#include "kovantis/KOPlatform.h"

namespace {

KOPreferenceStore& prefs() { return KOPlatform::current().preferences->standard(); }

}  // namespace

KOConsentGate& KOConsentGate::shared() {
  // Never destroyed: a sync still running while the process exits asks it.
  static auto* gate = new KOConsentGate();
  return *gate;
}

const char* KOConsentGate::name(KOTrackingConsent consent) {
  switch (consent) {
    case KOTrackingConsent::Denied:
      return "denied";
    case KOTrackingConsent::Pending:
      return "pending";
    case KOTrackingConsent::Granted:
      break;
  }
  return "granted";
}

int KOConsentGate::stateOf(KOTrackingConsent consent) {
  switch (consent) {
    case KOTrackingConsent::Denied:
      return kDenied;
    case KOTrackingConsent::Pending:
      return kPending;
    case KOTrackingConsent::Granted:
      break;
  }
  return kGranted;
}

KOTrackingConsent KOConsentGate::consent() {
  switch (state()) {
    case kGranted:
      return KOTrackingConsent::Granted;
    case kPending:
      return KOTrackingConsent::Pending;
    default:
      return KOTrackingConsent::Denied;  // a wiped SDK records nothing either
  }
}

int KOConsentGate::read() {
  const int fallback = stateOf(static_cast<KOTrackingConsent>(defaultConsent_.load(std::memory_order_relaxed)));
  if (!KOPlatform::isInstalled()) return fallback;  // asked again once there is a platform
  int s = fallback;
  // Preferences that cannot be read on this launch read as the default, as every other setting
  // of the SDK does: an app that never chose keeps working as before.
  try {
    const KOValue stored = prefs().objectForKey(kPreferenceKey);
    if (stored.isString()) {
      for (KOTrackingConsent c : {KOTrackingConsent::Granted, KOTrackingConsent::Denied, KOTrackingConsent::Pending}) {
        if (stored.stringValue() == name(c)) s = stateOf(c);
      }
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
  }
  // Whoever changed the state meanwhile (a setter, a wipe) wins over what was read.
  int expected = kUnread;
  if (!state_.compare_exchange_strong(expected, s, std::memory_order_acq_rel)) return expected;
  return s;
}

void KOConsentGate::refusedRecording(int state) {
  if (state == kStopped || refusalLogged_.exchange(true)) return;
  KOLogger::logPlain("Kovantis - Tracking consent is denied: events and attributes are not recorded");
}

bool KOConsentGate::admits(std::string_view url) {
  const int s = state();
  if (s == kGranted) return true;
  if (s != kClosing) return false;
  const std::string marker = std::string(kDenialQueryKey) + "=denied";
  const std::size_t at = url.find(marker);
  return at != std::string_view::npos && at > 0 && (url[at - 1] == '?' || url[at - 1] == '&');
}

void KOConsentGate::setConsent(KOTrackingConsent consent) {
  if (state() == kStopped) return;
  KOPreferenceStore& store = prefs();
  store.setObject(KOValue(name(consent)), kPreferenceKey);
  store.synchronize();
  state_.store(stateOf(consent), std::memory_order_release);
}

void KOConsentGate::beginClosing() {
  if (state() == kStopped) return;
  // Stored as denied at once: should the app die during the last sync, it starts denied.
  KOPreferenceStore& store = prefs();
  store.setObject(KOValue(name(KOTrackingConsent::Denied)), kPreferenceKey);
  store.synchronize();
  state_.store(kClosing, std::memory_order_release);
}

void KOConsentGate::setDefaultConsent(KOTrackingConsent consent) {
  defaultConsent_.store(static_cast<int>(consent), std::memory_order_relaxed);
  int s = state_.load(std::memory_order_acquire);
  // Read again at the next question, unless the app already chose or a wipe stopped the SDK.
  if (s != kStopped && s != kClosing) state_.compare_exchange_strong(s, kUnread, std::memory_order_acq_rel);
}

void KOConsentGate::launched() {
  refusalLogged_.store(false);
  int s = state_.load(std::memory_order_acquire);
  if (s != kStopped && s != kClosing) state_.compare_exchange_strong(s, kUnread, std::memory_order_acq_rel);
}

void KOConsentGate::stop() { state_.store(kStopped, std::memory_order_release); }
