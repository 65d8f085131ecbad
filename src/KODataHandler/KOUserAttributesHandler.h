// User attributes: sent as "EVENT_ACTION_USER_ATTRIBUTE" events, and only when the value differs
// from the last one sent for that key, which a small cache file remembers. A value counts as sent
// once its event is recorded (and so survives a kill); the cache lives in memory and its file is
// written off the caller's thread, many changes in one write.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "kovantis/KOValue.h"

class KOUserAttributesHandler {
 public:
  static KOUserAttributesHandler& sharedInstance();

  /// Tracks {key: value} when the value is a string or number and differs from the cached one;
  /// returns whether an event was tracked.
  bool setUserAttribute(const KOValue& value, const KOValue& forKey);
  /// setUserAttribute as the host's call makes it: logs whether the attribute was tracked.
  void trackUserAttribute(const KOValue& value, const KOValue& forKey);
  /// {key: value} for an attribute event; nothing (and a log line) when the value is nil or not a
  /// string or number.
  static std::optional<KODictionary> attributeEntry(const KOValue& value, const KOValue& forKey);
  /// Always tracks {key: seconds x 1000} as a time-stamp attribute.
  void setUserAttributeTimestamp(double timeStamp, const KOValue& forKey);
  /// Always tracks {key: "%f,%f"} as a location attribute (zero coordinates included).
  void setUserAttributeLocationLatitude(double latitude, double longitude, const KOValue& forKey);
  /// True when the cache already holds this value for the key; otherwise caches it.
  bool doesUserAttributeExistsWithKey(const KOValue& key, const KOValue& andValue);
  /// Clears the identity and time settings and the cache, so every attribute is sent again.
  static void cleanUpUserData();
  /// Forgets which values were sent (in memory and the cache file), so that each is sent again
  /// when set: the events that carried them were discarded.
  void forgetSentValues();
  /// The values remembered as sent, by key.
  KODictionary sentValues();

  std::string userAttributePlistFilePath() const;
  bool checkIfUserAttributePlistExists() const;
  KOValue contentOfUserAttributePlist() const;
  bool createUserAttributePlistFileWithContent(const KODictionary& content);
  void userAttributeRemovePlistFile();

  /// For tests: waits until the cache file holds what is in memory (or a write failed).
  bool writeCacheNow();

 private:
  /// Subscribes to the user reset, which clears what this handler keeps.
  KOUserAttributesHandler();
  /// Reads the cache file once. A file that cannot be read, even when tried again, or that holds
  /// no dictionary is set aside with a log line, never overwritten.
  KODictionary& cacheLocked();
  /// Remembers a value as sent and has the file written off the caller's thread.
  void rememberLocked(const std::string& key, const KOValue& value);
  void persistLocked();
  void writeCache();

  std::mutex mutex_;      // the cache in memory
  std::mutex fileMutex_;  // one write (or removal) of the cache file at a time; taken before mutex_
  std::optional<KODictionary> cache_;
  bool dirty_ = false;
  bool writerQueued_ = false;
  bool retryPending_ = false;
  double retryDelay_ = 0;
};
