// kovantis-demo: a scripted app session on the simulated device against a local emulator of the
// service, printing a timeline of what the SDK did and what the service stored. The device lives
// in a directory of its own, so a second run is the same phone again (--reinstall deletes the app
// first; the keychain stays, and the SDK reports the reinstall). It ends with the user's privacy
// choices and a wipe of the SDK's data (PrivacySection.cpp). With --keep the emulator stays up
// after the session, its dashboard showing what the service received, until Ctrl-C.
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "DemoSeeds.h"
#include "PrivacySection.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOInAppDelegate.h"
#include "kovantis/KOInbox.h"
#include "kovantis/KONotificationCenter.h"
#include "kovantis/Kovantis.h"
#include "kovantis/emulator/KOEmulator.h"

namespace {

void section(const char* title) { std::printf("\n== %s\n", title); }
void step(const std::string& what, const std::string& detail = "") {
  std::printf("  %-34s %s\n", what.c_str(), detail.c_str());
}

// What the phone drew for each campaign it showed: the dashboard's preview of that campaign. The
// script adds to it while the emulator's threads may be asking.
class ShownCampaigns {
 public:
  void add(const std::string& cid, const std::string& picture) {
    std::lock_guard lock(mutex_);
    pictures_[cid] = picture;
  }
  std::string pictureOf(const std::string& campaignJSON) const {
    std::lock_guard lock(mutex_);
    for (const auto& [cid, picture] : pictures_) {
      if (campaignJSON.find("\"cid\":\"" + cid + "\"") != std::string::npos) return picture;
    }
    return {};  // never shown: the dashboard says "no preview"
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> pictures_;
};

class Demo {
 public:
  Demo(KOSimDevice& device, KOEmulator& emulator) : device_(device), emulator_(emulator) {}

  // Syncs and pumps the main queue until that sync ended, as the app's run loop would; returns
  // whether nothing is left waiting for the service.
  bool settle() {
    bool done = false, delivered = false;
    Kovantis::sharedInstance().flush([&](bool allDelivered) {
      done = true;
      delivered = allDelivered;
    });
    device_.runMainUntil([&] { return done; }, 15);
    return delivered;
  }

  // Asks for syncs until nothing waits to be sent (or the service keeps refusing).
  void flush() {
    for (int attempt = 0; attempt < 20 && !settle(); ++attempt) {
    }
  }

  // The batch ids of the report calls the service answered with this status.
  std::string reportsAnswered(int status) {
    std::string ids;
    for (const auto& r : emulator_.requests("/v2/report/add")) {
      if (r.status != status) continue;
      const auto id = r.query.find("batch_id");
      const std::string text = id == r.query.end() ? std::string("?") : id->second;
      if (ids.find(text) == std::string::npos) ids += (ids.empty() ? "" : ", ") + text;  // once per batch
    }
    return ids.empty() ? "none" : ids;
  }

  std::size_t received(const std::string& path) { return emulator_.requestCount(path); }

 private:
  KOSimDevice& device_;
  KOEmulator& emulator_;
};

// The host's own reaction to a tapped inbox message: where the app would navigate.
class InboxNavigation : public KOInboxCellSelectedDelegate {
 public:
  void inboxCellSelectedWithData(const KODictionary& data) override {
    step("tapped: the app opens", data["screen"].isString() ? data["screen"].stringValue() : "(nothing)");
  }
};

// The host's delegate: where a tap on an in-app leads, and the campaigns it draws itself.
class InAppNavigation : public KOInAppDelegate {
 public:
  void inAppClickedForWidget(int, const std::string& screenName, const KODictionary& dataDict) override {
    step("tapped: the app opens",
         screenName.empty() ? "(nothing)" : screenName + " " + KOValue(dataDict).description());
  }
  void selfHandledInAppWithData(const KODictionary& data) override {
    step("self-handled, drawn by the app", data["content"].isString() ? data["content"].stringValue() : "");
    campaign = data["campaign_id"].isString() ? data["campaign_id"].stringValue() : "";
  }
  std::string campaign;
};

// The host's notification-centre delegate: every answer to a notification goes to the SDK.
class PushResponder : public KOUserNotificationCenterDelegate {
 public:
  bool handlesNotificationResponses() const override { return true; }
  void userNotificationCenter(KOUserNotificationCenter& center, const KONotificationResponse& response,
                              std::function<void()> completion) override {
    Kovantis::sharedInstance().userNotificationCenter(&center, response);
    completion();
  }
};

// A push as the service sends it: the platform's block, the service's, and the app's extras.
KODictionary servicePush(const std::string& cid, const std::string& alert, KODictionary block,
                         KODictionary appExtra = {}) {
  block.set("cid", cid);
  KODictionary push{{"aps", KODictionary{{"alert", alert}, {"badge", 1}}}, {"kovantis", std::move(block)}};
  if (!appExtra.empty()) push.set("app_extra", std::move(appExtra));
  return push;
}

void printDecisions(const KOArray& report) {
  for (const KOValue& d : report) {
    std::string why = d["shows"].isBool() && d["shows"].boolValue() ? "would show" : d["refusedBy"].description();
    if (d["minutesLeft"].isNumber()) why += " (" + d["minutesLeft"].description() + " min left)";
    step("  " + d["cid"].description(), why);
  }
}

std::string rowText(const KOViewDescription& row) {
  std::string text = row.children.empty() ? "" : row.children[0].text;
  if (text.size() > 44) text = text.substr(0, 41) + "...";
  const bool bold = !row.children.empty() && row.children[0].font.name.find("Bold") != std::string::npos;
  return (bold ? "[unread] " : "[read]   ") + text + (row.children.size() > 1 ? "  " + row.children[1].text : "");
}

// What the app hears of region crossings, the SDK's fences included.
class RegionLog : public KOGeoDelegate {
 public:
  void locManagerDidEnterRegion(KOLocationManager&, const KOCircularRegion& region) override {
    heard.push_back("entered " + region.identifier);
  }
  void locManagerDidExitRegion(KOLocationManager&, const KOCircularRegion& region) override {
    heard.push_back("left " + region.identifier);
  }
  std::vector<std::string> heard;
};

std::string coordinates(KOLocationCoordinate c) {
  char text[64];
  std::snprintf(text, sizeof text, "%.6f, %.6f", c.latitude, c.longitude);
  return text;
}

// A map of the watched fences and the walk, as an SVG picture: north up, a local flat projection
// (fine at city scale) fitted to the fences and the walk.
void drawGeofences(const std::string& path, const std::vector<KOCircularRegion>& fences,
                   const std::vector<KOLocationCoordinate>& walk, const std::vector<KOEmulatorGeofenceHit>& hits) {
  const double width = 640, height = 480, margin = 60;
  const double metresPerDegree = 111320.0, shrink = std::cos(walk.front().latitude * 3.14159265 / 180);
  // Everything in metres east and north of the first point of the walk.
  auto east = [&](KOLocationCoordinate c) { return (c.longitude - walk.front().longitude) * metresPerDegree * shrink; };
  auto north = [&](KOLocationCoordinate c) { return (c.latitude - walk.front().latitude) * metresPerDegree; };
  double minE = 0, maxE = 0, minN = 0, maxN = 0;
  auto extend = [&](KOLocationCoordinate c, double r) {
    minE = std::min(minE, east(c) - r), maxE = std::max(maxE, east(c) + r);
    minN = std::min(minN, north(c) - r), maxN = std::max(maxN, north(c) + r);
  };
  for (const auto& f : fences) extend(f.center, f.radius);
  for (const auto& p : walk) extend(p, 0);
  const double scale = std::min((width - 2 * margin) / (maxE - minE), (height - 2 * margin) / (maxN - minN));
  auto x = [&](KOLocationCoordinate c) { return margin + (east(c) - minE) * scale; };
  auto y = [&](KOLocationCoordinate c) { return height - margin - (north(c) - minN) * scale; };

  std::ofstream svg(path);
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
      << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"#f4f1ea\"/>\n";
  std::map<std::string, int> labelsAt;  // fences sharing a centre get their labels stacked
  for (const auto& f : fences) {
    const bool entry = f.notifyOnEntry;
    const int stacked = labelsAt[coordinates(f.center)]++;
    svg << "<circle cx=\"" << x(f.center) << "\" cy=\"" << y(f.center) << "\" r=\"" << f.radius * scale << "\" fill=\""
        << (entry ? "#4caf5033" : "#ff980033") << "\" stroke=\"" << (entry ? "#2e7d32" : "#e65100")
        << "\"/>\n<text x=\"" << x(f.center) + f.radius * scale + 4 << "\" y=\"" << y(f.center) + 13 * stacked
        << "\" fill=\"" << (entry ? "#2e7d32" : "#e65100") << "\">" << f.identifier
        << (entry ? " (reports entry)" : " (reports exit)") << "</text>\n";
  }
  svg << "<polyline fill=\"none\" stroke=\"#1565c0\" stroke-width=\"2\" stroke-dasharray=\"6 4\" points=\"";
  for (const auto& p : walk) svg << x(p) << "," << y(p) << " ";
  svg << "\"/>\n";
  for (const auto& p : walk) svg << "<circle cx=\"" << x(p) << "\" cy=\"" << y(p) << "\" r=\"3\" fill=\"#1565c0\"/>\n";
  svg << "<text x=\"" << x(walk.front()) + 6 << "\" y=\"" << y(walk.front()) + 14 << "\">walk start</text>\n";
  double line = 20;
  for (const auto& h : hits) {
    svg << "<text x=\"10\" y=\"" << line << "\">service recorded: " << h.transitionType << " " << h.geoId
        << "</text>\n";
    line += 15;
  }
  const double bar = 100 * scale;  // 100 m
  svg << "<line x1=\"10\" y1=\"" << height - 14 << "\" x2=\"" << 10 + bar << "\" y2=\"" << height - 14
      << "\" stroke=\"black\"/>\n<text x=\"" << 14 + bar << "\" y=\"" << height - 10 << "\">100 m</text>\n</svg>\n";
}

}  // namespace

int main(int argc, char** argv) {
  std::string root = "build/demo-device";
  bool reinstall = false;
  bool revokePush = false;
  bool keep = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--device") == 0 && i + 1 < argc)
      root = argv[++i];
    else if (std::strcmp(argv[i], "--reinstall") == 0)
      reinstall = true;
    else if (std::strcmp(argv[i], "--revoke-push") == 0)
      revokePush = true;
    else if (std::strcmp(argv[i], "--keep") == 0)
      keep = true;
  }
  // The stop signals are taken by sigwait below: blocked before any thread starts, so every
  // thread inherits the mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  if (keep) pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  KOSimDeviceConfig config;
  config.rootDirectory = root;
  KOSimDevice device(config);
  device.install();
  if (reinstall) device.uninstall();

  KOEmulator::Options options;
  options.dataDir = root + "/emulator";
  options.imagesDir = KOVANTIS_DEMO_ASSETS;
  auto shown = std::make_shared<ShownCampaigns>();
  options.campaignPicture = [shown](const std::string& campaign) { return shown->pictureOf(campaign); };
  KOEmulator emulator(options);
  emulator.reset();
  emulator.seed(DemoSeeds::config());
  emulator.seed(DemoSeeds::inbox(static_cast<double>(std::time(nullptr))));
  device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", emulator.start(0)));
  emulator.seed(DemoSeeds::inApps(emulator.baseURL() + "/images"));
  Demo demo(device, emulator);
  Kovantis& sdk = Kovantis::sharedInstance();
  Kovantis::debug(2);  // the SDK's console: exceptions and errors only

  std::printf("Kovantis SDK %s on a simulated %s (%s %s); emulator at %s\n", LIBRARY_VERSION,
              device.profile().model().c_str(), device.profile().systemName().c_str(),
              device.profile().systemVersion().c_str(), emulator.baseURL().c_str());

  // What the user chose in the system settings since the last run: notifications off with
  // --revoke-push, on otherwise.
  device.notificationCenter().setAlertSetting(revokePush ? KONotificationSettingDisabled
                                                         : KONotificationSettingEnabled);

  std::size_t pending = 0;
  KONotificationCenter::defaultCenter().addObserver(KOInboxPendingNotificationsNotification,
                                                    [&](const KONotification& n) {
                                                      const KOValue& list = n.userInfo[KOInboxPendingNotificationsKey];
                                                      pending += list.isArray() ? list.arrayValue().size() : 0;
                                                    });

  section("Launch");
  device.launch();
  sdk.initializeWithApiKey(KOValue("kovantis-demo-app"));
  sdk.appStatus(KOAppStatusInstall);
  step("initialised with app id", "kovantis-demo-app");
  step("vendor id", device.profile().identifierForVendor());
  step("install or reinstall",
       reinstall ? "reinstall: the keychain remembered this phone" : "first run or same install");
  device.becomeActive();
  step("app became active", "session started");

  section("User");
  sdk.setUserUniqueID(KOValue("user-1001"));
  sdk.setUserEmailID(KOValue("ada@example.com"));
  sdk.setUserEmailID(KOValue("ada@example.com"));
  sdk.setUserGender(KOUserGenderFemale);
  sdk.setUserDateOfBirth(KOValue(KODate{-1000000000}));
  sdk.setUserLocationLatitude(12.9716, 77.5946);
  step("attributes set", "id, e-mail (twice: sent once), gender, birthday, location");

  section("Push");
  // The app delegate hands the token (or the failure) to the SDK.
  std::string token;
  device.application().setRemoteNotificationHandlers(
      [&](const std::string& bytes) {
        token = bytes;
        sdk.registerForPush(KOValue(KOData{std::vector<std::uint8_t>(bytes.begin(), bytes.end())}));
      },
      [&] { sdk.didFailToRegisterForPush(); });
  auto orders = std::make_shared<KOUserNotificationCategory>();
  orders->identifier = "ORDER_UPDATE";
  orders->actions = {{"TRACK", "Track order", 4}, {"CANCEL", "Cancel order", 2}};
  // Pushes reach the SDK from the app delegate and, for the user's answers, the notification
  // centre's delegate.
  device.application().setRemoteNotificationHandler([&](const KODictionary& userInfo) {
    sdk.didReceieveNotificationinApplication(&device.application(), KOValue(userInfo), true);
  });
  sdk.registerForRemoteNotificationWithCategories(std::vector<std::shared_ptr<KONotificationCategoryBase>>{orders}, {},
                                                  std::make_shared<PushResponder>());
  device.runMainUntil([&] { return !token.empty(); }, 10);
  step("permission", revokePush ? "turned off in the system settings" : "granted");
  std::string hex;
  for (unsigned char c : token.substr(0, 6)) {
    static const char* digits = "0123456789abcdef";
    hex += digits[c >> 4];
    hex += digits[c & 15];
  }
  step("device token (32 bytes)", hex + "...");
  std::string installed;
  for (const auto& c : device.notificationCenter().installedCategories()) {
    installed += (installed.empty() ? "" : ", ") + c->identifier.value_or("?");
  }
  step("categories installed", installed);

  section("Inbox");
  // The app asks for new messages, hears of those it was not handed before (here or in the fetch
  // the SDK makes at launch once it knows the push token), then embeds the ready-made screen.
  std::optional<bool> fetched;
  KOInbox::fetchInboxMessagesWithCompletion([&](bool answered) { fetched = answered; });
  device.runMainUntil([&] { return fetched.has_value(); }, 10);
  step("fetched from the service", fetched.value_or(false) ? "answered" : "no answer");
  step("new messages handed to the app", std::to_string(pending));
  KOViewController home;
  home.name = "HomeScreen";
  auto inboxScreen = KOInbox::initializeInboxOnController(&home);
  auto navigation = std::make_shared<InboxNavigation>();
  if (inboxScreen) {
    inboxScreen->setDelegate(navigation);
    const auto screen = device.userInterface().embeddedScreen();
    const auto& list = screen->children.at(0);
    for (const auto& row : list.children) step("row", rowText(row));
    if (!list.children.empty()) device.userInterface().tapView(KOInboxViewController::tagForRow(0));
    if (list.children.size() > 2) {
      device.userInterface().swipeToDelete(KOInboxViewController::tagForRow(list.children.size() - 1));
      step("swiped away the oldest", std::to_string(KOInbox::getInboxMessages().size()) + " left in the inbox");
    }
    const std::string picture = root + "/inbox.svg";
    std::ofstream(picture) << device.userInterface().renderEmbeddedScreen();
    step("picture of the screen", picture);
  }

  section("In-app messages");
  // The campaigns arrived with the fetch at launch; the home screen asks for one.
  auto inAppNavigation = std::make_shared<InAppNavigation>();
  sdk.setDelegate(inAppNavigation);
  KOViewController homeScreen;
  homeScreen.name = "HomeViewController";
  // Asked while the launch's fetch may still run: answered when it ends, for this screen.
  sdk.handleInAppMessageForViewController(&homeScreen);
  device.runMainUntil([&] { return device.userInterface().presentedScreen().has_value(); }, 10);
  if (device.userInterface().presentedScreen()) {
    const std::string picture = root + "/inapp-spring-sale.svg";
    const std::string drawn = device.userInterface().renderPresentedScreen();
    std::ofstream(picture) << drawn;
    shown->add("spring-sale", drawn);
    step("shown on HomeViewController", "spring-sale, picture " + picture);
    device.userInterface().tapView(3);  // its primary button
  }
  sdk.handleInAppMessageForViewController(&homeScreen);
  step("asked again at once", device.userInterface().presentedScreen() ? "shown" : "refused; the report says why:");
  printDecisions(sdk.inAppDecisionReport(&homeScreen));
  sdk.trackEvent(KOValue("ADD_TO_CART"), KOValue(KODictionary{{"sku", "SHOE-42"}}));
  device.runMainUntil([&] { return device.userInterface().presentedScreen().has_value(); }, 10);
  if (device.userInterface().presentedScreen()) {
    const std::string picture = root + "/inapp-cart-offer.svg";
    const std::string drawn = device.userInterface().renderPresentedScreen();
    std::ofstream(picture) << drawn;
    shown->add("cart-offer", drawn);
    step("ADD_TO_CART triggered", "cart-offer, picture " + picture);
    device.userInterface().setRating(2, 5);
    device.userInterface().tapView(3);
    step("tapped Add", "coupon on the pasteboard: " + device.userInterface().pasteboardString());
  }
  device.clock().advance(120);  // two minutes later: the minimum delay between in-apps has passed
  sdk.getSelfHandledInApp();
  if (!inAppNavigation->campaign.empty()) sdk.selfHandledInAppViewShownWithCampaignID(inAppNavigation->campaign);
  device.clock().useRealTime();

  section("Push notifications");
  // The user opens pushes from the notification centre while the app is in the background.
  // The app's URL router: the deep links of its pushes open its own screens.
  auto routed = std::make_shared<std::string>();
  device.application().setURLHandler("kovantis-demo://", [routed](const std::string& url) {
    *routed = url.substr(std::string("kovantis-demo://").size());
    return true;
  });
  device.userInterface().setAlertAnswer(std::nullopt);
  device.resignActive();
  device.enterBackground();
  device.openPush(servicePush("push-coupon", "20% off shoes", KODictionary{{"couponCode", "SHOES20"}},
                              KODictionary{{"kov_deeplink", "kovantis-demo://shop/shoes"}}));
  device.runMainUntil([&] { return !device.userInterface().alerts().empty(); }, 10);
  const std::size_t couponAlert = device.userInterface().alerts().size() - 1;
  std::string dialog = device.userInterface().alerts()[couponAlert].message;
  if (const auto br = dialog.find('\n'); br != std::string::npos) dialog.replace(br, 1, "\\n");
  step("opened a coupon push", "dialog: \"" + dialog + "\"");
  device.userInterface().tapAlertAction(couponAlert, 0);
  device.runMainUntil([&] { return !routed->empty(); }, 10);
  step("tapped COPY", "pasteboard: " + device.userInterface().pasteboardString() +
                          ", then the deep link opened the app's screen " + *routed);

  device.openPush(
      servicePush("push-landing", "The summer collection", KODictionary{{"webUrl", "https://example.com/summer"}}));
  device.runMainUntil([&] { return !device.userInterface().browserURL().empty(); }, 10);
  const std::string landing = root + "/landing-page.svg";
  std::ofstream(landing) << device.userInterface().renderPresentedScreen();
  step("opened a landing-page push", "browser at " + device.userInterface().browserURL() + ", picture " + landing);
  device.userInterface().finishBrowser();
  step("tapped Done", device.userInterface().browserURL().empty() ? "browser closed" : "still open");

  device.openPush(servicePush("push-inapp", "Something for you", KODictionary{{"kov_inapp_cid", "push-welcome"}}));
  device.runMainUntil([&] { return device.userInterface().presentedScreen().has_value(); }, 10);
  if (device.userInterface().presentedScreen()) {
    const std::string picture = root + "/inapp-from-push.svg";
    std::ofstream(picture) << device.userInterface().renderPresentedScreen();
    step("opened a push with an in-app", "push-welcome fetched and shown, picture " + picture);
    device.userInterface().tapView(2);
  }
  // An embedded campaign from a push goes into the screen on top, as a nudge.
  auto product = std::make_shared<KOViewController>();
  product->name = "ProductScreen";
  device.application().setKeyWindowRootViewController(product);
  device.openPush(servicePush("push-nudge", "Free delivery today", KODictionary{{"kov_inapp_cid", "push-nudge"}}));
  const auto nudgeShown = [&] { return device.screen().last("embeddedScreen")["host"] == KOValue("ProductScreen"); };
  if (device.runMainUntil(nudgeShown, 10)) {
    const std::string picture = root + "/nudge-from-push.svg";
    std::ofstream(picture) << device.userInterface().renderEmbeddedScreen();
    step("opened a push with a nudge", "embedded: went into ProductScreen, picture " + picture);
    device.userInterface().tapView(2);
  }
  // A smart trigger whose campaign is self-handled goes to the app's delegate, which draws it.
  sdk.trackEvent(KOValue("WISHLIST_ADD"), KOValue(KODictionary{{"sku", "SHOE-42"}}));
  if (device.runMainUntil([&] { return inAppNavigation->campaign == "wishlist-note"; }, 10)) {
    step("WISHLIST_ADD triggered", "wishlist-note went to the app's delegate (self-handled)");
  }
  device.respondToPush(servicePush("push-dismissed", "Last chance", {}), KONotificationDismissActionIdentifier);
  step("swiped one away", "the dismissal is sent at once");
  device.respondToPush(servicePush("push-order", "Your order shipped", {}), "TRACK");
  step("tapped \"Track order\" on another", "a click with the button's title");
  device.receivePush(servicePush("push-live", "Flash sale now", {}));
  step("one arrived while the app was open", "recorded as received, no click");
  demo.flush();
  for (const auto& c : emulator.campaignEvents()) {
    if (c.campaignId.rfind("push-", 0) != 0 || c.campaignId == "push-welcome") continue;
    step("  " + c.campaignId, "clicked " + std::to_string(c.pushClicked) + ", dismissed " +
                                  std::to_string(c.pushDismissed) + ", received " + std::to_string(c.pushReceived));
  }
  step("inbox now holds", std::to_string(KOInbox::getInboxMessages().size()) + " messages (the opened pushes added)");

  section("Events");
  for (int i = 0; i < 40; ++i) {
    sdk.trackEvent(KOValue("PRODUCT_VIEWED"), KOValue(KODictionary{{"sku", "SKU-" + std::to_string(1000 + i)},
                                                                   {"price", 19.99 + i},
                                                                   {"quantity", 1 + i % 3},
                                                                   {"in_stock", i % 4 != 0},
                                                                   {"viewed_at", KODate{1700000000.0 + i}}}));
  }
  KOPayloadBuilder checkout(std::make_shared<KODictionary>(KODictionary{{"order", "A-77"}, {"total", 59.97}}));
  checkout.setDate(KOValue(KODate{1700003600}), "delivery");
  checkout.setLocationLat(12.9716, 77.5946, "store");
  sdk.trackEvent(KOValue("CHECKOUT"), checkout);
  step("tracked", "40 product views with typed attributes, 1 checkout with a date and a place");
  step("the 30th record cut a batch", "and synced it at once; the rest wait in memory");

  demo.settle();

  section("Background and back");
  device.resignActive();
  step("app resigned active", "session end, sync inside background task \"KOVTask\"");
  device.enterBackground();
  demo.settle();
  step("background tasks still open", std::to_string(device.application().activeBackgroundTasks().size()));
  step("reports the service accepted", std::to_string(emulator.batches().size()));

  section("A sync that fails, and its retry");
  emulator.injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 1.0});
  device.enterForeground();
  device.becomeActive();
  for (int i = 0; i < 5; ++i)
    sdk.trackEvent(KOValue("SEARCH"), KOValue(KODictionary{{"query", "shoes " + std::to_string(i)}}));
  sdk.syncNow();
  demo.settle();
  step("service answered 503 (injected)", "for batch " + demo.reportsAnswered(503) + ": kept on the device");
  emulator.clearFaults();
  demo.flush();
  step("retried under the same id", "accepted: " + demo.reportsAnswered(200));

  section("Geofences");
  emulator.seed(DemoSeeds::geofences());
  KOSimLocationServices& location = device.location();
  const std::vector<KOLocationCoordinate> walk = {
      {52.51450, 13.37400}, {52.51560, 13.37620}, {52.51630, 13.37770}, {52.51700, 13.37920}, {52.51800, 13.38100}};
  location.moveTo(walk.front());
  location.setPromptAnswer(KOAuthorizationStatusAuthorizedAlways, /*later=*/true);
  auto regions = std::make_shared<RegionLog>();
  auto manager = location.makeManager();
  sdk.setGeoDelegate(regions);
  sdk.startGeofencingWithLocationManager(manager);
  step("location permission", location.promptOpen() ? "asked; the user has not answered yet" : "already decided");
  location.answerPrompt();
  step("the user allowed", "always");
  device.runMainUntil([&] { return location.monitoredRegions().size() >= 3; }, 10);
  step("device location", coordinates(walk.front()));
  step("fence requests", std::to_string(demo.received("/v1/geoFences")) + " (the service answers fences within 5 km)");
  for (const auto& r : location.monitoredRegions()) {
    step(r.notifyOnEntry ? "watching (reports entry)" : "watching (reports exit)",
         r.identifier + " at " + coordinates(r.center) + ", " + std::to_string(static_cast<int>(r.radius)) + " m");
  }
  for (std::size_t i = 1; i < walk.size(); ++i) {
    location.moveTo(walk[i]);
    device.pumpMain();
  }
  device.runMainUntil([&] { return emulator.geofenceHits().size() >= 2; }, 10);
  std::string heard;
  for (const auto& h : regions->heard) heard += (heard.empty() ? "" : ", ") + h;
  step("walked across the Gate", "the app heard: " + heard);
  const auto hits = emulator.geofenceHits();
  for (const auto& h : hits) {
    step("service recorded a hit", h.transitionType + " " + h.geoId + " at " + coordinates({h.lat, h.lng}));
  }
  drawGeofences(root + "/geofences.svg", location.monitoredRegions(), walk, hits);
  step("map of the fences and the walk", root + "/geofences.svg");

  section("Logout");
  sdk.resetUser();
  demo.flush();
  device.runMainUntil([&] { return demo.received("/v2/device/add") > 0; }, 10);
  demo.settle();
  step("logout sent, user data cleared",
       "device registered again: " + std::to_string(demo.received("/v2/device/add")) + " device add call(s)");

  demo.flush();  // the new registration's device attributes too

  if (const auto devices = emulator.devices(); !devices.empty()) {
    step("persistent id (keychain)", devices.back().deviceUniqueId);
  }

  section("What the service stored");
  if (emulator.categories().empty()) step("notification categories", "none sent: the service has this version's");
  for (const auto& c : emulator.categories()) {
    step("notification categories", c.dataJSON.substr(0, 60) + "... from device " + c.deviceUniqueId.substr(0, 14));
  }
  std::map<std::string, int> byName;
  const auto stored = emulator.events();
  if (std::none_of(stored.begin(), stored.end(),
                   [](const auto& e) { return e.name == "KO_PUSH_PREFERENCE_CHANGED"; })) {
    step("push preference", "unchanged since the last run: no event");
  }
  for (const auto& e : stored) {
    ++byName[e.name];
    if (e.name == "KO_PUSH_PREFERENCE_CHANGED") {
      step("push preference changed",
           e.json.find("\"push_preference_status\":true") != std::string::npos ? "to on" : "to off");
    }
  }
  for (const auto& [name, count] : byName) step(name, std::to_string(count));
  step("batches / duplicates refused",
       std::to_string(emulator.batches().size()) + " / " + std::to_string(emulator.duplicates().size()));
  std::size_t failed = 0;
  for (const auto& r : emulator.requests("/v2/report/add")) failed += r.status != 200;
  step("report requests (failed)",
       std::to_string(emulator.requests("/v2/report/add").size()) + " (" + std::to_string(failed) + ")");

  runPrivacySection(device, emulator, root + "/export.json");

  const auto lines = device.console().lines();
  if (!lines.empty()) {
    section("SDK console (exceptions and errors)");
    for (const auto& l : lines) std::printf("  | %s\n", l.c_str());
  }
  device.resignActive();
  device.enterBackground();  // the SDK lets go of its idle connections, as when the app is left
  demo.settle();
  if (keep) {
    std::printf("\nThe emulator stays up: dashboard at %s (Ctrl-C stops it)\n", emulator.dashboardURL().c_str());
    std::fflush(stdout);
    int received = 0;
    sigwait(&stopSignals, &received);
  }
  emulator.stop();
  return 0;
}
