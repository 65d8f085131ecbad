// The bottom layer of the SDK: small persisted settings in the standard preference store, device
// identifiers and time stamps, and screen, text, colour and screen-stack helpers. Class-level only.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "kovantis/KOPlatform.h"
#include "kovantis/KOValue.h"

class KovantisUtils {
 public:
  // App and device facts.
  static KOValue versionId();
  static KOValue bundleIdentifier();
  /// The advertising identifier; nil when the framework is missing or tracking is limited.
  static KOValue advertiserID();
  static std::string getDeviceModel();
  static std::string getDeviceName();
  static std::string getDeviceSystemVersion();
  /// Whether the system's version, read as major.minor, is at least `version` ("10.3.1" >= 10.0).
  static bool systemVersionAtLeast(double version);
  static std::string getDeviceLocalizedModel();

  // Vendor id: made once per install ("<UUID>-<seconds>") and never refreshed.
  static std::string getIdentifierForVendor();
  static std::string saveIdentifierForVendor();
  /// The persistent device id ("P-..."), kept in the keychain across reinstalls and cached for
  /// the life of the process; "" when none can be made, or while the keychain cannot be read.
  static std::string persistentDeviceId();

  // Stored settings. Getters return the stored object or nil; setters store what they get.
  static void saveAdvertisingID(const KOValue& advertisingID);
  static KOValue getSavedAdvertisingID();
  static void saveAppId(const KOValue& appId);
  static KOValue getAppId();
  static void saveDeviceToken(const KOValue& token);
  static KOValue getDeviceToken();
  static void saveUniqueId(const KOValue& uniqueId);
  static KOValue getUniqueId();
  /// Refuses an empty id with a log line.
  static void savePersistenceId(const KOValue& persistentId);
  static KOValue getPersistentId();
  static void saveLastPushClickedDateTime(const KOValue& value);
  static KOValue getLastPushClickedTime();
  static void saveLastInAppShowedTime(const KOValue& value);
  static KOValue getLastInAppShowedTime();
  static void saveLastNudgeShowedTime(const KOValue& value);
  static KOValue getLastNudgeShowedTime();
  static void saveLastUpdatedTimeForInApps(const KOValue& value);
  static KOValue getLastInUpdatedTimeForInApps();
  static void saveLastUpdatedTimeForInbox(const KOValue& value);
  static KOValue getlastUpdatedTimeForInbox();
  static void registerInstall();
  static bool installRegistered();
  static bool isUserRegisteredForV2();

  // Time strings.
  /// Whole seconds since 1970.
  static std::string getGMTtime();
  /// Local "day:month:year:hour:minute:second" without zero padding.
  static std::string getLocalTime();
  /// Both of them for one moment (an event record's times come from one clock read). The text
  /// stays valid on this thread until the next call.
  static std::string_view gmtTimeText(double now);
  static std::string_view localTimeText(double now);

  // Payloads.
  /// 64 lower-case hex digits of the first 32 bytes (fewer when the data is shorter); nil for no data.
  static KOValue hexTokenForData(const KOValue& data);
  /// Makes an attribute dictionary storable as JSON: data to hex, URL to text, null to "", date to
  /// seconds, dictionaries recursively. Arrays are left as they are.
  static KODictionary transformPayloadForIncompatibleTypes(const KODictionary& payload);
  /// Whether the transformation would change anything (the common payload needs none).
  static bool payloadNeedsTransform(const KODictionary& payload);
  /// Whether a value of this kind is changed by the transform (the service cannot take it as is).
  static bool kindNeedsTransform(KOValue::Kind kind);

  // Screen and text.
  static double screenWidth();
  static double screenHeight();
  /// Capped at 414 points, the widest phone layout in-app campaigns are designed for.
  static double screenWidthForInApp();
  /// Capped at 736 points.
  static double screenHeightForInApp();
  /// Size of the text on one line; the system font of the system size when font is null.
  static KOSize findSizeForText(const std::string& text, const KOFont* font);
  static double findHeightForText(const std::string& text, double havingWidth, const KOFont* font);
  static KOSize getOptmisedImageSizeFromImage(const KOImage& image, double forWidth);
  /// The value of an input widget, or nil for any other view.
  static KOValue getValueFromWidget(const KOView* view);
  static std::shared_ptr<KOViewController> getTopViewController();
  static std::shared_ptr<KOViewController> getTopViewControllerForNudges();
  static std::string helveticaFont();
  static std::string getDocumentsDirectoryPath();
  /// "#RRGGBB" to a colour; black for empty or nil.
  static KOColor getColorFromHexValue(const KOValue& hex);
  static void openShareSheetWithContentToShare(const KOArray& items);
  static void showAlertViewWithMessage(const std::string& message, const std::string& andTitle);
  static bool checkIfString(std::string_view string, std::string_view containsString);

 private:
  static void store(const char* key, const KOValue& value);
  static KOValue fetch(const char* key);
};
