#include "KOUserAttributesHandler.h"

#include <algorithm>
#include <cerrno>

#include "KOEventsHandler.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOPropertyListSerialization.h"
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
  {
    std::lock_guard<std::mutex> lock(mutex_);
    cache_ = content;
  }
  std::lock_guard<std::mutex> writing(fileMutex_);
  return KOPropertyListFile::write(userAttributePlistFilePath(), KOValue(content));
}

void KOUserAttributesHandler::userAttributeRemovePlistFile() {
  if (!KOPlatform::current().fileSystem->removeItem(userAttributePlistFilePath())) {
    KOLogger::logPlain("Kovantis - error while removing dat file");
  }
}

KODictionary& KOUserAttributesHandler::cacheLocked() {
  if (cache_) return *cache_;
  cache_.emplace();
  KOFileSystem& fs = *KOPlatform::current().fileSystem;
  const std::string path = userAttributePlistFilePath();
  const std::string directory = fs.documentsDirectory();
  const std::string temporaryPrefix = std::string(kCacheFileName) + ".tmp-";
  for (const std::string& name : fs.listDirectory(directory)) {
    if (name.rfind(temporaryPrefix, 0) == 0) fs.removeItem(directory + "/" + name);  // left by a crash
  }
  KOFileError error;
  std::optional<std::string> bytes;
  for (int attempt = 0; attempt < 3 && !bytes; ++attempt) {
    bytes = fs.readFile(path, &error);
    if (!bytes && error.code == ENOENT) return *cache_;
  }
  std::string problem;
  if (!bytes) {
    problem = error.message;
  } else {
    try {
      KOValue stored = KOPropertyListSerialization::parse(*bytes);
      if (stored.isDictionary()) {
        cache_ = std::move(stored.dictionaryValue());
        return *cache_;
      }
      problem = std::string("a ") + KOValue::kindName(stored.kind()) + " instead of a dictionary";
    } catch (const std::exception& e) {
      problem = e.what();
    }
  }
  // Written over, it would be lost for good; set aside, every attribute is merely sent again.
  const bool moved = fs.renameFile(path, path + ".unreadable");
  KOLogger::logLocated(KO_HERE, this, KOLogSeverityException,
                       KOStringFormat::format("Kovantis - The user attribute cache could not be read (%@); %@",
                                              {KOValue(problem), KOValue(moved ? "kept it as " + path + ".unreadable"
                                                                               : std::string("left it"))}));
  return *cache_;
}

void KOUserAttributesHandler::rememberLocked(const std::string& key, const KOValue& value) {
  cacheLocked().set(key, value);
  persistLocked();
}

void KOUserAttributesHandler::persistLocked() {
  dirty_ = true;
  if (writerQueued_ || retryPending_) return;
  writerQueued_ = true;
  KOPlatform::current().dispatch->asyncBackground([this] { writeCache(); });
}

void KOUserAttributesHandler::writeCache() {
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!dirty_) {
        writerQueued_ = false;
        return;
      }
    }
    if (!writeCacheNow()) {
      std::lock_guard<std::mutex> lock(mutex_);
      writerQueued_ = false;
      return;
    }
  }
}

bool KOUserAttributesHandler::writeCacheNow() {
  std::lock_guard<std::mutex> writing(fileMutex_);
  KODictionary snapshot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!cache_) return true;
    snapshot = *cache_;
    dirty_ = false;
  }
  if (KOPropertyListFile::write(userAttributePlistFilePath(), KOValue(std::move(snapshot)))) {
    std::lock_guard<std::mutex> lock(mutex_);
    retryDelay_ = 0;
    return true;
  }
  // Still due: tried again at a bounded pace until it succeeds.
  std::lock_guard<std::mutex> lock(mutex_);
  dirty_ = true;
  retryDelay_ = retryDelay_ == 0 ? 0.05 : std::min(retryDelay_ * 2, 2.0);
  if (!retryPending_) {
    retryPending_ = true;
    KOPlatform::current().dispatch->afterBackground(retryDelay_, [this] {
      std::lock_guard<std::mutex> retrying(mutex_);
      retryPending_ = false;
      if (dirty_) persistLocked();
    });
  }
  return false;
}

bool KOUserAttributesHandler::doesUserAttributeExistsWithKey(const KOValue& key, const KOValue& andValue) {
  try {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::string text = keyText(key);
    if (safeObjectForKey(cacheLocked(), text) == andValue) return true;
    rememberLocked(text, andValue);
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
    // A key that is no string is written out as its description: never one nested without end.
    if (!forKey.isString() && nestingDeeperThan(forKey, KOValue::kMaxNestingDepth)) {
      throw KOTypeError("the attribute key nests too deep");
    }
    std::optional<KODictionary> attributes = attributeEntry(value, forKey);
    if (!attributes) return false;
    const std::string key = attributes->begin()->first;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (safeObjectForKey(cacheLocked(), key) == value) return false;
    }
    // Sent once recorded: the events handler keeps it from here on, even across a kill. Only then
    // does the cache say so; a kill in between merely sends it again.
    if (!KOEventsHandler::sharedInstance().trackEvent(KOValue(EVENT_ACTION_USER_ATTRIBUTE),
                                                      KOValue(std::move(*attributes)))) {
      return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    rememberLocked(key, value);
    return true;
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - exception : %@", e);
    return false;
  }
}

void KOUserAttributesHandler::trackUserAttribute(const KOValue& value, const KOValue& forKey) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception : %@", [&] {
    if (!KOConsentGate::shared().mayRecord()) return;  // the user said no: not even a log line
    if (setUserAttribute(value, forKey)) {
      KOLogger::logPlain(KOStringFormat::format("Kovantis - UserAttribute %@ tracked with Value %@", {forKey, value}));
    } else {
      KOLogger::logPlain("Kovantis - UserAttribute wasn't tracked as it was already present OR the key/value was nil");
    }
  });
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
    sharedInstance().forgetSentValues();
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
  }
}

void KOUserAttributesHandler::forgetSentValues() {
  std::lock_guard<std::mutex> writing(fileMutex_);  // no write of the old cache after this
  {
    std::lock_guard<std::mutex> lock(mutex_);
    cache_.emplace();
    dirty_ = false;
  }
  userAttributeRemovePlistFile();
}

KODictionary KOUserAttributesHandler::sentValues() {
  std::lock_guard<std::mutex> lock(mutex_);
  return cacheLocked();
}
