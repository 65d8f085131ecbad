#include "KOSimDeviceProfile.h"

#include <cstdio>
#include <map>
#include <random>

#include "KOSimFiles.h"

KOSimDeviceProfile::KOSimDeviceProfile(KOFileSystem& fs, std::string vendorIdFile, KOSimProfileSettings settings)
    : fs_(fs), vendorIdFile_(std::move(vendorIdFile)), settings_(std::move(settings)) {}

void KOSimDeviceProfile::update(const std::function<void(KOSimProfileSettings&)>& change) {
  std::lock_guard<std::mutex> lock(mutex_);
  change(settings_);
}

KOSimProfileSettings KOSimDeviceProfile::settings() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return settings_;
}

std::string KOSimDeviceProfile::makeUUID() {
  // Fresh entropy on every call: a forked process must not repeat its parent's identifiers.
  std::random_device entropy;
  std::uint64_t hi = (static_cast<std::uint64_t>(entropy()) << 32) | entropy();
  std::uint64_t lo = (static_cast<std::uint64_t>(entropy()) << 32) | entropy();
  hi = (hi & 0xFFFFFFFFFFFF0FFFULL) | 0x0000000000004000ULL;  // version 4
  lo = (lo & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL;  // variant 1
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(hi >> 32),
                static_cast<unsigned>((hi >> 16) & 0xFFFF), static_cast<unsigned>(hi & 0xFFFF),
                static_cast<unsigned>(lo >> 48), static_cast<unsigned long long>(lo & 0xFFFFFFFFFFFFULL));
  return buf;
}

void KOSimDeviceProfile::resetVendorId() {
  std::lock_guard<std::mutex> lock(mutex_);
  fs_.removeItem(vendorIdFile_);
}

std::string KOSimDeviceProfile::identifierForVendor() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!settings_.vendorIdAvailable) return "";
  if (auto stored = fs_.readFile(vendorIdFile_); stored && stored->size() == 36) return *stored;
  const std::string id = makeUUID();
  KOSimFiles::writeWhole(fs_, vendorIdFile_, id);
  return id;
}

#define KO_SETTING(Type, getter, field)       \
  Type KOSimDeviceProfile::getter() const {   \
    std::lock_guard<std::mutex> lock(mutex_); \
    return settings_.field;                   \
  }
KO_SETTING(std::optional<std::string>, shortVersion, shortVersion)
KO_SETTING(std::optional<std::string>, buildVersion, buildVersion)
KO_SETTING(std::optional<std::string>, bundleIdentifier, bundleIdentifier)
KO_SETTING(std::string, model, model)
KO_SETTING(std::string, name, name)
KO_SETTING(std::string, systemName, systemName)
KO_SETTING(std::string, systemVersion, systemVersion)
KO_SETTING(std::string, localizedModel, localizedModel)
KO_SETTING(KOUserInterfaceIdiom, idiom, idiom)
KO_SETTING(KOSize, screenSize, screenSize)
KO_SETTING(double, screenScale, screenScale)
KO_SETTING(bool, isAvailable, advertisingAvailable)
KO_SETTING(bool, isAdvertisingTrackingEnabled, advertisingTrackingEnabled)
KO_SETTING(std::string, advertisingIdentifier, advertisingIdentifier)
KO_SETTING(std::string, localeIdentifier, localeIdentifier)
KO_SETTING(std::string, timeZoneName, timeZoneName)
#undef KO_SETTING

KODictionary KOSimDeviceProfile::infoDictionary() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return KODictionary{{"CFBundleIdentifier", settings_.bundleIdentifier},
                      {"CFBundleShortVersionString", settings_.shortVersion},
                      {"CFBundleVersion", settings_.buildVersion}};
}

std::string KOSimDeviceProfile::languageCode() const {
  const std::string id = localeIdentifier();
  return id.substr(0, id.find_first_of("_-"));
}

std::string KOSimDeviceProfile::countryCode() const {
  const std::string id = localeIdentifier();
  const auto sep = id.find_first_of("_-");
  return sep == std::string::npos ? std::string() : id.substr(sep + 1);
}

// A small English name table stands in for the platform's locale database.
std::string KOSimDeviceProfile::displayNameForLanguage(const std::string& code) const {
  static const std::map<std::string, std::string> names{
      {"en", "English"},  {"hi", "Hindi"},   {"fr", "French"}, {"de", "German"},     {"es", "Spanish"},
      {"ja", "Japanese"}, {"zh", "Chinese"}, {"ar", "Arabic"}, {"pt", "Portuguese"}, {"ta", "Tamil"}};
  const auto it = names.find(code);
  return it == names.end() ? code : it->second;
}

std::string KOSimDeviceProfile::displayNameForCountry(const std::string& code) const {
  static const std::map<std::string, std::string> names{
      {"US", "United States"}, {"IN", "India"}, {"GB", "United Kingdom"},       {"FR", "France"},
      {"DE", "Germany"},       {"JP", "Japan"}, {"AE", "United Arab Emirates"}, {"BR", "Brazil"}};
  const auto it = names.find(code);
  return it == names.end() ? code : it->second;
}

std::int64_t KOSimDeviceProfile::secondsFromGMT(double) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return settings_.secondsFromGMT;
}
