// The inbox for the host application: the stored messages (pushes the user opened and messages
// the service sent for this device), a fetch of new ones, and deletion.
#pragma once

#include <functional>

#include "kovantis/KOValue.h"

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

class KOInbox {
 public:
  /// Every stored message, newest first. Each is a dictionary: "data" (the push payload), "cid",
  /// "c_cr_t" (creation time, seconds since 1970), "isRead", "isGiven".
  static KOArray getInboxMessages();
  /// Fetches new messages from the service; the completion (on the main queue, or at once when
  /// the device has no push token) hears whether an answer came.
  static void fetchInboxMessagesWithCompletion(std::function<void(bool)> completion = nullptr);
  /// Deletes every stored message.
  static void removeInboxMessages();
  /// Deletes the newest message of the campaign; an empty id does nothing.
  static void removeMessageWithCampaignID(const KOValue& campaignID);
};

#pragma GCC visibility pop
