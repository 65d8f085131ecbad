#include "KOInboxPushDataModel.h"

#include <cctype>
#include <exception>

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"

namespace {

constexpr const char* kModelFailure = "Kovantis - exception while creating push data model is %@";

// Typed accessors throw KOTypeError on another kind: that is how a wrongly typed field is caught.
const KODictionary& dictionaryOrEmpty(const KOValue& value) {
  static const KODictionary empty;
  return value.isAbsent() ? empty : value.dictionaryValue();
}

std::string stringOrEmpty(const KOValue& value) { return value.isAbsent() ? std::string() : value.stringValue(); }

// Ids and times may come as numbers from the service; they read as their text.
std::string textOrEmpty(const KOValue& value) {
  if (value.isNumber() && !value.isBool()) return KOStringFormat::format("%@", {value});
  return stringOrEmpty(value);
}

}  // namespace

bool KOInboxPushDataModel::flagValue(const KOValue& value) {
  if (value.isNumber()) return value.doubleValue() != 0;
  if (!value.isString()) return false;
  for (char c : value.stringValue()) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
  }
  return false;
}

KOInboxPushDataModel::KOInboxPushDataModel(const KOValue& dictionary) : record_(dictionary) {
  // Each field on its own, so one bad field leaves the others readable.
  auto field = [this](auto&& fill) { KOLogger::guard(KO_HERE, this, KOLogSeverityError, kModelFailure, fill); };
  field([&] { static_cast<void>(dictionary.dictionaryValue()); });
  if (!dictionary.isDictionary()) return;
  const KODictionary& record = dictionary.dictionaryValue();

  field([&] { pushDict_ = dictionaryOrEmpty(validObjectForKey(record, "data")); });
  const KOValue& kovantis = validObjectForKey(pushDict_, "kovantis");
  field([&] { campaignID_ = textOrEmpty(validObjectForKey(dictionaryOrEmpty(kovantis), "cid")); });
  field(
      [&] { mediaAttachmentURL_ = stringOrEmpty(validObjectForKey(dictionaryOrEmpty(kovantis), "media-attachment")); });
  field([&] { extraData_ = dictionaryOrEmpty(validObjectForKey(pushDict_, "app_extra")); });
  field([&] { screenName_ = stringOrEmpty(validObjectForKey(extraData_, "screenName")); });
  field([&] { screenData_ = dictionaryOrEmpty(validObjectForKey(extraData_, "screenData")); });

  const KOValue& created = validObjectForKey(record, "c_cr_t");
  if (created.isString()) {
    pushTime_ = created.stringValue();
  } else if (created.isNumber()) {
    pushTime_ = KOStringFormat::format("%@", {created});
  } else if (!created.isAbsent()) {
    KOLogger::logLocated(KO_HERE, this, KOLogSeverityError,
                         KOStringFormat::format("Kovantis - Created time for push notification is neither of type "
                                                "NSString, nor of type NSNumber. It is of type %@",
                                                {KOValue(KOValue::kindName(created.kind()))}));
  }

  field([&] {
    const KOValue& alert = validObjectForKey(dictionaryOrEmpty(validObjectForKey(pushDict_, "aps")), "alert");
    alertMessage_ = alert.isDictionary() ? stringOrEmpty(validObjectForKey(alert, "body")) : stringOrEmpty(alert);
  });
  isGiven_ = flagValue(validObjectForKey(record, "isGiven"));
  isRead_ = flagValue(validObjectForKey(record, "isRead"));
}

std::vector<KOInboxPushDataModel> KOInboxPushDataModel::modelsWithArray(const KOArray& records) {
  std::vector<KOInboxPushDataModel> models;
  models.reserve(records.size());
  for (const KOValue& record : records) models.emplace_back(record);
  return models;
}
