#include "KOInboxHandler.h"

#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "KOInboxPushDataModel.h"
#include "KOUtilities/KOAtomicFile.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "KOUtilities/KOSDKNotifications.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisDateUtils.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"
#include "kovantis/KOPlatform.h"

namespace {

constexpr const char* kPendingFailure = "Kovantis - exception while getting pending notifications is %@";
constexpr const char* kMergeFailure = "Kovantis - exception while saving push data from server is %@";
constexpr const char* kWriteFailure = "Kovantis - exception while writing inbox array to file is %@";
constexpr const char* kTrimFailure = "Kovantis - exception while removing extra messages from inbox is %@";
constexpr const char* kSaveOpenedFailure = "Kovantis - Exception while saving read push message is %@";
constexpr const char* kReadAllFailure = "Kovantis - exception while getting all inbox notifications is %@";
constexpr const char* kFetchFailure = "Kovantis - exception while getting inbox messages is %@";
constexpr const char* kFetchAnswerFailure = "Kovantis - Exception while getting Notifications data %@";

// Reads, changes and writes of the file are one step each: a merge on the main queue and a
// reset on the sync thread must not interleave and lose records.
std::recursive_mutex& fileMutex() {
  static auto* mutex = new std::recursive_mutex();
  return *mutex;
}

// The stored list; nothing when there is no file (or it is unreadable, which the reader logs).
// A file holding something else reads as empty, logged with the caller's text.
std::optional<KOArray> storedArray(const KOSourceLocation& where, const char* failure) {
  KOValue content = KOPropertyListFile::read(KOInboxHandler::getFilePathForInboxMessages());
  if (content.isNil()) return std::nullopt;
  if (content.isDictionary()) {
    KOValue* list = content.dictionaryValue().find(KOInboxMessagesInfoKey);
    if (list && list->isArray()) return std::move(list->arrayValue());
  }
  KOLogger::logError(where, nullptr, failure, std::runtime_error("the inbox file holds no message list"));
  return KOArray();
}

KOValue fileContent(KOArray array) {
  KODictionary file;
  file.set(KOInboxMessagesInfoKey, KOValue(std::move(array)));
  return KOValue(std::move(file));
}

void writeDirectly(const KOArray& array) {
  std::string text;
  try {
    text = KOPropertyListSerialization::writeXML(fileContent(array));
  } catch (const std::exception&) {
    // A record the file cannot hold (a NUL byte in a text, say) goes alone, with a line; the
    // others are saved, so that one bad message never blocks the inbox.
    KOArray kept;
    kept.reserve(array.size());
    for (std::size_t i = 0; i < array.size(); ++i) {
      try {
        static_cast<void>(KOPropertyListSerialization::xmlFragment(array[i]));
        kept.push_back(array[i]);
      } catch (const std::exception& e) {
        KOLogger::logError(KO_HERE, nullptr, kWriteFailure,
                           std::runtime_error(KOStringFormat::format(
                               "message %@ cannot be stored and is dropped: %@",
                               {KOValue(static_cast<std::int64_t>(i)), KOValue(std::string(e.what()))})));
      }
    }
    text = KOPropertyListSerialization::writeXML(fileContent(std::move(kept)));
  }
  KOAtomicFile::write(*KOPlatform::current().fileSystem, KOInboxHandler::getFilePathForInboxMessages(), text);
}

// A record's campaign id; nil for a record that is no dictionary.
const KOValue& campaignOf(const KOValue& record) { return validObjectForKey(record, "cid"); }

bool sameCampaign(const KOValue& record, const KOValue& cid) {
  if (cid.isAbsent()) return false;
  const KOValue& own = campaignOf(record);
  return !own.isAbsent() && own == cid;
}

}  // namespace

KOInboxHandler& KOInboxHandler::sharedInstance() {
  static auto* instance = new KOInboxHandler();
  return *instance;
}

KOInboxHandler::KOInboxHandler() {
  // Lives as long as the process: the subscription is never removed.
  KONotificationCenter::defaultCenter().addObserver(KOUserDataResetNotification,
                                                    [](const KONotification&) { removeAllData(); });
}

std::string KOInboxHandler::getFilePathForInboxMessages() {
  return KovantisUtils::getDocumentsDirectoryPath() + "/" + KOInboxMessagesFileName;
}

void KOInboxHandler::saveClickedPushToLocalStorageWithData(const KOValue& payload) {
  KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, kSaveOpenedFailure, [&] {
    if (!KOConsentGate::shared().mayRecord()) return;
    const KOValue& kovantis = validObjectForKey(payload, "kovantis");
    if (kovantis.isAbsent()) return;
    const KOValue& cid = validObjectForKey(kovantis.dictionaryValue(), "cid");
    KODictionary record;
    record.set("data", payload);
    if (!cid.isAbsent()) record.set("cid", cid);
    record.set("c_cr_t", KOValue(KOStringFormat::format("%f", {KOValue(KovantisDateUtils::now())})));

    std::lock_guard<std::recursive_mutex> lock(fileMutex());
    KOArray stored = storedArray(KO_HERE, kSaveOpenedFailure).value_or(KOArray());
    KOArray kept;
    kept.reserve(stored.size() + 1);
    for (KOValue& old : stored) {
      if (!sameCampaign(old, cid)) kept.push_back(std::move(old));
    }
    record.set("isRead", KOValue(true));
    kept.push_back(KOValue(std::move(record)));
    writeDirectly(kept);
  });
}

void KOInboxHandler::saveServerPushDataToPlist(const KOValue& response) {
  KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, kMergeFailure, [&] {
    const KOValue& list = validObjectForKey(response, KOInboxMessagesInfoKey);
    const KOArray& serverList = list.arrayValue();  // anything but a list stops the merge here
    std::lock_guard<std::recursive_mutex> lock(fileMutex());
    std::optional<KOArray> stored = storedArray(KO_HERE, kMergeFailure);
    KOArray result = stored ? std::move(*stored) : KOArray();
    for (std::size_t i = 0; i < serverList.size(); ++i) {
      const KOValue& message = serverList[i];
      if (!message.isDictionary()) {
        // Nothing could show or match it; the rest of the answer still counts.
        KOLogger::logError(KO_HERE, nullptr, kMergeFailure,
                           std::runtime_error(KOStringFormat::format(
                               "message %@ is a %@, not a dictionary",
                               {KOValue(static_cast<std::int64_t>(i)), KOValue(KOValue::kindName(message.kind()))})));
        continue;
      }
      if (!stored) {
        result.push_back(message);
        continue;
      }
      // One pass over the list as it stands: unread copies of the campaign go, read ones move to
      // the end marked as handed out.
      const KOValue& cid = campaignOf(message);
      bool matched = false;
      KOArray next;
      KOArray moved;
      next.reserve(result.size() + 1);
      for (KOValue& record : result) {
        if (!sameCampaign(record, cid)) {
          next.push_back(std::move(record));
        } else if (!validObjectForKey(record, "isRead").isAbsent()) {  // its presence decides, as for "isGiven"
          record.dictionaryValue().set("isGiven", KOValue(true));
          moved.push_back(std::move(record));
          matched = true;
        }
      }
      for (KOValue& record : moved) next.push_back(std::move(record));
      if (!matched) next.push_back(message);
      result = std::move(next);
    }
    writeArrayToFile(result);
  });
}

void KOInboxHandler::writeArrayToFile(const KOArray& array) {
  KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, kWriteFailure, [&] {
    std::lock_guard<std::recursive_mutex> lock(fileMutex());
    if (array.size() <= static_cast<std::size_t>(KOInboxMaximumMessages)) {
      writeDirectly(array);
    } else {
      writeDirectly(removeExtraMessagesWithArray(array));
    }
  });
}

KOArray KOInboxHandler::removeExtraMessagesWithArray(KOArray array) {
  try {
    const std::size_t limit = static_cast<std::size_t>(KOInboxMaximumMessages);
    if (array.size() <= limit) return array;
    KOArray::Storage newest;
    newest.reserve(limit);
    for (auto it = array.end() - static_cast<std::ptrdiff_t>(limit); it != array.end(); ++it) {
      newest.push_back(std::move(*it));
    }
    return KOArray(std::move(newest));
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, nullptr, kTrimFailure, e);
    return array;
  }
}

KOArray KOInboxHandler::getAllNotifications() {
  KOArray newestFirst;
  KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, kReadAllFailure, [&] {
    std::optional<KOArray> stored;
    {
      std::lock_guard<std::recursive_mutex> lock(fileMutex());
      stored = storedArray(KO_HERE, kReadAllFailure);
    }
    if (!stored) return;
    KOArray::Storage reversed;
    reversed.reserve(stored->size());
    for (auto it = stored->end(); it != stored->begin();) reversed.push_back(std::move(*--it));
    newestFirst = KOArray(std::move(reversed));
  });
  return newestFirst;
}

KOArray KOInboxHandler::getPendingNotifications() {
  KOArray pending;
  KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, kPendingFailure, [&] {
    std::lock_guard<std::recursive_mutex> lock(fileMutex());
    std::optional<KOArray> stored = storedArray(KO_HERE, kPendingFailure);
    if (!stored) return;
    // The key's presence decides, not its value: "isGiven" = NO counts as handed out.
    for (KOValue& record : *stored) {
      if (!record.isDictionary()) continue;
      KODictionary& fields = record.dictionaryValue();
      if (!validObjectForKey(fields, "isGiven").isAbsent()) continue;
      fields.set("isGiven", KOValue(true));
      const KOValue& data = validObjectForKey(fields, "data");
      if (validObjectForKey(fields, "isRead").isAbsent() && !data.isAbsent()) pending.push_back(data);
    }
    writeDirectly(*stored);
  });
  return pending;
}

void KOInboxHandler::getInboxMessagesWithCompletion(std::function<void(bool)> completion) {
  auto finish = [completion](bool result) {
    if (completion) completion(result);
  };
  bool sent = false;
  KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, kFetchFailure, [&] {
    if (KovantisUtils::getDeviceToken().isAbsent() || !KOConsentGate::shared().mayCallService()) return;
    const KOValue last = KovantisUtils::getlastUpdatedTimeForInbox();
    std::string time;
    if (last.isAbsent()) {
      time = KOStringFormat::format("%.0f", {KOValue(0.0)});
    } else {
      // Stored as a date; a number of seconds from an older store reads the same.
      const double seconds = last.isDate() ? last.dateValue().secondsSince1970 : last.doubleValue();
      time = KOStringFormat::format("%@000", {KOValue(KOStringFormat::format("%.0f", {KOValue(seconds)}))});
    }
    KOServerInterface::sharedInstance().getPushNotificationsFromServerWithLastUpdatedTime(
        KOValue(time), [finish](const KOValue& response) {
          if (response.isNil()) {
            finish(false);
            return;
          }
          KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, kFetchAnswerFailure, [&] {
            KOLogger::logPlain(KOStringFormat::format("Kovantis - inbox messages are %@", {response}));
            if (!validObjectForKey(response, KOInboxMessagesInfoKey).isAbsent()) saveServerPushDataToPlist(response);
            KovantisUtils::saveLastUpdatedTimeForInbox(KOValue(KODate{KovantisDateUtils::now()}));
            KOArray pending = getPendingNotifications();
            if (!pending.empty()) {
              KODictionary userInfo;
              userInfo.set(KOInboxPendingNotificationsKey, KOValue(std::move(pending)));
              KONotificationCenter::defaultCenter().post(KOInboxPendingNotificationsNotification, userInfo);
              KOLogger::logPlain("Kovantis - Observer called for Pending Notifications");
            }
          });
          finish(true);
        });
    sent = true;
  });
  if (!sent) finish(false);
}

void KOInboxHandler::removeAllData() {
  KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, "Kovantis - exception while clearing inbox data is %@", [&] {
    std::lock_guard<std::recursive_mutex> lock(fileMutex());
    KOFileError error;
    if (!KOPlatform::current().fileSystem->removeItem(getFilePathForInboxMessages(), &error)) {
      KOLogger::logLocated(
          KO_HERE, nullptr, KOLogSeverityError,
          KOStringFormat::format("Kovantis - error while clearing inbox data is %@", {KOValue(error.message)}));
    }
  });
}

void KOInboxHandler::removeMessageWithCampaignID(const KOValue& campaignID) {
  KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, "Kovantis - exception while deleting message: %@", [&] {
    try {
      std::lock_guard<std::recursive_mutex> lock(fileMutex());
      KOArray newestFirst = getAllNotifications();
      for (auto it = newestFirst.begin(); it != newestFirst.end(); ++it) {
        if (KOValue(KOInboxPushDataModel(*it).campaignID()) == campaignID) {
          newestFirst.erase(it);
          break;
        }
      }
      // Written newest first on purpose: each delete reverses the stored order.
      writeArrayToFile(newestFirst);
    } catch (const std::exception& e) {
      KOLogger::logLocated(KO_HERE, nullptr, KOLogSeverityError,
                           KOStringFormat::format("Kovantis - exception while deleting message with cid(%@): %@",
                                                  {campaignID, KOValue(std::string(e.what()))}));
    }
  });
}
