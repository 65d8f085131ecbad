#include "KovantisUtils.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "KOKeychain.h"
#include "KOLogger.h"
#include "KOStringFormat.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOValueHelpers.h"
#include "KovantisDateUtils.h"
#include "kovantis/KOConstants.h"

namespace {

const KOPlatform& platform() { return KOPlatform::current(); }

KOValue optionalString(const std::optional<std::string>& s) { return s ? KOValue(*s) : KOValue(); }

}  // namespace

void KovantisUtils::store(const char* key, const KOValue& value) {
  KOPreferenceStore& prefs = platform().preferences->standard();
  prefs.setObject(value, key);
  prefs.synchronize();
}

KOValue KovantisUtils::fetch(const char* key) { return platform().preferences->standard().objectForKey(key); }

// ------------------------------------------------------------------------------- app and device

KOValue KovantisUtils::versionId() { return optionalString(platform().appInfo->shortVersion()); }
KOValue KovantisUtils::bundleIdentifier() { return optionalString(platform().appInfo->bundleIdentifier()); }
std::string KovantisUtils::getDeviceModel() { return platform().deviceInfo->model(); }
std::string KovantisUtils::getDeviceName() { return platform().deviceInfo->name(); }
std::string KovantisUtils::getDeviceSystemVersion() { return platform().deviceInfo->systemVersion(); }

bool KovantisUtils::systemVersionAtLeast(double version) {
  return std::strtod(getDeviceSystemVersion().c_str(), nullptr) >= version;
}
std::string KovantisUtils::getDeviceLocalizedModel() { return platform().deviceInfo->localizedModel(); }

KOValue KovantisUtils::advertiserID() {
  const KOAdvertising& ads = *platform().advertising;
  if (!ads.isAvailable()) {
    KOLogger::logPlain("Kovantis - ADSupport Framework unavailable");
    return KOValue();
  }
  if (!ads.isAdvertisingTrackingEnabled()) {
    KOLogger::logPlain("Kovantis - Limited ad tracking. Can't track advertising identifier");
    return KOValue();
  }
  return KOValue(ads.advertisingIdentifier());
}

std::string KovantisUtils::getIdentifierForVendor() {
  const KOValue stored = fetch(KO_IDENTIFIER_FOR_VENDOR);
  if (stored.isString() && !stored.stringValue().empty()) return stored.stringValue();
  return saveIdentifierForVendor();
}

std::string KovantisUtils::saveIdentifierForVendor() {
  const std::string uuid = platform().deviceInfo->identifierForVendor();
  if (uuid.empty()) return std::string();  // nothing to pin yet; a later call tries again
  const std::string value = KOStringFormat::format("%@-%.0f", {KOValue(uuid), KOValue(KovantisDateUtils::now())});
  store(KO_IDENTIFIER_FOR_VENDOR, KOValue(value));
  return value;
}

std::string KovantisUtils::persistentDeviceId() {
  // Never destroyed: a sync still running on another thread while the process exits reads it.
  static auto* mutex = new std::mutex;
  static auto* cachedId = new std::string;
  std::string& cached = *cachedId;
  std::lock_guard<std::mutex> lock(*mutex);
  if (!cached.empty()) return cached;

  std::string id;
  if (const KOValue stored = getPersistentId(); stored.isString()) id = stored.stringValue();
  if (id.empty()) {
    // The keychain outlives the app: this is how the id survives an uninstall.
    const KOValue bundle = bundleIdentifier();
    const std::string service = KOStringFormat::format("%@.%@", {KOValue(KO_KEYCHAIN_SERVICE), bundle});
    bool unreadable = false;
    if (const KOValue kept = KOKeychain::load(service, &unreadable); kept.isString()) id = kept.stringValue();
    // An item that could not be read may hold the id: a new one would make this device another.
    // The id stays empty (uncached) and the next call looks again.
    if (id.empty() && !unreadable) {
      if (const KOValue made = KOKeychain::savePersistenceIDForService(service); made.isString())
        id = made.stringValue();
    }
  }
  if (!id.empty()) {
    savePersistenceId(KOValue(id));
    cached = id;
  }
  return id;
}

// ------------------------------------------------------------------------------------ settings

void KovantisUtils::saveAdvertisingID(const KOValue& advertisingID) {
  if (!advertisingID.isNil()) store(KO_ADVERTISING_ID, advertisingID);
}
KOValue KovantisUtils::getSavedAdvertisingID() { return fetch(KO_ADVERTISING_ID); }
void KovantisUtils::saveAppId(const KOValue& appId) { store(KO_APP_ID_KEY, appId); }
KOValue KovantisUtils::getAppId() { return fetch(KO_APP_ID_KEY); }
void KovantisUtils::saveDeviceToken(const KOValue& token) { store(KO_DEVICE_TOKEN_KEY, token); }
KOValue KovantisUtils::getDeviceToken() { return fetch(KO_DEVICE_TOKEN_KEY); }
void KovantisUtils::saveUniqueId(const KOValue& uniqueId) { store(KO_UNIQUE_SERVICE_ID_KEY, uniqueId); }
KOValue KovantisUtils::getUniqueId() { return fetch(KO_UNIQUE_SERVICE_ID_KEY); }

void KovantisUtils::savePersistenceId(const KOValue& persistentId) {
  if (persistentId.isAbsent() || (persistentId.isString() && persistentId.stringValue().empty())) {
    KOLogger::logPlain("Kovantis - Persistence ID is empty");
    return;
  }
  store(KO_PERSISTENT_ID_KEY, persistentId);
}
KOValue KovantisUtils::getPersistentId() { return fetch(KO_PERSISTENT_ID_KEY); }

void KovantisUtils::saveLastPushClickedDateTime(const KOValue& value) { store(KO_LAST_PUSH_TIME, value); }
KOValue KovantisUtils::getLastPushClickedTime() { return fetch(KO_LAST_PUSH_TIME); }
void KovantisUtils::saveLastInAppShowedTime(const KOValue& value) { store(KO_LAST_SHOWN_INAPP, value); }
KOValue KovantisUtils::getLastInAppShowedTime() { return fetch(KO_LAST_SHOWN_INAPP); }
void KovantisUtils::saveLastNudgeShowedTime(const KOValue& value) { store(KO_LAST_SHOWN_NUDGE, value); }
KOValue KovantisUtils::getLastNudgeShowedTime() { return fetch(KO_LAST_SHOWN_NUDGE); }
void KovantisUtils::saveLastUpdatedTimeForInApps(const KOValue& value) { store(KO_LAST_UPDATED_INAPP, value); }
KOValue KovantisUtils::getLastInUpdatedTimeForInApps() { return fetch(KO_LAST_UPDATED_INAPP); }
void KovantisUtils::saveLastUpdatedTimeForInbox(const KOValue& value) { store(KO_LAST_UPDATED_INBOX, value); }
KOValue KovantisUtils::getlastUpdatedTimeForInbox() { return fetch(KO_LAST_UPDATED_INBOX); }
void KovantisUtils::registerInstall() { store(KO_APP_INSTALL_KEY, KOValue(true)); }
bool KovantisUtils::installRegistered() { return !fetch(KO_APP_INSTALL_KEY).isNil(); }
bool KovantisUtils::isUserRegisteredForV2() { return !fetch(KO_REGISTER_V2).isNil(); }

// ---------------------------------------------------------------------------------------- time

// Both time strings are on every event record: made with to_chars, and the local one reused
// within the same second.
std::string KovantisUtils::getGMTtime() { return std::string(gmtTimeText(KovantisDateUtils::now())); }

std::string KovantisUtils::getLocalTime() { return std::string(localTimeText(KovantisDateUtils::now())); }

std::string_view KovantisUtils::gmtTimeText(double now) {
  const auto second = static_cast<long long>(std::floor(now));
  thread_local long long cachedSecond = LLONG_MIN;
  thread_local char cached[24];
  thread_local std::size_t cachedLength = 0;
  if (second != cachedSecond) {
    cachedLength = static_cast<std::size_t>(std::to_chars(cached, cached + sizeof cached, second).ptr - cached);
    cachedSecond = second;
  }
  return {cached, cachedLength};
}

std::string_view KovantisUtils::localTimeText(double now) {
  // Events come many to a second: the text (and the zone's offset, which a time-zone change
  // moves from the next second on) is made once per second and thread.
  const auto second = static_cast<std::int64_t>(std::floor(now));
  thread_local std::int64_t cachedSecond = INT64_MIN;
  thread_local char cached[64];
  thread_local std::size_t cachedLength = 0;
  if (second != cachedSecond) {
    const std::int64_t local = second + platform().locale->secondsFromGMT(now);
    const auto seconds = static_cast<std::time_t>(local);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char* p = cached;
    const int parts[] = {tm.tm_mday, tm.tm_mon + 1, tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec};
    for (std::size_t i = 0; i < 6; ++i) {
      if (i) *p++ = ':';
      p = std::to_chars(p, cached + sizeof cached, parts[i]).ptr;
    }
    cachedLength = static_cast<std::size_t>(p - cached);
    cachedSecond = second;
  }
  return {cached, cachedLength};
}

// ------------------------------------------------------------------------------------ payloads

KOValue KovantisUtils::hexTokenForData(const KOValue& data) {
  if (!data.isData()) return KOValue();
  static const char* digits = "0123456789abcdef";
  const auto& bytes = data.dataValue().bytes;
  const std::size_t n = bytes.size() < 32 ? bytes.size() : 32;
  std::string out;
  out.reserve(n * 2);
  for (std::size_t i = 0; i < n; ++i) {
    out += digits[bytes[i] >> 4];
    out += digits[bytes[i] & 15];
  }
  return KOValue(std::move(out));
}

namespace {

// Kinds the service cannot take as they are.
bool needsTransform(KOValue::Kind kind) {
  switch (kind) {
    case KOValue::Kind::Data:
    case KOValue::Kind::URL:
    case KOValue::Kind::Null:
    case KOValue::Kind::Date:
    case KOValue::Kind::Dictionary:
    case KOValue::Kind::Nil:
      return true;
    default:
      return false;
  }
}

}  // namespace

bool KovantisUtils::kindNeedsTransform(KOValue::Kind kind) { return needsTransform(kind); }

bool KovantisUtils::payloadNeedsTransform(const KODictionary& payload) {
  return std::any_of(payload.begin(), payload.end(),
                     [](const auto& entry) { return needsTransform(entry.second.kind()); });
}

KODictionary KovantisUtils::transformPayloadForIncompatibleTypes(const KODictionary& payload) {
  KODictionary out;
  try {
    out.reserve(payload.size());
    for (const auto& [key, value] : payload) {
      switch (value.kind()) {
        case KOValue::Kind::Data:
          out.set(key, hexTokenForData(value));
          break;
        case KOValue::Kind::URL:
          out.set(key, KOValue(value.urlValue().absoluteString));
          break;
        case KOValue::Kind::Nil:
        case KOValue::Kind::Null:
          out.set(key, KOValue(std::string()));
          break;
        case KOValue::Kind::Dictionary:
          out.set(key, KOValue(transformPayloadForIncompatibleTypes(value.dictionaryValue())));
          break;
        case KOValue::Kind::Date:
          out.set(key, KOValue(value.dateValue().secondsSince1970));
          break;
        default:
          out.set(key, value);
          break;
      }
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - error while transforming data is %@", e);
  }
  return out;
}

// ------------------------------------------------------------------------------ screen and text

double KovantisUtils::screenWidth() { return platform().deviceInfo->screenSize().width; }
double KovantisUtils::screenHeight() { return platform().deviceInfo->screenSize().height; }
double KovantisUtils::screenWidthForInApp() { return std::fmin(screenWidth(), 414.0); }
double KovantisUtils::screenHeightForInApp() { return std::fmin(screenHeight(), 736.0); }

namespace {
KOFont fontOrSystem(const KOFont* font) {
  if (font) return *font;
  return KOFont{"", KOPlatform::current().userInterface->systemFontSize()};
}
}  // namespace

KOSize KovantisUtils::findSizeForText(const std::string& text, const KOFont* font) {
  return platform().userInterface->sizeOfText(text, fontOrSystem(font));
}

double KovantisUtils::findHeightForText(const std::string& text, double havingWidth, const KOFont* font) {
  return platform().userInterface->heightOfText(text, havingWidth, fontOrSystem(font));
}

KOSize KovantisUtils::getOptmisedImageSizeFromImage(const KOImage& image, double forWidth) {
  if (image.size.width <= 0) return KOSize{forWidth, 0};
  return KOSize{forWidth, image.size.height * (forWidth / image.size.width)};
}

KOValue KovantisUtils::getValueFromWidget(const KOView* view) {
  if (!view) return KOValue();
  switch (view->kind) {
    case KOWidgetKind::StarRating:
    case KOWidgetKind::Slider:
      return KOValue(static_cast<double>(static_cast<float>(view->numericValue)));
    case KOWidgetKind::TextField:
    case KOWidgetKind::TextView:
      return KOValue(view->text);
    case KOWidgetKind::Switch:
      return KOValue(view->isOn);
    case KOWidgetKind::Other:
      break;
  }
  return KOValue();
}

std::shared_ptr<KOViewController> KovantisUtils::getTopViewController() {
  const KOApplication& app = *platform().application;
  std::shared_ptr<KOViewController> top = app.keyWindowRootViewController();
  if (!top) top = app.delegateWindowRootViewController();
  // Bounded walk: a presentation cycle in a broken screen tree must not hang the SDK.
  for (int depth = 0; top && depth < 64; ++depth) {
    const auto& presented = top->presented;
    if (!presented || presented->kind == KOViewControllerKind::Alert) break;
    top = presented;
  }
  return top;
}

std::shared_ptr<KOViewController> KovantisUtils::getTopViewControllerForNudges() {
  std::shared_ptr<KOViewController> top = getTopViewController();
  if (!top) return top;
  if (top->kind == KOViewControllerKind::Navigation) return top->topViewController();
  if (top->kind == KOViewControllerKind::TabBar) {
    std::shared_ptr<KOViewController> selected = top->selectedViewController();
    if (selected && selected->kind == KOViewControllerKind::Navigation) return selected->topViewController();
    return selected;
  }
  return top;
}

std::string KovantisUtils::helveticaFont() { return "HelveticaNeue"; }

std::string KovantisUtils::getDocumentsDirectoryPath() { return platform().fileSystem->documentsDirectory(); }

KOColor KovantisUtils::getColorFromHexValue(const KOValue& hex) {
  if (!hex.isString() || hex.stringValue().empty()) return KOColor{0, 0, 0, 1};
  // The first character is skipped whatever it is: the value is expected as "#RRGGBB".
  std::string_view digits = std::string_view(hex.stringValue()).substr(1);
  while (!digits.empty() && (digits.front() == ' ' || digits.front() == '\t')) digits.remove_prefix(1);
  if (digits.size() >= 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits.remove_prefix(2);
  std::uint32_t rgb = 0;
  const auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), rgb, 16);
  (void)ptr;
  if (ec == std::errc::result_out_of_range) rgb = 0xFFFFFFFFu;
  return KOColor{((rgb >> 16) & 0xFF) / 255.0, ((rgb >> 8) & 0xFF) / 255.0, (rgb & 0xFF) / 255.0, 1.0};
}

void KovantisUtils::openShareSheetWithContentToShare(const KOArray& items) {
  static const std::vector<std::string> excluded{
      "com.apple.UIKit.activity.AirDrop",          "com.apple.UIKit.activity.Print",
      "com.apple.UIKit.activity.AssignToContact",  "com.apple.UIKit.activity.SaveToCameraRoll",
      "com.apple.UIKit.activity.AddToReadingList", "com.apple.UIKit.activity.PostToFlickr",
      "com.apple.UIKit.activity.PostToVimeo"};
  const std::shared_ptr<KOViewController> presenter = getTopViewControllerForNudges();
  std::optional<KORect> anchor;
  if (platform().deviceInfo->idiom() == KOUserInterfaceIdiom::Pad) {
    anchor = KORect{screenWidth() / 2, screenHeight() / 2, 0, 0};
  }
  platform().userInterface->presentShareSheet(items, excluded, presenter.get(), anchor);
}

void KovantisUtils::showAlertViewWithMessage(const std::string& message, const std::string& andTitle) {
  try {
    KOUserInterface& ui = *platform().userInterface;
    if (ui.supportsAlertController()) {
      const std::shared_ptr<KOViewController> presenter = getTopViewController();
      ui.presentAlert(andTitle, message, {KOAlertAction{"OK", KOAlertActionStyle::Default, [] {}}}, presenter.get());
    } else {
      ui.presentAlert(andTitle, message, {KOAlertAction{"OK", KOAlertActionStyle::Cancel, nullptr}}, nullptr);
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
  }
}

bool KovantisUtils::checkIfString(std::string_view string, std::string_view containsString) {
  return !containsString.empty() && string.find(containsString) != std::string_view::npos;
}
