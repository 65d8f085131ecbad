#include "kovantis/testing/KOTestHarness.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <stdexcept>

#include "kovantis/Kovantis.h"

struct KOTestHarness::State {
  explicit State(const Options& options) : device(options.device) {}

  // Declared first, so destroyed last: the emulator closes its store, kept in the device's
  // directory, before the directory goes.
  KOSimDevice device;
  std::unique_ptr<KOEmulator> emulator;
};

namespace {

// What an app's notification-centre delegate does with the user's answers: hand them to the SDK.
class ForwardingNotificationDelegate : public KOUserNotificationCenterDelegate {
 public:
  bool handlesNotificationResponses() const override { return true; }
  void userNotificationCenter(KOUserNotificationCenter& center, const KONotificationResponse& response,
                              std::function<void()> completion) override {
    Kovantis::sharedInstance().userNotificationCenter(&center, response);
    if (completion) completion();
  }
};

void forwardPushesToTheSDK(KOSimDevice& device) {
  KOSimApplication& app = device.application();
  app.setRemoteNotificationHandler([&app](const KODictionary& userInfo) {
    Kovantis::sharedInstance().didReceieveNotificationinApplication(&app, KOValue(userInfo), true);
  });
  app.setNotificationActionHandler([](const std::string& identifier, const KODictionary& userInfo) {
    Kovantis::sharedInstance().handleActionWithIdentifier(KOValue(identifier), KOValue(userInfo));
  });
  device.notificationCenter().setDelegate(std::make_shared<ForwardingNotificationDelegate>());
}

}  // namespace

KOTestHarness::KOTestHarness() : KOTestHarness(Options{}) {}

KOTestHarness::KOTestHarness(Options options) : state_(std::make_unique<State>(options)) {
  state_->device.install();
  if (options.logLevel) Kovantis::debug(*options.logLevel);
  if (options.forwardPushes) forwardPushesToTheSDK(state_->device);
  if (!options.emulator) return;
  KOEmulator::Options emulatorOptions;
  emulatorOptions.dataDir = state_->device.rootDirectory() + "/emulator";
  state_->emulator = std::make_unique<KOEmulator>(emulatorOptions);
  if (!options.seed.empty()) state_->emulator->seed(options.seed);
  KOServiceEndpoints endpoints = KOServiceEndpoints::local("127.0.0.1", state_->emulator->start(0));
  endpoints.timeoutSeconds = options.requestTimeoutSeconds;
  state_->device.setServiceEndpoints(endpoints);
}

KOTestHarness::~KOTestHarness() {
  if (state_->emulator) state_->emulator->stop();
}

KOSimDevice& KOTestHarness::device() { return state_->device; }

bool KOTestHarness::hasEmulator() const { return state_->emulator != nullptr; }

KOEmulator& KOTestHarness::emulator() { return service(); }

KOEmulator& KOTestHarness::service() const {
  if (!state_->emulator) throw std::logic_error("KOTestHarness was built without an emulator");
  return *state_->emulator;
}

bool KOTestHarness::isTheSDKsPlatform() const {
  return KOPlatform::isInstalled() && &KOPlatform::current() == state_->device.platform().get();
}

bool KOTestHarness::waitFor(const std::function<bool()>& condition, double timeoutSeconds) {
  return state_->device.runMainUntil(condition, timeoutSeconds);
}

bool KOTestHarness::waitForRequests(const std::string& path, std::size_t count, double timeoutSeconds) {
  KOEmulator& service = emulator();
  return waitFor([&] { return service.requestCount(path) >= count; }, timeoutSeconds);
}

namespace {
constexpr double kRetryPauseSeconds = 0.05;
}  // namespace

bool KOTestHarness::deliverAll(double timeoutSeconds) {
  // The flush's answer outlives this call when the timeout passes first: it holds its own state.
  struct Round {
    bool done = false;
    bool delivered = false;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  // A refused batch stays for the next sync; each round is one sync, so a service that keeps
  // refusing ends the loop at the deadline, and the count bounds it should the clock not move.
  for (int round = 0; round < 1000; ++round) {
    // Another platform (or none) gets the SDK's syncs: waiting cannot help.
    if (!isTheSDKsPlatform()) return false;
    const double left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) return false;
    auto state = std::make_shared<Round>();
    Kovantis::sharedInstance().flush([state](bool allDelivered) {
      state->done = true;
      state->delivered = allDelivered;
    });
    if (!waitFor([&] { return state->done; }, left)) return false;
    if (state->delivered) return true;
    // Not all delivered: give the service (and what the SDK still tracks itself) a moment before
    // the next round, pumping the main queue meanwhile, instead of asking again at once.
    const double pause = std::min(kRetryPauseSeconds,
                                  std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count());
    if (pause > 0) waitFor([] { return false; }, pause);
  }
  return false;
}

std::vector<std::string> KOTestHarness::storedEventNames(const std::string& prefix) const {
  std::vector<std::string> names;
  for (const auto& event : service().events()) {
    if (event.name.starts_with(prefix)) names.push_back(event.name);
  }
  return names;
}

std::vector<KOValue> KOTestHarness::storedEvents(const std::string& name) const {
  std::vector<KOValue> records;
  for (const auto& event : service().events()) {
    if (event.name == name) records.push_back(KOValue::fromJSON(event.json));
  }
  return records;
}

KODictionary KOTestHarness::storedUserAttributes() const {
  const std::vector<KOEmulatorUser> users = service().users();
  if (users.empty()) return {};
  KOValue attributes = KOValue::fromJSON(users.back().attributesJSON);
  return attributes.isDictionary() ? attributes.dictionaryValue() : KODictionary{};
}

// ------------------------------------------------------------------------------------ campaigns

namespace {

// A seed section as an object, whichever form it was seeded in (a bare list is the list of `key`).
KODictionary section(const KOValue& seeds, const char* name, const char* listKey) {
  const KOValue& stored = seeds[name];
  if (stored.isDictionary()) return stored.dictionaryValue();
  if (stored.isArray() && listKey) return KODictionary{{listKey, stored}};
  return {};
}

KOArray list(const KODictionary& section, const char* key) {
  const KOValue& found = section[key];
  return found.isArray() ? found.arrayValue() : KOArray{};
}

}  // namespace

void KOTestHarness::seedCampaign(const KOTestCampaign& campaign) {
  KOEmulator& service = emulator();
  const KOValue seeds = KOValue::fromJSON(service.seedsJSON());
  const KODictionary json = campaign.json();
  const KOValue id(campaign.campaignId());

  KODictionary inapps = section(seeds, "inapps", "campaign_info");
  KOArray campaigns;
  for (const KOValue& seeded : list(inapps, "campaign_info")) {
    if (seeded["cid"] != id) campaigns.push_back(seeded);
  }
  if (campaign.triggerEvents().empty()) campaigns.push_back(KOValue(json));
  inapps.set("campaign_info", KOValue(std::move(campaigns)));

  KOArray events = list(inapps, "event_list");
  KODictionary triggers = section(seeds, "smart_triggers", nullptr);
  for (const std::string& event : campaign.triggerEvents()) {
    if (std::find(events.begin(), events.end(), KOValue(event)) == events.end()) events.push_back(KOValue(event));
    triggers.set(event, KOValue(json));
  }
  inapps.set("event_list", KOValue(std::move(events)));

  KODictionary byId = section(seeds, "campaigns", nullptr);
  byId.set(campaign.campaignId(), KOValue(json));

  service.seed(KOValue(KODictionary{{"inapps", KOValue(std::move(inapps))},
                                    {"smart_triggers", KOValue(std::move(triggers))},
                                    {"campaigns", KOValue(std::move(byId))}})
                   .toJSON());
}

// ---------------------------------------------------------------------------------------- pushes

KODictionary KOTestHarness::launchWithPush(const KOTestPush& push) { return device().launchFromPush(push.payload()); }

bool KOTestHarness::openPush(const KOTestPush& push) { return device().openPush(push.payload()); }

bool KOTestHarness::receivePushInForeground(const KOTestPush& push) {
  KOSimDevice& phone = device();
  if (phone.application().applicationState() == KOApplicationState::Background) phone.enterForeground();
  if (phone.application().applicationState() != KOApplicationState::Active) phone.becomeActive();
  return phone.receivePush(push.payload());
}

bool KOTestHarness::tapPushAction(const KOTestPush& push, const std::string& actionIdentifier) {
  return device().respondToPush(push.payload(), actionIdentifier);
}

bool KOTestHarness::dismissPush(const KOTestPush& push) {
  return device().respondToPush(push.payload(), KONotificationDismissActionIdentifier);
}

// ----------------------------------------------------------------------------- console and why

namespace {

// The logger's severities of the lines a test should hear of: 4 "EXCEPTION" and 5 "ERROR".
constexpr int kExceptionSeverity = 4;
constexpr int kErrorSeverity = 5;
// The SDK's own words: a start given no app id, and a sync without one (no start at all).
constexpr const char* kStartFailed = "exception in initialize is";
constexpr const char* kMissingAppId = "You have missed the APP ID";
constexpr const char* kNoAppId = "App ID is missing in the initialize call";

bool isError(const KOSimConsole::Entry& entry) { return entry.severity >= kExceptionSeverity; }

std::string labelled(const KOSimConsole::Entry& entry) {
  // At level 2 the SDK labels these lines itself; at level 1 it does not.
  if (!isError(entry)) return entry.line;
  const std::string label = entry.severity >= kErrorSeverity ? "[ERROR]" : "[EXCEPTION]";
  return entry.line.starts_with(label) ? entry.line : label + "\t" + entry.line;
}

std::string describe(const KOEmulatorFault& fault) {
  std::string what = fault.path + " ";
  if (fault.drop) {
    what += "drops the connection";
  } else if (fault.status != 0) {
    what += "answers " + std::to_string(fault.status);
  } else {
    what += "answers normally";
  }
  if (fault.delayMs > 0) what += " after " + std::to_string(fault.delayMs) + " ms";
  if (fault.share < 1) what += " for a share " + std::to_string(fault.share) + " of the requests";
  if (!fault.bodyContains.empty()) what += " when the body holds \"" + fault.bodyContains + "\"";
  what += fault.count < 0 ? ", until cleared" : ", " + std::to_string(fault.count) + " more times";
  return what;
}

std::string answerOf(const KOEmulatorRequest& request) {
  std::string answer = request.status == 0 ? "no answer (the connection was dropped)" : std::to_string(request.status);
  if (!request.error.empty()) answer += ": " + request.error;
  if (!request.fault.empty()) answer += " (injected fault " + request.fault + ")";
  return answer;
}

// The batches the service received and has not accepted, with their attempts and last answer.
std::vector<std::string> refusedBatches(const KOEmulator& service) {
  struct Attempts {
    int count = 0;
    bool accepted = false;
    KOEmulatorRequest last;
  };
  std::vector<std::string> order;
  std::map<std::string, Attempts> byBatch;
  for (KOEmulatorRequest& request : service.requests("/v2/report/add")) {
    const auto id = request.query.find("batch_id");
    const std::string batch = id == request.query.end() ? "(without a batch id)" : id->second;
    auto [at, added] = byBatch.try_emplace(batch);
    if (added) order.push_back(batch);
    ++at->second.count;
    at->second.accepted |= request.status >= 200 && request.status < 300;
    at->second.last = std::move(request);
  }
  std::vector<std::string> refused;
  for (const std::string& batch : order) {
    const Attempts& a = byBatch[batch];
    if (a.accepted) continue;
    refused.push_back("batch " + batch + ": " + std::to_string(a.count) + (a.count == 1 ? " attempt" : " attempts") +
                      ", the last answered " + answerOf(a.last));
  }
  return refused;
}

}  // namespace

std::vector<std::string> KOTestHarness::consoleLines() const {
  std::vector<std::string> lines;
  for (const auto& entry : state_->device.console().entries()) lines.push_back(labelled(entry));
  return lines;
}

std::vector<std::string> KOTestHarness::errorLines() const {
  std::vector<std::string> lines;
  for (const auto& entry : state_->device.console().entries()) {
    if (isError(entry)) lines.push_back(labelled(entry));
  }
  return lines;
}

std::string KOTestHarness::diagnosis() const {
  std::vector<std::string> why;
  if (!KOPlatform::isInstalled()) {
    why.push_back("no KOPlatform is installed: the SDK has no device to run on");
  } else if (!isTheSDKsPlatform()) {
    why.push_back("the SDK runs on another platform than this harness's device: one was installed after it");
  }
  const std::vector<KOSimConsole::Entry> console = state_->device.console().entries();
  const auto said = [&](const char* text, const char* andText = "") {
    return std::any_of(console.begin(), console.end(), [&](const KOSimConsole::Entry& e) {
      return e.line.find(text) != std::string::npos && e.line.find(andText) != std::string::npos;
    });
  };
  bool startSaid = true;
  if (said(kStartFailed, kMissingAppId)) {
    why.push_back(
        "the SDK was started with an empty app id, so nothing started: give initialize...WithApiKey the "
        "app's id");
  } else if (said(kNoAppId) || said(kMissingAppId)) {
    why.push_back("the SDK has no app id: it was not started (initialize...WithApiKey) before it synced");
  } else {
    startSaid = false;
  }
  if (state_->emulator) {
    const KOEmulator& service = *state_->emulator;
    if (!service.isRunning()) why.push_back("the emulator is not running");
    for (const KOEmulatorFault& fault : service.faults())
      why.push_back("a fault is still injected: " + describe(fault));
    const std::vector<std::string> refused = refusedBatches(service);
    if (!refused.empty()) {
      why.push_back(std::to_string(refused.size()) + (refused.size() == 1 ? " batch" : " batches") +
                    " the service received and has not accepted:");
      for (const std::string& batch : refused) why.push_back("  " + batch);
    }
    if (service.requestCount() == 0 && !startSaid) {
      why.push_back(
          "no request reached the emulator since it started or was last reset: was the SDK started "
          "(initialize...WithApiKey)?");
    } else if (service.requestCount("/v2/report/add") == 0) {
      why.push_back("no report reached the emulator since it started or was last reset");
    }
  }
  const std::vector<std::string> errors = errorLines();
  if (!errors.empty()) {
    why.push_back("the SDK logged " + std::to_string(errors.size()) +
                  (errors.size() == 1 ? " exception or error line" : " exception or error lines") +
                  ", the last: " + errors.back());
  }
  std::string text;
  for (const std::string& line : why) text += (text.empty() ? "" : "\n") + line;
  return text;
}
