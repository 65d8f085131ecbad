#include "KODeviceHandler.h"

#include <string>
#include <utility>

#include "KOEventsHandler.h"
#include "KOUserAttributesHandler.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOKeychain.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOPlatform.h"

namespace {

bool emptyText(const KOValue& v) { return !v.isString() || v.stringValue().empty(); }

// Set by a first start that could not read the keychain: the reinstall check is still owed.
constexpr const char* kReinstallCheckPending = "KO_reinstallCheckPending";

KOPreferenceStore& prefs() { return KOPlatform::current().preferences->standard(); }

}  // namespace

KODeviceHandler& KODeviceHandler::sharedInstance() {
  static auto* instance = new KODeviceHandler();
  return *instance;
}

void KODeviceHandler::setDeviceAttribute(const KOValue& value, const KOValue& forKey) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@", [&] {
    std::optional<KODictionary> attributes = KOUserAttributesHandler::attributeEntry(value, forKey);
    if (attributes) {
      KOEventsHandler::sharedInstance().trackEvent(KOValue(EVENT_ACTION_DEVICE_ATTRIBUTE),
                                                   KOValue(std::move(*attributes)));
    }
  });
}

void KODeviceHandler::setModelDeviceAttribute() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@", [&] {
    setDeviceAttribute(KOValue(KovantisUtils::getDeviceModel()), KOValue("device_model"));
    setDeviceAttribute(KOValue(KovantisUtils::getIdentifierForVendor()), KOValue("device_IDFV"));
    setDeviceAttribute(KOValue(KovantisUtils::getDeviceSystemVersion()), KOValue("os_version"));
  });
}

void KODeviceHandler::addDeviceWithCompletion(std::function<void(bool)> completion) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception in device add call %@", [&] {
    if (emptyText(KovantisUtils::getAppId())) {
      KOLogger::logPlain("Kovantis - Please initialze the app with the api key in did finish launching");
      return;
    }
    if (KovantisUtils::isUserRegisteredForV2()) {
      KOLogger::logPlain("Kovantis - could not register for push");
      return;
    }
    // Registered once consent is granted: a refused call would count as registered.
    if (!KOConsentGate::shared().mayCallService()) return;
    KOServerInterface::sharedInstance().initializeWith({}, [this, completion](bool) {
      try {
        // Registered whatever the answer: the service adds the device again from any later call.
        setModelDeviceAttribute();
        prefs().setObject(KOValue(true), KO_REGISTER_V2);
        prefs().synchronize();
        KOLogger::logPlain("Kovantis - registered for push");
        if (completion) completion(true);
      } catch (const std::exception& e) {
        KOLogger::logException(KO_HERE, this, "Kovantis - Exception in device add call %@", e);
      }
    });
  });
}

void KODeviceHandler::registerNewUser() {
  addDeviceWithCompletion([this](bool registered) {
    try {
      const KOValue advertisingId = KovantisUtils::getSavedAdvertisingID();
      if (registered && !advertisingId.isAbsent()) {
        KOUserAttributesHandler::sharedInstance().trackUserAttribute(advertisingId, KOValue(KO_ADVERTISING_IDENTIFIER));
        setDeviceAttribute(advertisingId, KOValue(KO_ADVERTISING_IDENTIFIER));
      }
    } catch (const std::exception& e) {
      KOLogger::logException(KO_HERE, this, "Kovantis - exception : %@", e);
    }
  });
}

void KODeviceHandler::checkKeychainForReinstall() {
  bool unreadable = false;
  const std::string service =
      KOStringFormat::format("%@.%@", {KOValue(KO_KEYCHAIN_SERVICE), KovantisUtils::bundleIdentifier()});
  const std::string item = KOKeychain::keychainItem(service, &unreadable);
  if (unreadable) {
    KOLogger::logPlain("Kovantis - The keychain could not be read; the reinstall check waits for the next start");
    prefs().setObject(KOValue(true), kReinstallCheckPending);
    prefs().synchronize();
    return;
  }
  if (!prefs().objectForKey(kReinstallCheckPending).isNil()) {
    prefs().removeObjectForKey(kReinstallCheckPending);
    prefs().synchronize();
  }
  if (!item.empty()) KOEventsHandler::sharedInstance().trackEvent(KOValue("REINSTALL"), KOValue());
}

void KODeviceHandler::checkOwedReinstall() {
  if (!prefs().objectForKey(kReinstallCheckPending).isNil()) checkKeychainForReinstall();
}

void KODeviceHandler::queryForAdvertisingID() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@", [&] {
    if (!KOConsentGate::shared().mayRecord()) return;  // not even read while the user says no
    const KOValue advertisingId = KovantisUtils::advertiserID();
    if (advertisingId.isAbsent() || advertisingId == KovantisUtils::getSavedAdvertisingID()) return;
    KOUserAttributesHandler::sharedInstance().trackUserAttribute(advertisingId, KOValue(KO_ADVERTISING_IDENTIFIER));
    setDeviceAttribute(advertisingId, KOValue(KO_ADVERTISING_IDENTIFIER));
    KovantisUtils::saveAdvertisingID(advertisingId);
  });
}

void KODeviceHandler::trackLocale() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception while tracking Locale %@", [&] {
    const KOLocale& locale = *KOPlatform::current().locale;
    std::string country, language;
    const std::string identifier = locale.localeIdentifier();
    if (KovantisUtils::systemVersionAtLeast(10.0)) {
      country = locale.countryCode();
      language = locale.languageCode();
    } else {
      // Older systems: the codes come from the identifier's components.
      const auto separator = identifier.find_first_of("_-");
      language = identifier.substr(0, separator);
      if (separator != std::string::npos) country = identifier.substr(separator + 1);
    }
    const std::string countryName = locale.displayNameForCountry(country);
    const std::string languageName = locale.displayNameForLanguage(language);
    const std::string display = country.empty() ? languageName : languageName + " (" + countryName + ")";
    const std::pair<const char*, std::string> attributes[] = {
        {LOCALE_COUNTRY, country},   {LOCALE_COUNTRY_DISPLAY, countryName},
        {LOCALE_LANGUAGE, language}, {LOCALE_LANGUAGE_DISPLAY, languageName},
        {LOCALE_DISPLAY, display},   {LOCALE_IDENTIFIER, identifier}};
    KOUserAttributesHandler& handler = KOUserAttributesHandler::sharedInstance();
    for (const auto& [key, value] : attributes) {
      // Only a new or changed value goes out, as a device attribute too.
      if (handler.setUserAttribute(KOValue(value), KOValue(key))) setDeviceAttribute(KOValue(value), KOValue(key));
    }
  });
}
