// A whole app session for the privacy tests: start, every kind of user attribute, events, push
// registration and pushes, the inbox and its screen, an in-app message with an image, a geofence
// walk and the lifecycle, on the simulated device against the emulator. With consent granted it
// waits for each step's traffic; denied, it waits only for the device to settle.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "KOSDKTestDevice.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOInbox.h"
#include "kovantis/Kovantis.h"

namespace privacy_session {

inline constexpr const char* kAppGroup = "group.com.kovantis.privacy";
// A 4x1 PNG, served by the emulator as the campaign's banner.
inline constexpr const char* kBanner =
    "iVBORw0KGgoAAAANSUhEUgAAAAQAAAABCAIAAAB2XpiaAAAADUlEQVR4nGP4z8AARwAd7wP95hFmHQAAAABJRU5ErkJggg==";
// The keys the host app's own code uses: its user attribute, its events and their attributes.
inline const std::vector<std::string> kHostKeys = {"plan",        "last_order_at", "home",     "sku",
                                                   "price",       "order",         "delivery", "store",
                                                   "ADD_TO_CART", "CHECKOUT",      "SEARCH",   "query"};

/// The emulator's side: remote logging on, an inbox, a campaign with an image, fences near the walk.
inline std::string seed(const std::string& baseURL) {
  return R"({"config": {"l_e": 1, "e_b_c": 30},
    "images": {"/images/banner.png": ")" +
         std::string(kBanner) + R"("},
    "inbox": {"messagesInfo": [{"cid": "welcome", "c_cr_t": 1700000000, "data": {"aps": {"alert": "Welcome"},
        "kovantis": {"cid": "welcome"}, "app_extra": {"screen": "home"}}}]},
    "inapps": {"minimum_delay_bw_inapps": 0, "event_list": ["ADD_TO_CART"], "campaign_info": [
      {"cid": "sale", "status": "active", "type": "general", "ttl": 4102444800, "max_times": 3, "priority": 1,
       "widgets": [{"id": 1, "type": "image", "content": ")" +
         baseURL + R"(/images/banner.png"},
         {"id": 2, "type": "text", "content": "Spring sale"},
         {"id": 3, "type": "closebutton", "action": [{"tag": "m_dismiss"}]}]}]},
    "geofences": [{"geoId": "gate", "lat": 52.5200, "lng": 13.4050, "distance": 100, "transitionType": "enter"}]})";
}

/// The whole session. `traffic`: consent is granted, so each step waits for what it sends.
class Session {
 public:
  Session(KOSimDevice& device, bool traffic) : device_(device), traffic_(traffic) {}

  bool wait(const std::function<bool()>& condition, double seconds = 10) {
    if (traffic_) return device_.runMainUntil(condition, seconds);
    settle();
    return condition();
  }
  /// The shared queue idle and the main queue pumped: what a step started has run.
  void settle() {
    device_.runMainUntil([&] { return device_.dispatch().backgroundIdle(); }, 5);
    device_.pumpMain();
  }

  void start() {
    Kovantis::setAppGroupID(KOValue(kAppGroup));
    device_.launch();
    sdk().initializeWithApiKey(KOValue("privacy-app"));
    sdk().appStatus(KOAppStatusInstall);
    device_.becomeActive();
    settle();
  }

  void attributesAndEvents() {
    sdk().setUserUniqueID(KOValue("user-7"));
    sdk().setUserEmailID(KOValue("ada@example.com"));
    sdk().setUserName(KOValue("Ada L"));
    sdk().setUserFirstName(KOValue("Ada"));
    sdk().setUserLastName(KOValue("Lovelace"));
    sdk().setUserMobileNo(KOValue("+44 20 7946 0000"));
    sdk().setUserGender(KOUserGenderFemale);
    sdk().setUserDateOfBirth(KOValue(KODate{-4000000000.0}));
    sdk().setUserLocationLatitude(51.5, -0.12);
    sdk().setUserAttribute(KOValue("gold"), KOValue("plan"));
    sdk().setUserAttributeTimestamp(1700000000, KOValue("last_order_at"));
    sdk().setUserAttributeLocationLatitude(51.5, -0.12, KOValue("home"));
    sdk().trackEvent(KOValue("SEARCH"), KOValue(KODictionary{{"query", "shoes"}}));
    KOPayloadBuilder checkout(std::make_shared<KODictionary>(KODictionary{{"order", "A-77"}, {"price", 59.97}}));
    checkout.setDate(KOValue(KODate{1700003600}), "delivery");
    checkout.setLocationLat(51.5, -0.12, "store");
    sdk().trackEvent(KOValue("CHECKOUT"), checkout);
  }

  void push() {
    device_.application().setRemoteNotificationHandlers(
        [&](const std::string& bytes) {
          token_ = bytes;
          sdk().registerForPush(KOValue(KOData{std::vector<std::uint8_t>(bytes.begin(), bytes.end())}));
        },
        [&] { sdk().didFailToRegisterForPush(); });
    device_.application().setRemoteNotificationHandler([&](const KODictionary& userInfo) {
      sdk().didReceieveNotificationinApplication(&device_.application(), KOValue(userInfo), false);
    });
    auto orders = std::make_shared<KOUserNotificationCategory>();
    orders->identifier = "ORDER_UPDATE";
    orders->actions = {{"TRACK", "Track order", 4}};
    sdk().registerForRemoteNotificationWithCategories(std::vector<std::shared_ptr<KONotificationCategoryBase>>{orders},
                                                      {}, nullptr);
    device_.runMainUntil([&] { return !token_.empty(); }, 10);
    settle();
    const KODictionary push{{"aps", KODictionary{{"alert", "20% off"}}},
                            {"kovantis", KODictionary{{"cid", "push-1"}}},
                            {"app_extra", KODictionary{{"screen", "offers"}}}};
    device_.receivePush(push);
    device_.resignActive();
    device_.enterBackground();
    device_.openPush(push);
    device_.runMainUntil([&] { return device_.application().applicationState() == KOApplicationState::Active; }, 5);
    settle();
  }

  void inboxAndInApp() {
    std::optional<bool> fetched;
    KOInbox::fetchInboxMessagesWithCompletion([&](bool answered) { fetched = answered; });
    wait([&] { return fetched.has_value(); });
    KOViewController home;
    home.name = "Home";
    if (KOInbox::initializeInboxOnController(&home) && device_.userInterface().embeddedScreen()) {
      device_.userInterface().tapView(KOInboxViewController::tagForRow(0));
    }
    sdk().handleInAppMessageForViewController(&home);
    if (wait([&] { return device_.userInterface().presentedScreen().has_value(); })) {
      shownInApp = true;
      device_.userInterface().tapView(3);  // its close button
    }
    sdk().trackEvent(KOValue("ADD_TO_CART"), KOValue(KODictionary{{"sku", "A1"}, {"price", 9.99}}));
    settle();
  }

  void geofences() {
    KOSimLocationServices& location = device_.location();
    location.setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
    location.moveTo({52.5180, 13.4050});
    manager = location.makeManager();
    sdk().startGeofencingWithLocationManager(manager);
    wait([&] { return !location.monitoredRegions().empty(); });
    for (double lat : {52.5190, 52.5200, 52.5210}) {
      location.moveTo({lat, 13.4050});
      device_.pumpMain();
    }
    settle();
  }

  void lifecycle() {
    device_.resignActive();
    device_.enterBackground();
    device_.enterForeground();
    device_.becomeActive();
    sdk().syncNow();
    settle();
  }

  /// Everything above, in order.
  void run() {
    start();
    attributesAndEvents();
    push();
    inboxAndInApp();
    geofences();
    lifecycle();
  }

  Kovantis& sdk() { return Kovantis::sharedInstance(); }

  std::shared_ptr<KOSimLocationManager> manager;
  bool shownInApp = false;

 private:
  KOSimDevice& device_;
  bool traffic_;
  std::string token_;
};

}  // namespace privacy_session
