#include "KOUserAttributesHandler.h"

#include "KOEventsHandler.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOSDKNotifications.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"
#include "kovantis/KOPayloadBuilder.h"
#include "kovantis/KOPlatform.h"

namespace {

constexpr const char* kCacheFileName = "KovantisUserAttributes.plist";

}  // namespace

KOUserAttributesHandler& KOUserAttributesHandler::sharedInstance() {
  static auto* instance = new KOUserAttributesHandler();
  return *instance;
}

KOUserAttributesHandler::KOUserAttributesHandler() {
  // Lives as long as the process: the subscription is never removed.
  KONotificationCenter::defaultCenter().addObserver(KOUserDataResetNotification,
                                                    [](const KONotification&) { cleanUpUserData(); });
}

std::string KOUserAttributesHandler::userAttributePlistFilePath() const {
  return KOPropertyListFile::documentsPath(kCacheFileName);
}

bool KOUserAttributesHandler::checkIfUserAttributePlistExists() const {
  return KOPlatform::current().fileSystem->fileExists(userAttributePlistFilePath());
}

KOValue KOUserAttributesHandler::contentOfUserAttributePlist() const {
  try {
    return KOPropertyListFile::read(userAttributePlistFilePath());
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
    return KOValue();
  }
}

bool KOUserAttributesHandler::createUserAttributePlistFileWithContent(const KODictionary& content) {
  return KOPropertyListFile::write(userAttributePlistFilePath(), KOValue(content));
}

void KOUserAttributesHandler::userAttributeRemovePlistFile() {
  if (!KOPlatform::current().fileSystem->removeItem(userAttributePlistFilePath())) {
    KOLogger::logPlain("Kovantis - error while removing dat file");
  }
}

bool KOUserAttributesHandler::doesUserAttributeExistsWithKey(const KOValue& key, const KOValue& andValue) {
  try {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::string text = keyText(key);
    KOValue cached = contentOfUserAttributePlist();
    KODictionary cache = cached.isDictionary() ? std::move(cached.dictionaryValue()) : KODictionary{};
    if (safeObjectForKey(cache, text) == andValue) return true;
    // Cached before the event is tracked: if tracking then fails, the value still counts as sent.
    cache.set(text, andValue);
    createUserAttributePlistFileWithContent(cache);
    return false;
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
    return false;
  }
}

std::optional<KODictionary> KOUserAttributesHandler::attributeEntry(const KOValue& value, const KOValue& forKey) {
  if (value.isNil()) {
    KOLogger::logPlain(KOStringFormat::format("Kovantis - Tried setting nil user attribute for key %@", {forKey}));
    return std::nullopt;
  }
  if (!value.isString() && !value.isNumber()) {
    KOLogger::logPlain("Kovantis - The attribue value should be either of string, integer or bool");
    return std::nullopt;
  }
  KODictionary entry;
  entry.set(keyText(forKey), value);
  return entry;
}

bool KOUserAttributesHandler::setUserAttribute(const KOValue& value, const KOValue& forKey) {
  try {
    if (forKey.isNil()) return false;
    std::optional<KODictionary> attributes = attributeEntry(value, forKey);
    if (!attributes || doesUserAttributeExistsWithKey(forKey, value)) return false;
    KOEventsHandler::sharedInstance().trackEvent(KOValue(EVENT_ACTION_USER_ATTRIBUTE), KOValue(std::move(*attributes)));
    return true;
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - exception : %@", e);
    return false;
  }
}

void KOUserAttributesHandler::setUserAttributeTimestamp(double timeStamp, const KOValue& forKey) {
  KOPayloadBuilder builder;
  KODictionary entry;
  entry.set(keyText(forKey), KOValue(timeStamp * 1000.0));
  builder.timeStampArray().push_back(KOValue(std::move(entry)));
  KOEventsHandler::sharedInstance().trackEvent(KOValue(EVENT_ACTION_USER_ATTRIBUTE), builder);
}

void KOUserAttributesHandler::setUserAttributeLocationLatitude(double latitude, double longitude,
                                                               const KOValue& forKey) {
  KOPayloadBuilder builder;
  KODictionary entry;
  entry.set(keyText(forKey), KOValue(KOStringFormat::format("%f,%f", {KOValue(latitude), KOValue(longitude)})));
  builder.locationArray().push_back(KOValue(std::move(entry)));
  KOEventsHandler::sharedInstance().trackEvent(KOValue(EVENT_ACTION_USER_ATTRIBUTE), builder);
}

void KOUserAttributesHandler::cleanUpUserData() {
  try {
    KOPreferenceStore& prefs = KOPlatform::current().preferences->standard();
    for (const char* key : {KO_IDENTIFIER_FOR_VENDOR, KO_LAST_UPDATED_INBOX, KO_LAST_UPDATED_INAPP, KO_LAST_SHOWN_INAPP,
                            KO_LAST_PUSH_TIME, KO_REGISTER_V2}) {
      prefs.removeObjectForKey(key);
    }
    prefs.synchronize();
    KOUserAttributesHandler& handler = sharedInstance();
    std::lock_guard<std::mutex> lock(handler.mutex_);
    handler.userAttributeRemovePlistFile();
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
  }
}
