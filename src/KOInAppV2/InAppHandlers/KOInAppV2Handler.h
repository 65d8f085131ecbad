// Which in-app campaign shows, and when: the fetch, the rules a campaign must pass, the walk over
// the stored campaigns for the current screen, smart triggers and the showing itself. The rules
// are written once (decide*) and serve both the showing and the decision report a host can read.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "KOInAppV2/InAppHandlers/KOImageDecoder.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOInAppV2/Models/KOInAppV2CampaignPropertiesObject.h"
#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/KOValue.h"

/// Why a campaign would not show now; `refusedBy` is empty when it would.
struct KOInAppDecision {
  std::string refusedBy;
  std::int64_t minutesLeft = 0;  // for the delay rules
  bool shows() const { return refusedBy.empty(); }
};

class KOInAppV2Handler {
 public:
  // The rules' names in the decision report.
  static constexpr const char* kExpired = "expired";
  static constexpr const char* kGlobalDelay = "globalDelay";
  static constexpr const char* kMessageDelay = "messageDelay";
  static constexpr const char* kClicked = "clicked";
  static constexpr const char* kShownMaxTimes = "shownMaxTimes";
  static constexpr const char* kOtherScreen = "otherScreen";
  static constexpr const char* kBlockedScreen = "blockedScreen";
  static constexpr const char* kKeyboard = "keyboard";
  static constexpr const char* kWrongType = "wrongType";
  static constexpr const char* kImagesFailed = "imagesFailed";

  static KOInAppV2Handler& sharedInstance();

  /// The screen's name for the screen rules: the given screen's, else the top screen's.
  static std::string screenNameFor(const KOViewController* viewController);
  /// Whether a campaign meant for `campaignScreen` may show on `screen`: names compare ignoring
  /// case, and no screen named means any.
  static bool isForScreen(const std::string& campaignScreen, const std::string& screen);

  /// Fetches the campaigns changed since the last fetch and merges them into the store; a show
  /// asked for meanwhile runs when the fetch ends.
  void getInAppCampaigns();
  bool currentlyFetchingInApps() const;
  /// Shows the first stored general campaign the rules allow on the top screen (or the one given).
  void showInAppForViewController(const KOViewController* viewController);
  void dontShowInAppInViewController(const KOViewController* viewController);

  /// The minimum delay between any two in-apps.
  static bool canShowInAppWithPreConditions();
  /// The campaign's own rules: expiry, message delay, clicked, times shown.
  static bool canShowInApp(const KOInAppV2CampaignPropertiesObject& campaign);
  static KOInAppDecision globalDelayDecision();
  static KOInAppDecision campaignDecision(const KOInAppV2CampaignPropertiesObject& campaign);

  /// Every stored campaign with whether it would show now on the screen and, if not, the first
  /// rule that refuses it: [{"cid", "type", "shows", "refusedBy", "minutesLeft"}], store order.
  KOArray decisionReport(const KOViewController* viewController);

  /// Called for every tracked event: a listed event asks the service for its campaign. Costs a
  /// lookup in an in-memory set when the event is not listed.
  void checkTriggerWithEventName(const std::string& name, const KOValue& payload);
  void smartTriggerInAppForEvent(const std::string& name, const KOValue& payload);

  /// Downloads the campaign's images, then shows it on the main queue unless the keyboard, the
  /// screen or a blocked screen says otherwise.
  void showInAppV2WithObject(std::shared_ptr<const KOInAppV2Object> inApp);
  /// The same for the named screen (the one a show was asked for), not the top one.
  void showInAppV2WithObject(std::shared_ptr<const KOInAppV2Object> inApp, std::string screen);
  void saveLastShownTimeAndTrackEventForInApp(const KOInAppV2Object& inApp, bool forTestCampaign);
  /// Fetches one campaign (a linked one, a pushed one, a test) and shows it, hands it to the host
  /// when it is self-handled; a test campaign that fails says why in an alert.
  static void fetchAndShowInAppForCampaignID(const std::string& campaignID, bool forTestInApp);
  /// Hands a self-handled campaign to the host app's delegate.
  /// A self-handled campaign (by type or alignment) goes to the host's delegate, never on screen.
  static bool isSelfHandled(const KOInAppV2Object& inApp);
  static void returnSelfHandledInAppData(const KOInAppV2Object& inApp);
  /// The first stored self-handled campaign the rules allow on the screen, handed to the delegate.
  void getSelfHandledInAppForViewController(const KOViewController* viewController);
  /// The host showed a self-handled campaign itself: counted and tracked like one the SDK shows.
  void selfHandledInAppShownWithCampaignID(const std::string& campaignID);
  /// The host's primary action: the click is recorded, so that a non-persistent campaign stops.
  void selfHandledInAppClickedWithPrimaryActionAndCampaignID(const std::string& campaignID);
  void selfHandledInAppClickedWithSecondaryActionAndCampaignID(const std::string& campaignID);
  void selfHandledInAppClickedWithDismissActionAndCampaignID(const std::string& campaignID);
  /// 1 primary, 2 secondary, anything else a dismissal.
  void selfHandledInAppClickedWithAction(int action, const std::string& andCampaignID);
  static void trackInAppShownForCampaignID(const std::string& campaignID);
  static void trackInAppAutoDismissForCampaignID(const std::string& campaignID);

  void keyboardShowed();
  void keyboardHidden();
  /// Whether an in-app is on screen now.
  bool isShowingInApp() const;
  /// Takes the in-app off the screen (a dismiss action, a swipe, the auto-dismiss).
  void dismissInApp();

 private:
  KOInAppV2Handler();
  void showInAppForScreen(std::string screen);
  // The stored campaign with the id, as an object; nothing when it is not stored.
  static std::shared_ptr<const KOInAppV2Object> storedCampaign(const std::string& campaignID);
  // The screen, blocked-screen and keyboard checks, in the order a showing applies them.
  KOInAppDecision screenDecision(const KOInAppV2CampaignPropertiesObject& campaign, const std::string& screen) const;
  /// The listed events, rebuilt from the store when its snapshot changed.
  std::shared_ptr<const std::set<std::string>> refreshTriggerEvents();
  /// Whether an event is on the trigger list: on every tracked event, so without a lock while the
  /// store's snapshot is the one the list was built from.
  bool isTriggerEvent(const std::string& name);
  void present(const std::shared_ptr<const KOInAppV2Object>& inApp, const std::string& screen,
               std::map<std::int64_t, KOImageInfo> images = {});

  mutable std::mutex mutex_;
  bool fetching_ = false;
  bool handleInAppsCalledDuringFetch_ = false;
  std::string screenAskedDuringFetch_;
  bool keyboardShown_ = false;
  std::vector<std::string> dontShowInAppScreenList_;
  std::set<std::string> imagesFailed_;
  std::shared_ptr<const std::set<std::string>> triggerEvents_;
  // The snapshot the set was built from, held so that its address cannot come back for another.
  std::shared_ptr<const KOInAppV2StoreSnapshot> triggerSource_;
  struct TriggerList {
    std::uint64_t version;
    std::shared_ptr<const std::set<std::string>> events;
  };
  std::atomic<const TriggerList*> triggerList_{nullptr};
  // Every list published stays: a tracking thread may still read one. One per change of the store.
  std::vector<std::unique_ptr<const TriggerList>> triggerLists_;
  std::shared_ptr<KOPresentedScreen> onScreen_;
  std::string onScreenCampaign_;
  KODispatchToken autoDismiss_ = 0;
};
