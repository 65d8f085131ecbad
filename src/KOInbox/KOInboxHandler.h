// The inbox store: one property-list file of the pushes the user opened and the messages the
// service returned for this device, oldest first. Class operations only; the one instance exists
// to hear of a user reset, which empties the inbox.
#pragma once

#include <functional>
#include <string>

#include "kovantis/KOValue.h"

class KOInboxHandler {
 public:
  /// Creates the subscription to the user reset; the facade calls it before anything can reset.
  static KOInboxHandler& sharedInstance();

  static std::string getFilePathForInboxMessages();
  /// Keeps an opened push as read, at the end; an earlier copy of the same campaign goes. Not
  /// trimmed to the limit here: the next merge or delete does that.
  static void saveClickedPushToLocalStorageWithData(const KOValue& payload);
  /// Merges the service's "messagesInfo": read copies stay (and count as handed out), unread
  /// ones are replaced by the service's copy.
  static void saveServerPushDataToPlist(const KOValue& response);
  /// Trims to the limit and writes {"messagesInfo": array} whole.
  static void writeArrayToFile(const KOArray& array);
  /// At most the limit, the oldest (front) removed first.
  static KOArray removeExtraMessagesWithArray(KOArray array);
  /// Every record, newest first; empty without a file.
  static KOArray getAllNotifications();
  /// The payloads of records not handed out before and not read; every record not handed out
  /// before is marked as handed out.
  static KOArray getPendingNotifications();
  /// Fetches the messages newer than the last fetch. Without a push token nothing is sent and
  /// the completion hears NO at once; otherwise YES once an answer came, NO without one.
  static void getInboxMessagesWithCompletion(std::function<void(bool)> completion);
  static void removeAllData();
  /// Removes the newest message of the campaign. Writes the list newest first, so every call
  /// reverses the stored order; kept that way on purpose.
  static void removeMessageWithCampaignID(const KOValue& campaignID);

 private:
  KOInboxHandler();
};
