// kovantis-demo: a scripted app session on the simulated device against a local emulator of the
// service, printing a timeline of what the SDK did and what the service stored. The device lives
// in a directory of its own, so a second run is the same phone again (--reinstall deletes the app
// first; the keychain stays, and the SDK reports the reinstall).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "KOEmulator.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"
#include "kovantis/Kovantis.h"

namespace {

void section(const char* title) { std::printf("\n== %s\n", title); }
void step(const std::string& what, const std::string& detail = "") {
  std::printf("  %-34s %s\n", what.c_str(), detail.c_str());
}

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
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--device") == 0 && i + 1 < argc)
      root = argv[++i];
    else if (std::strcmp(argv[i], "--reinstall") == 0)
      reinstall = true;
    else if (std::strcmp(argv[i], "--revoke-push") == 0)
      revokePush = true;
  }

  KOSimDeviceConfig config;
  config.rootDirectory = root;
  KOSimDevice device(config);
  device.install();
  if (reinstall) device.uninstall();

  KOEmulator::Options options;
  options.dataDir = root + "/emulator";
  KOEmulator emulator(options);
  emulator.reset();
  emulator.seed(R"({"config": {"l_e": 0, "e_b_c": 30}})");
  device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", emulator.start(0)));
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
  sdk.registerForRemoteNotificationWithCategories(std::vector<std::shared_ptr<KONotificationCategoryBase>>{orders});
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
  // Two campaigns at the Gate (one on arrival, one on leaving), one at the station, one out of town.
  emulator.seed(R"({"geofences": {"search_radius": 5000, "fencesInfo": [
      {"geoId": "gate-arrival", "lat": 52.51630, "lng": 13.37770, "distance": 120, "transitionType": "enter"},
      {"geoId": "gate-goodbye", "lat": 52.51630, "lng": 13.37770, "distance": 120, "transitionType": "exit"},
      {"geoId": "station", "lat": 52.52500, "lng": 13.36940, "distance": 200, "transitionType": "enter"},
      {"geoId": "lakeside", "lat": 52.39880, "lng": 13.06560, "distance": 300, "transitionType": "enter"}]}})");
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

  const auto lines = device.console().lines();
  if (!lines.empty()) {
    section("SDK console (exceptions and errors)");
    for (const auto& l : lines) std::printf("  | %s\n", l.c_str());
  }
  device.resignActive();
  device.enterBackground();  // the SDK lets go of its idle connections, as when the app is left
  demo.settle();
  emulator.stop();
  return 0;
}
