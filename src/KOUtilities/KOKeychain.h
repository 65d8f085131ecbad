// The keychain wrapper that keeps the persistent device id beyond an uninstall of the app.
#pragma once

#include <string>

#include "kovantis/KOValue.h"

class KOKeychain {
 public:
  /// The generic-password item for the service: service and account are both the service string.
  static KODictionary getKeychainQuery(const std::string& service);
  /// Replaces the item with the archived object.
  static void save(const std::string& service, const KOValue& data);
  /// The archived object, or nil when there is none or it cannot be unarchived. `unreadable`, when
  /// given, tells a nil that may hide an item (the keychain could not be read) from a missing one;
  /// an archive that cannot be unarchived counts as missing, as it will never read better.
  static KOValue load(const std::string& service, bool* unreadable = nullptr);
  static void remove(const std::string& service);
  /// The stored object when it is a string, else "".
  static std::string keychainItem(const std::string& service, bool* unreadable = nullptr);
  /// Makes "P-<vendor id>", stores it under the service and returns it; nil without a vendor id.
  static KOValue savePersistenceIDForService(const std::string& service);
};
