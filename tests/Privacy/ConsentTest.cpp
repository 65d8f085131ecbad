// Tracking consent end to end: a denied app sends nothing whatever it does, across launches; held
// events go once on a grant and never after a denial; the service learns of a denial from the last
// sync the app chose to send, and of a wipe from the install that follows it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include "KOChildProcess.h"
#include "KODataHandler/KOEventJournal.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/ADHttpClient.h"
#include "Network/KOServerInterface.h"
#include "PrivacySession.h"

namespace {

constexpr const char* kDeniedLine = "Kovantis - Tracking consent is denied: events and attributes are not recorded";

// One launch of the app in a process of its own; what it printed (the consent it ended with).
std::string launch(const KOChildProcessRig& rig, const std::string& step, double clockOffset = 0) {
  KOChildProcess child =
      KOChildProcess::spawn({KOV_PRIVACY_CHILD, rig.root, std::to_string(rig.port), step, std::to_string(clockOffset)});
  if (child.pid < 0) return "could not start";
  std::string out;
  char buffer[256];
  for (ssize_t n; (n = ::read(child.output, buffer, sizeof buffer)) > 0;) out.append(buffer, static_cast<size_t>(n));
  ::close(child.output);
  int status = 0;
  ::waitpid(child.pid, &status, 0);
  if (!out.empty() && out.back() == '\n') out.pop_back();
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? out : "failed: " + out;
}

}  // namespace

class ConsentTest : public KOSDKTestDevice {
 protected:
  KOSimDeviceConfig config() override {
    KOSimDeviceConfig c;
    c.appGroups = {privacy_session::kAppGroup};
    return c;
  }
  void SetUp() override {
    KOSDKTestDevice::SetUp();
    emulator().seed(privacy_session::seed(emulator().baseURL()));
    Kovantis::debug(1);  // the console holds every line
  }

  /// Records the journal still holds (tracked, or cut into batches), across both its files.
  std::size_t journalRecords() {
    std::size_t records = 0;
    const std::string base = device().documentsDirectory() + "/KovantisEvents.journal.";
    for (const char* file : {"0", "1"}) {
      const auto bytes = device().rawFiles().readFile(base + file);
      if (!bytes) continue;
      const KOEventJournal::Replay replay = KOEventJournal::replay(*bytes);
      records += replay.pending.size();
      for (const auto& [id, batch] : replay.batches) records += replay.done.count(id) ? 0 : batch.count;
    }
    return records;
  }
  bool fileExists(const std::string& name) {
    return device().rawFiles().fileExists(device().documentsDirectory() + "/" + name);
  }
  std::vector<std::string> sdkRegions() {
    std::vector<std::string> ours;
    for (const auto& r : device().location().monitoredRegions()) {
      if (r.identifier.ends_with("-KO")) ours.push_back(r.identifier);
    }
    return ours;
  }
  void track(const char* name, int count) {
    for (int i = 0; i < count; ++i) sdk().trackEvent(KOValue(name), KOValue(KODictionary{{"seq", i}}));
  }
  /// Whether a flush answers that everything was delivered.
  bool flushed() {
    std::optional<bool> all;
    sdk().flush([&](bool delivered) { all = delivered; });
    EXPECT_TRUE(waitFor([&] { return all.has_value(); }));
    return all.value_or(false);
  }
};

TEST_F(ConsentTest, DeniedAWholeSessionAndEveryOtherCallSendNothingAcrossARelaunch) {
  sdk().setTrackingConsent(KOTrackingConsent::Denied);
  privacy_session::Session session(device(), /*traffic=*/false);
  session.run();
  // The calls the session does not make.
  KOViewController screen;
  screen.name = "Home";
  sdk().getSelfHandledInApp();
  sdk().showNudgeViewInViewController(&screen, 0);
  sdk().addDeviceWithCompletion(nullptr);
  sdk().setDeviceAttribute(KOValue("x"), KOValue("custom_device"));
  sdk().getInboxMessages();
  sdk().handleActionWithIdentifier(KOValue("TRACK"), KOValue(KODictionary{{"kovantis", KODictionary{{"cid", "c"}}}}));
  sdk().saveAndRegisterWithToken(KOValue("abcd"));
  sdk().queryForAdvertisingID();
  sdk().trackLocale();
  EXPECT_TRUE(flushed()) << "nothing waits on the device";
  sdk().resetUser();
  session.settle();

  device().preferences().reloadAll();  // the next launch
  privacy_session::Session again(device(), false);
  again.start();
  again.attributesAndEvents();
  again.lifecycle();
  EXPECT_TRUE(flushed());

  EXPECT_EQ(emulator().requestCount(), 0u) << emulator().inspectJSON("requests");
  EXPECT_EQ(device().console().count(kDeniedLine), 2u) << "one line per start";
  EXPECT_TRUE(sdkRegions().empty());
  EXPECT_FALSE(session.shownInApp);
  EXPECT_EQ(journalRecords(), 0u);
  for (const char* kept : {"KovantisBatchEvents.plist", "KovantisUserAttributes.plist", "InboxMessages.plist"}) {
    EXPECT_FALSE(fileExists(kept)) << kept;
  }
  EXPECT_TRUE(device().preferences().suite(privacy_session::kAppGroup)->dictionaryRepresentation().empty());
}

TEST_F(ConsentTest, EveryCallOfTheServiceTableLeavesTheDeviceOnlyWithConsent) {
  start();
  KovantisUtils::saveDeviceToken(KOValue("00ff"));
  ASSERT_TRUE(deliverAll());
  KOServerInterface& server = KOServerInterface::sharedInstance();
  const KOLocationCoordinate where{52.52, 13.405};
  // Each row of the service table through the server interface and, built by the request
  // generator, straight through the transport; returns how many answers to wait for.
  auto walk = [&](std::size_t& answered) {
    std::size_t asked = 0;
    auto done = [&answered](auto&&...) { ++answered; };
    for (const KOServiceRow& row : ADServiceRequestGenerator::serviceTable()) {
      ++asked;
      switch (row.service) {
        case KOServiceNumberInitializeV2:
          server.initializeWith({}, done);
          break;
        case KOServiceNumberSendReportsV2:
          server.sendData(KOValue(KODictionary{{"viewsInfo", KOArray{}}, {"viewsCount", 0}}), KOValue("1700000000000"),
                          done);
          break;
        case KOServiceNumberGetInAppsV2:
          server.getInAppCampaignsWithLastUpdatedTime(KOValue("0"), {}, done);
          break;
        case KOServiceNumberGetSingleInApp:
          server.getInAppForCampaignID("sale", done);
          break;
        case KOServiceNumberSmartTriggerInApps:
          server.triggerSmartInAppWithEvent("ADD_TO_CART", KOValue(), done);
          break;
        case KOServiceNumberInbox:
          server.getPushNotificationsFromServerWithLastUpdatedTime(KOValue("0"), done);
          break;
        case KOServiceNumberSendCategories:
          server.setNotificationCategoriesWithCategories(KOArray{});
          --asked;  // no completion
          break;
        case KOServiceNumberGeofenceHit:
          server.geofenceHitWithLocation(&where, "enter", "gate", done);
          break;
        case KOServiceNumberGetGeofences:
          server.getGeofencesForLocation(&where, done);
          break;
        case KOServiceNumberGetConfig:
          device().preferences().standard().removeObjectForKey("CONFIG_LAST_UPDATED");  // due again
          server.getConfigForKovantis();
          --asked;
          break;
        case KOServiceNumberSendLogs:
          server.sendLogToLogEntries("a line", KOValue(), "ERROR");
          --asked;
          break;
        default:
          ADD_FAILURE() << "no call for service " << row.service << " (" << row.path << ")";
      }
      const KOValue body = std::string(row.method) == "GET" ? KOValue() : KOValue(KODictionary{});
      if (auto request = server.requestGenerator().requestForService(row.service, server.getUniversalParams(), body)) {
        ++asked;
        ADHttpClient::sharedInstance().syncRequestWithStatus(std::move(*request), done);
      }
    }
    return asked;
  };

  // Granted: the walk reaches every row of the service, twice.
  emulator().reset();
  std::size_t answered = 0;
  std::size_t asked = walk(answered);
  ASSERT_TRUE(waitFor([&] {
    for (const KOServiceRow& row : ADServiceRequestGenerator::serviceTable()) {
      if (emulator().requestCount(row.path) < 2) return false;
    }
    return answered == asked;
  })) << emulator().inspectJSON("requests");

  sdk().setTrackingConsent(KOTrackingConsent::Denied);
  emulator().reset();
  answered = 0;
  asked = walk(answered);
  ASSERT_TRUE(waitFor([&] { return answered == asked; }));
  EXPECT_TRUE(waitFor([&] { return device().dispatch().backgroundIdle(); }));
  EXPECT_EQ(emulator().requestCount(), 0u) << emulator().inspectJSON("requests");
}

TEST_F(ConsentTest, PendingHoldsEverythingAndAGrantDeliversEachHeldEventOnce) {
  Kovantis::setDefaultTrackingConsent(KOTrackingConsent::Pending);
  start();
  track("HELD", 40);  // past the batch size: a cut, and its sync, happen while pending
  sdk().setUserEmailID(KOValue("ada@example.com"));
  EXPECT_FALSE(flushed());
  EXPECT_EQ(sdk().trackingConsent(), KOTrackingConsent::Pending);
  EXPECT_EQ(emulator().requestCount(), 0u) << "no report, registration, fetch or log";

  sdk().setTrackingConsent(KOTrackingConsent::Granted);
  ASSERT_TRUE(deliverAll());
  std::multiset<std::int64_t> seqs;
  for (const KOValue& held : storedEvents("HELD")) seqs.insert(held["EVENT_ATTRS"]["seq"].intValue());
  EXPECT_EQ(seqs.size(), 40u);
  for (std::int64_t i = 0; i < 40; ++i) EXPECT_EQ(seqs.count(i), 1u) << i;
  std::size_t emails = 0;
  for (const KOValue& attribute : storedEvents("EVENT_ACTION_USER_ATTRIBUTE")) {
    emails += attribute["EVENT_ATTRS"]["USER_ATTRIBUTE_USER_EMAIL"] == KOValue("ada@example.com");
  }
  EXPECT_EQ(emails, 1u);
  EXPECT_TRUE(waitForRequests("/v1/getConfig", 1)) << "the modules go on after the grant";
  EXPECT_EQ(device().preferences().standard().objectForKey(KOConsentGate::kPreferenceKey), KOValue("granted"));
}

TEST_F(ConsentTest, PendingThenDeniedLeavesNothingHeldAndNothingIsEverSent) {
  Kovantis::setDefaultTrackingConsent(KOTrackingConsent::Pending);
  start();
  track("HELD", 40);
  sdk().setUserEmailID(KOValue("ada@example.com"));
  settle();
  ASSERT_GT(journalRecords() + (fileExists("KovantisBatchEvents.plist") ? 1 : 0), 0u);

  sdk().setTrackingConsent(KOTrackingConsent::Denied, KOPendingData::Send);  // pending data is never the user's
  settle();
  EXPECT_EQ(journalRecords(), 0u);
  EXPECT_FALSE(fileExists("KovantisBatchEvents.plist"));
  EXPECT_FALSE(fileExists("KovantisUserAttributes.plist"));
  EXPECT_EQ(emulator().requestCount(), 0u);

  sdk().setTrackingConsent(KOTrackingConsent::Granted);
  sdk().trackEvent(KOValue("AFTER"));
  sdk().setUserEmailID(KOValue("ada@example.com"));  // sent again: the discarded one never was
  ASSERT_TRUE(deliverAll());
  EXPECT_TRUE(storedEventNames("HELD").empty());
  EXPECT_EQ(storedEventNames("AFTER").size(), 1u);
  EXPECT_EQ(storedEvents("EVENT_ACTION_USER_ATTRIBUTE").size(), 1u);
}

TEST_F(ConsentTest, DenyingWithTheHeldEventsSentDeliversThemMarkedThenNothingLeaves) {
  startClean();
  device().location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
  device().location().moveTo({52.5180, 13.4050});
  auto manager = device().location().makeManager();
  manager->startMonitoringForRegion({{52.53, 13.40}, 50, "host-region", true, true});
  sdk().startGeofencingWithLocationManager(manager);
  ASSERT_TRUE(waitFor([&] { return sdkRegions().size() == 1; }));
  track("HELD", 5);  // below the batch size: in memory

  sdk().setTrackingConsent(KOTrackingConsent::Denied, KOPendingData::Send);
  EXPECT_TRUE(sdkRegions().empty()) << "the SDK's fences go at once";
  EXPECT_EQ(device().location().monitoredRegions().size(), 1u) << "the host's stays";
  ASSERT_TRUE(waitFor(
      [&] { return sdk().trackingConsent() == KOTrackingConsent::Denied && !KOConsentGate::shared().closing(); }));
  EXPECT_EQ(storedEventNames("HELD").size(), 5u);
  const auto reports = emulator().requests("/v2/report/add");
  ASSERT_FALSE(reports.empty());
  for (const auto& report : reports) EXPECT_EQ(report.query.at("tracking_consent"), "denied") << report.target;
  const KOValue installs = KOJSONSerialization::parse(emulator().inspectJSON("privacy"));
  ASSERT_EQ(installs.arrayValue().size(), 1u);
  EXPECT_EQ(installs.arrayValue()[0]["consent"], KOValue("denied"));

  emulator().reset();
  track("AFTER", 40);
  sdk().setUserEmailID(KOValue("ada@example.com"));
  sdk().syncNow();
  settle();
  EXPECT_EQ(emulator().requestCount(), 0u);
  EXPECT_EQ(journalRecords(), 0u);
  EXPECT_EQ(device().console().count(kDeniedLine), 1u);
}

TEST_F(ConsentTest, DenyingWithTheHeldEventsDiscardedSendsNoneOfThem) {
  startClean();
  track("HELD", 5);
  sdk().setTrackingConsent(KOTrackingConsent::Denied, KOPendingData::Discard);
  EXPECT_EQ(journalRecords(), 0u);
  EXPECT_TRUE(flushed()) << "nothing is left waiting";
  sdk().setTrackingConsent(KOTrackingConsent::Granted);
  ASSERT_TRUE(deliverAll());
  EXPECT_TRUE(storedEventNames("HELD").empty());
}

// Real next launches: processes of their own on one device directory.
TEST(ConsentAcrossLaunchesTest, TheDenialHoldsAtTheNextLaunchAndTheServiceMarksAWipedInstall) {
  KOChildProcessRig rig("kovantis-privacy-" + std::to_string(::getpid()));
  ASSERT_EQ(launch(rig, "track"), "granted");
  ASSERT_EQ(launch(rig, "wipe"), "denied") << "a wiped SDK records nothing until the next launch";
  ASSERT_EQ(launch(rig, "track", 10), "granted") << "the next launch is a fresh install";
  ASSERT_EQ(launch(rig, "deny", 20), "denied");
  const KOValue installs = KOJSONSerialization::parse(rig.emulator.inspectJSON("privacy"));
  ASSERT_EQ(installs.arrayValue().size(), 2u) << installs.description();
  EXPECT_EQ(installs.arrayValue()[0]["wiped"], KOValue(true));
  EXPECT_EQ(installs.arrayValue()[0]["followed_by"], installs.arrayValue()[1]["unique_id"]);
  EXPECT_EQ(installs.arrayValue()[0]["vendor_id"], installs.arrayValue()[1]["vendor_id"]);
  EXPECT_EQ(installs.arrayValue()[1]["wiped"], KOValue(false));
  EXPECT_EQ(installs.arrayValue()[1]["consent"], KOValue("denied"));

  rig.emulator.reset();
  EXPECT_EQ(launch(rig, "track", 30), "denied") << "kept in the preferences";
  EXPECT_EQ(rig.emulator.requestCount(), 0u) << rig.emulator.inspectJSON("requests");
}
