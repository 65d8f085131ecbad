#include "kovantis/KOInbox.h"

#include <memory>
#include <stdexcept>

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

std::shared_ptr<KOInboxViewController> KOInbox::initializeInboxOnController(const KOViewController* controller) {
  std::shared_ptr<KOInboxViewController> inbox;
  KOLogger::guard(KO_HERE, nullptr, kInboxFailure, [&] {
    if (!controller) throw std::invalid_argument("no host screen to show the inbox in");
    auto created = std::make_shared<KOInboxViewController>();
    created->viewDidLoad();
    created->viewWillAppear();
    // The screen keeps its controller alive for as long as it is shown, as a child screen is
    // kept by its parent; the controller reaches the screen through its presentation.
    auto presentation = KOPlatform::current().userInterface->embedScreen(
        controller, created->viewDescription(), [created](std::int64_t tag, KOViewEvent event) {
          if (tag < 1) return;
          const auto row = static_cast<std::size_t>(tag - 1);
          if (event == KOViewEvent::Tap) {
            created->didSelectRowAtIndexPath(row);
          } else if (event == KOViewEvent::SwipeDelete) {
            created->commitEditingStyleDelete(row);
          }
        });
    if (!presentation) throw std::runtime_error("the platform cannot show the inbox screen");
    created->setPresentation(std::move(presentation));
    inbox = std::move(created);
  });
  return inbox;
}
