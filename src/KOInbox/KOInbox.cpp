#include "kovantis/KOInbox.h"

#include "KOInboxHandler.h"
#include "KOUtilities/KOLogger.h"

namespace {
constexpr const char* kInboxFailure = "Kovantis - Exception in KOInbox : %@";
}  // namespace

KOArray KOInbox::getInboxMessages() {
  KOArray messages;
  KOLogger::guard(KO_HERE, nullptr, kInboxFailure, [&] { messages = KOInboxHandler::getAllNotifications(); });
  return messages;
}

void KOInbox::fetchInboxMessagesWithCompletion(std::function<void(bool)> completion) {
  KOLogger::guard(KO_HERE, nullptr, kInboxFailure, [&] {
    KOInboxHandler::getInboxMessagesWithCompletion([completion](bool fetched) {
      if (completion) completion(fetched);
    });
  });
}

void KOInbox::removeInboxMessages() {
  KOLogger::guard(KO_HERE, nullptr, kInboxFailure, [] { KOInboxHandler::removeAllData(); });
}

void KOInbox::removeMessageWithCampaignID(const KOValue& campaignID) {
  KOLogger::guard(KO_HERE, nullptr, kInboxFailure, [&] {
    if (campaignID.isString() && !campaignID.stringValue().empty()) {
      KOInboxHandler::removeMessageWithCampaignID(campaignID);
    }
  });
}
