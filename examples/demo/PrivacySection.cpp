#include "PrivacySection.h"

#include <cstdio>
#include <fstream>
#include <memory>

#include "kovantis/KOValue.h"
#include "kovantis/Kovantis.h"

namespace {

void step(const std::string& what, const std::string& detail) {
  std::printf("  %-34s %s\n", what.c_str(), detail.c_str());
}

std::string plural(std::size_t n, const std::string& one, const std::string& many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

class Privacy {
 public:
  Privacy(KOSimDevice& device, KOEmulator& emulator) : device_(device), emulator_(emulator) {}

  void search(int times) {
    for (int i = 0; i < times; ++i) {
      sdk().trackEvent(KOValue("SEARCH"), KOValue(KODictionary{{"query", "privacy " + std::to_string(++searches_)}}));
    }
  }
  // Syncs and waits for the sync's end; whether nothing is left on the phone.
  bool flush() {
    auto done = std::make_shared<int>(-1);
    sdk().flush([done](bool all) { *done = all; });
    device_.runMainUntil([&] { return *done >= 0; }, 15);
    return *done == 1;
  }
  // What the service received since the last call: calls, and the searches it stored.
  std::string received() {
    const std::size_t calls = emulator_.requestCount() - calls_;
    std::size_t stored = 0;
    for (const auto& event : emulator_.events()) stored += event.name == "SEARCH";
    const std::size_t searches = stored - stored_;
    calls_ += calls;
    stored_ = stored;
    return "service received " + plural(calls, "call", "calls") + ", stored " + plural(searches, "search", "searches") +
           " more";
  }
  std::string consent() {
    switch (sdk().trackingConsent()) {
      case KOTrackingConsent::Granted:
        return "granted";
      case KOTrackingConsent::Denied:
        return "denied";
      case KOTrackingConsent::Pending:
        break;
    }
    return "pending";
  }
  // The SDK's files in the documents directory.
  std::size_t sdkFiles() {
    std::size_t n = 0;
    for (const std::string& name : device_.rawFiles().listDirectory(device_.documentsDirectory())) {
      n += name.rfind("Kovantis", 0) == 0 || name.rfind("kovantis", 0) == 0 || name.rfind("InApp", 0) == 0 ||
           name.rfind("Inbox", 0) == 0;
    }
    return n;
  }
  void start() {
    // The calls the session before made land first: the count stays the same for a while.
    std::size_t seen = 0;
    int still = 0;
    device_.runMainUntil(
        [&] {
          const std::size_t now = emulator_.requestCount();
          still = now == seen && device_.dispatch().backgroundIdle() ? still + 1 : 0;
          seen = now;
          return still > 400;  // about 0.1 s without a new call
        },
        5);
    calls_ = emulator_.requestCount();
    for (const auto& event : emulator_.events()) stored_ += event.name == "SEARCH";
  }

  Kovantis& sdk() { return Kovantis::sharedInstance(); }

 private:
  KOSimDevice& device_;
  KOEmulator& emulator_;
  std::size_t calls_ = 0;
  std::size_t stored_ = 0;
  int searches_ = 0;
};

}  // namespace

void runPrivacySection(KOSimDevice& device, KOEmulator& emulator, const std::string& exportPath) {
  std::printf("\n== Privacy\n");
  Privacy privacy(device, emulator);
  Kovantis& sdk = privacy.sdk();
  privacy.start();

  sdk.setTrackingConsent(KOTrackingConsent::Pending);
  privacy.search(3);
  privacy.flush();
  step("the app asks (consent " + privacy.consent() + ")", "3 searches held; " + privacy.received());

  sdk.setTrackingConsent(KOTrackingConsent::Denied, KOPendingData::Discard);
  privacy.search(2);
  privacy.flush();
  step("the user says no (" + privacy.consent() + ")", "held ones discarded, 2 more ignored; " + privacy.received());

  sdk.setTrackingConsent(KOTrackingConsent::Granted);
  privacy.search(2);
  privacy.flush();
  step("the user says yes (" + privacy.consent() + ")", "2 searches; " + privacy.received());

  privacy.search(1);
  sdk.setTrackingConsent(KOTrackingConsent::Denied, KOPendingData::Send);
  device.runMainUntil([&] { return sdk.trackingConsent() == KOTrackingConsent::Denied; }, 15);
  privacy.search(2);
  privacy.flush();
  step("no again, held one sent first", "1 search sent marked tracking_consent=denied; " + privacy.received());
  const KOValue installs = KOValue::fromJSON(emulator.inspectJSON("privacy"));
  if (installs.isArray() && !installs.arrayValue().empty()) {
    step("the service's view of this install", "consent " + installs.arrayValue().back()["consent"].description());
  }

  const KOValue exported = sdk.exportUserData();
  std::ofstream(exportPath) << sdk.exportUserDataJSON();
  std::string entries;
  for (const auto& [entry, value] : exported.dictionaryValue()) {
    const std::size_t size = value.isArray()        ? value.arrayValue().size()
                             : value.isDictionary() ? value.dictionaryValue().size()
                                                    : 1;
    entries += (entries.empty() ? "" : ", ") + entry + " " + std::to_string(size);
  }
  step("export (an access request)", entries);
  step("  written to", exportPath);

  const std::size_t before = privacy.sdkFiles();
  sdk.wipeData();
  privacy.search(2);
  privacy.flush();
  step("wipe", plural(before, "file", "files") + " of the SDK's before, " + std::to_string(privacy.sdkFiles()) +
                   " after; " + privacy.received());
}
