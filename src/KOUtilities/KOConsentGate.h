// The user's tracking consent, below the handlers: every place that records, sends or shows asks
// it here, and the transport refuses whatever it does not admit. The privacy handler changes it;
// it is kept in one preference of the SDK's own across launches. Asking costs one atomic load.
#pragma once

#include <atomic>
#include <string_view>

#include "kovantis/KOPrivacy.h"

class KOConsentGate {
 public:
  static KOConsentGate& shared();

  /// The preference that keeps the consent: "granted", "denied" or "pending".
  static constexpr const char* kPreferenceKey = "KO_TRACKING_CONSENT";
  /// The query key the universal parameters carry while the denial's last sync runs, with the
  /// value "denied": how the service learns of an opt-out, since nothing leaves the device after.
  static constexpr const char* kDenialQueryKey = "tracking_consent";

  /// The app's choice (the denial's last sync counts as denied).
  KOTrackingConsent consent();
  static const char* name(KOTrackingConsent consent);

  /// Events and attributes may be recorded: consent granted or pending. A refusal because the user
  /// said no is logged once per start.
  bool mayRecord() {
    const int s = state();
    if (s == kGranted || s == kPending) return true;
    refusedRecording(s);
    return false;
  }
  /// A call of the service other than the reports may be made: consent granted.
  bool mayCallService() { return state() == kGranted; }
  /// The stored reports may go: consent granted, or the denial's last sync is running.
  bool mayUpload() {
    const int s = state();
    return s == kGranted || s == kClosing;
  }
  /// The user said no (or a wipe stopped the SDK): the SDK's geofences go, nothing new shows.
  bool optedOut() {
    const int s = state();
    return s != kGranted && s != kPending;
  }
  /// In-app messages and nudges may show: consent not denied.
  bool mayShow() { return !optedOut(); }
  /// The denial's last sync is running: its requests carry kDenialQueryKey.
  bool closing() { return state() == kClosing; }
  /// Whether the transport may send a request to this address: with consent granted anything, while
  /// the denial's last sync runs only what carries its marker, otherwise nothing.
  bool admits(std::string_view url);
  /// A wipe stopped the SDK: nothing is recorded, sent or shown until the app's next launch.
  bool stopped() { return state() == kStopped; }

  // ---- Written by the privacy handler and the facade's start.
  /// Sets and keeps the consent (ends a denial's last sync).
  void setConsent(KOTrackingConsent consent);
  /// Keeps "denied" and lets the stored reports go once more, marked (see kDenialQueryKey).
  void beginClosing();
  /// The consent of an install where the app never chose one; Granted unless the app must ask first.
  void setDefaultConsent(KOTrackingConsent consent);
  /// A start: the stored choice is read again, and a refusal is logged again once.
  void launched();
  /// After a wipe, until the app's next launch.
  void stop();

 private:
  KOConsentGate() = default;
  enum : int { kUnread = 0, kGranted, kPending, kDenied, kClosing, kStopped };
  int state() {
    const int s = state_.load(std::memory_order_acquire);
    return s != kUnread ? s : read();
  }
  /// Reads the stored choice (the default when there is none).
  int read();
  void refusedRecording(int state);
  static int stateOf(KOTrackingConsent consent);

  std::atomic<int> state_{kUnread};
  std::atomic<int> defaultConsent_{static_cast<int>(KOTrackingConsent::Granted)};
  std::atomic<bool> refusalLogged_{false};
};
