// The user's say over what the SDK collects: whether it may track (kept across launches), what
// becomes of the data held on the device when the user says no, and the options of a wipe.
#pragma once

/// Whether the SDK may record and send. Kept in the SDK's preference "KO_TRACKING_CONSENT".
enum class KOTrackingConsent : int {
  /// Events and attributes are recorded and sent (an install where the app never chose is granted,
  /// unless the app asks first: Kovantis::setDefaultTrackingConsent).
  Granted = 0,
  /// An opt-out: nothing is recorded, nothing leaves the device, the SDK's geofences are removed
  /// and no in-app message shows.
  Denied = 1,
  /// The app has not asked yet: events and attributes are recorded but nothing is sent. Granting
  /// sends what was held; denying discards it.
  Pending = 2,
};

/// What becomes of the events held on the device when consent goes from granted to denied.
enum class KOPendingData : int {
  /// Sent first, in one last sync whose reports tell the service of the denial; whatever it did
  /// not accept is then discarded.
  Send = 0,
  /// Discarded at once.
  Discard = 1,
};

/// The options of Kovantis::wipeData().
struct KOWipeOptions {
  /// Keeps the keychain's persistent device id, so that the service knows the device again when
  /// the app starts anew; off by default (the wipe leaves nothing).
  bool keepPersistentDeviceId = false;
};
