// One stored inbox record as typed fields for display. Every field is read on its own: a field of
// the wrong type is logged and left empty, the others are still filled.
#pragma once

#include <string>
#include <vector>

#include "kovantis/KOValue.h"

class KOInboxPushDataModel {
 public:
  KOInboxPushDataModel() = default;
  /// Reads any value; a record that is no dictionary gives an empty model (and a log line).
  explicit KOInboxPushDataModel(const KOValue& dictionary);

  /// One model per record, in the order given (getAllNotifications gives newest first).
  static std::vector<KOInboxPushDataModel> modelsWithArray(const KOArray& records);

  const KODictionary& pushDict() const { return pushDict_; }
  const std::string& campaignID() const { return campaignID_; }
  const KODictionary& extraData() const { return extraData_; }
  const std::string& screenName() const { return screenName_; }
  const KODictionary& screenData() const { return screenData_; }
  /// The creation time as stored: seconds since 1970 as text, "" when unknown.
  const std::string& pushTime() const { return pushTime_; }
  const std::string& alertMessage() const { return alertMessage_; }
  const std::string& mediaAttachmentURL() const { return mediaAttachmentURL_; }
  bool isGiven() const { return isGiven_; }
  bool isRead() const { return isRead_; }
  /// The record the model was made from, unchanged: what a screen marks read and writes back.
  const KOValue& record() const { return record_; }

  /// A stored flag as a boolean: numbers by value, text the way "YES", "true" or "1" read.
  static bool flagValue(const KOValue& value);

 private:
  KOValue record_;
  KODictionary pushDict_;
  std::string campaignID_;
  KODictionary extraData_;
  std::string screenName_;
  KODictionary screenData_;
  std::string pushTime_;
  std::string alertMessage_;
  std::string mediaAttachmentURL_;
  bool isGiven_ = false;
  bool isRead_ = false;
};
