// The device as the service knows it: its registration (once per user), and the device attributes
// the SDK reports by itself — model, vendor id, system version, advertising id and locale. Each is
// an "EVENT_ACTION_DEVICE_ATTRIBUTE" event; the advertising id and the locale are user attributes
// too, sent only when they changed.
#pragma once

#include <functional>

#include "kovantis/KOValue.h"

class KODeviceHandler {
 public:
  static KODeviceHandler& sharedInstance();

  /// Tracks {key: value} as a device attribute (nothing, and a log line, for a nil or odd value).
  void setDeviceAttribute(const KOValue& value, const KOValue& forKey);
  void setModelDeviceAttribute();
  /// Registers the device with the service unless it already is; the completion hears true once
  /// the device counts as registered.
  void addDeviceWithCompletion(std::function<void(bool)> completion);
  /// A new user: the device is registered again, then its advertising id is reported.
  void registerNewUser();
  /// The keychain outlives the app: an item from an earlier install means this start is a
  /// reinstall ("REINSTALL"). A keychain that cannot be read decides nothing; the check is owed.
  void checkKeychainForReinstall();
  /// Makes the check a start that could not read the keychain owes; nothing otherwise.
  void checkOwedReinstall();
  /// Reports the advertising id when it changed since the last report.
  void queryForAdvertisingID();
  /// Reports the locale's codes and display names that changed since the last report.
  void trackLocale();

 private:
  KODeviceHandler() = default;
};
