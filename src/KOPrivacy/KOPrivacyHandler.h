// The user's say over the SDK: tracking consent and what each change does to the data held on the
// device, a wipe of everything the SDK keeps, and an export of what it keeps about the user. Sits
// above every handler, since a change of consent or a wipe reaches all of them; the handlers
// themselves only ask the consent gate below them.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "kovantis/KOPrivacy.h"
#include "kovantis/KOValue.h"

class KOPrivacyHandler {
 public:
  static KOPrivacyHandler& sharedInstance();

  /// Changes the consent and does what the change asks: a grant sends what was held and lets the
  /// modules go on (the caller refreshes them when this returns true); a denial removes the SDK's
  /// geofences and either discards the events held (always, when consent was pending) or sends
  /// them first in one last sync that tells the service of the denial.
  bool setTrackingConsent(KOTrackingConsent consent, KOPendingData pendingData);
  KOTrackingConsent trackingConsent();
  /// A start of the SDK: the stored consent is read again; a denied install keeps no events
  /// (a last sync the process did not live to finish left some).
  void launched();

  /// Removes every file, preference, app-group entry and keychain item of the SDK's footprint
  /// (KOSDKFootprint), after stopping its region monitoring, its timers and its requests. The
  /// SDK then stays stopped until the app's next launch, which finds a fresh install.
  void wipeData(const KOWipeOptions& options);

  /// What the device keeps about the user, one entry per kind (KOExportEntry): consent,
  /// identifiers, attributes, events not yet accepted, inbox, in-app statistics, push, geofences
  /// watched, the app group's copy of the parameters.
  KOValue exportUserData();
  /// The same as JSON: dates as seconds since 1970, data as hexadecimal text.
  std::string exportUserDataJSON();

 private:
  KOPrivacyHandler() = default;
  /// The user said no: the held events go, the SDK's regions go, the app group's copy goes.
  void optOutLocked();
  /// The denial's last sync ended.
  void lastSyncEnded(std::uint64_t closing);
  void grantedLocked();

  std::mutex mutex_;
  std::uint64_t closing_ = 0;  // numbers the denials' last syncs; a later change voids one running
};
