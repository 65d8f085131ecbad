// Who the simulated device is: the app bundle, the hardware and system, the advertising framework,
// the locale and time zone. Every fact can be changed while the device runs.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "kovantis/KOPlatform.h"

struct KOSimProfileSettings {
  // Application bundle.
  std::string bundleIdentifier = "com.kovantis.demo";
  std::string shortVersion = "1.0.0";
  std::string buildVersion = "1";
  // Device and system.
  std::string model = "iPhone";
  std::string name = "Kovantis Simulated iPhone";
  std::string systemName = "iOS";
  std::string systemVersion = "17.4";
  std::string localizedModel = "iPhone";
  KOUserInterfaceIdiom idiom = KOUserInterfaceIdiom::Phone;
  KOSize screenSize{390, 844};
  double screenScale = 3;
  /// False: the platform has no vendor id to give (as early in a boot).
  bool vendorIdAvailable = true;
  // Advertising framework.
  bool advertisingAvailable = true;
  bool advertisingTrackingEnabled = true;
  std::string advertisingIdentifier = "6D92078A-8246-4BA4-AE5B-76104861E7DC";
  // Locale and time zone.
  std::string localeIdentifier = "en_US";
  std::string timeZoneName = "UTC";
  std::int64_t secondsFromGMT = 0;
};

class KOSimDeviceProfile : public KOAppInfo, public KODeviceInfo, public KOAdvertising, public KOLocale {
 public:
  /// vendorIdFile: where the per-install vendor id is kept (it is made on first use).
  KOSimDeviceProfile(KOFileSystem& fs, std::string vendorIdFile, KOSimProfileSettings settings);

  void update(const std::function<void(KOSimProfileSettings&)>& change);
  KOSimProfileSettings settings() const;
  /// Forgets the vendor id, as the platform does when the vendor's last app is removed.
  void resetVendorId();

  // KOAppInfo
  std::optional<std::string> shortVersion() const override;
  std::optional<std::string> buildVersion() const override;
  std::optional<std::string> bundleIdentifier() const override;
  KODictionary infoDictionary() const override;
  // KODeviceInfo
  std::string identifierForVendor() const override;
  std::string model() const override;
  std::string name() const override;
  std::string systemName() const override;
  std::string systemVersion() const override;
  std::string localizedModel() const override;
  KOUserInterfaceIdiom idiom() const override;
  KOSize screenSize() const override;
  double screenScale() const override;
  // KOAdvertising
  bool isAvailable() const override;
  bool isAdvertisingTrackingEnabled() const override;
  std::string advertisingIdentifier() const override;
  // KOLocale
  std::string localeIdentifier() const override;
  std::string languageCode() const override;
  std::string countryCode() const override;
  std::string displayNameForLanguage(const std::string& code) const override;
  std::string displayNameForCountry(const std::string& code) const override;
  std::string timeZoneName() const override;
  std::int64_t secondsFromGMT(double atSecondsSince1970) const override;

  /// A random upper-case UUID.
  static std::string makeUUID();

 private:
  KOFileSystem& fs_;
  std::string vendorIdFile_;
  mutable std::mutex mutex_;
  KOSimProfileSettings settings_;
};
