// Everything of the SDK's that outlives the process, in one table: the files in the documents
// directory, the preference keys, the app-group keys and the keychain items. The wipe removes what
// the table lists, the export reads what of it is personal, and the tests hold both to it: a new
// file or key of the SDK's that is missing here survives a wipe, and the wipe test fails on it.
#pragma once

#include <span>
#include <string>

// The entries of the export.
namespace KOExportEntry {
inline constexpr const char* kConsent = "consent";
inline constexpr const char* kIdentifiers = "identifiers";
inline constexpr const char* kAttributes = "attributes";
inline constexpr const char* kEvents = "events";
inline constexpr const char* kInbox = "inbox";
inline constexpr const char* kInAppStatistics = "inAppStatistics";
inline constexpr const char* kPush = "push";
inline constexpr const char* kGeofences = "geofences";
inline constexpr const char* kAppGroup = "appGroup";
}  // namespace KOExportEntry

enum class KOFootprintKind {
  DocumentsFile,       // a file in the documents directory; its temporaries and set-aside copies
                       // (whose names start with it) go with it
  DocumentsDirectory,  // a directory in the documents directory, with everything in it
  Preference,          // a key of the standard preference store
  AppGroupPreference,  // a key of the app group's store (the group the app set)
  KeychainItem,        // a generic-password item of this service ("." and the bundle id appended)
};

struct KOFootprintItem {
  KOFootprintKind kind;
  const char* name;
  /// The entry of the export (exportUserData) that holds what it keeps about the user; nullptr
  /// when it holds nothing personal.
  const char* exportedAs;
  /// What it holds: for one that holds nothing personal, why.
  const char* holds;
};

class KOSDKFootprint {
 public:
  static std::span<const KOFootprintItem> items();
  /// The keychain service of an item, for this app: "<name>.<bundle id>".
  static std::string keychainService(const KOFootprintItem& item);
  /// Whether a file name of the documents directory belongs to the item (DocumentsFile: starts
  /// with its name; DocumentsDirectory: is its name).
  static bool owns(const KOFootprintItem& item, const std::string& fileName);
};
