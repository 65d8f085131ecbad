// Choosing and showing in-apps: the trigger check every tracked event pays, the walk over a large
// store, the decision report, and laying a campaign out.
#include <benchmark/benchmark.h>

#include <string>

#include "KOBenchRig.h"
#include "KODataHandler/KOEventsHandler.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2Handler.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOInAppV2/InAppView/KOInAppV2ViewBuilder.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "kovantis/Kovantis.h"

namespace {

const KOValue& attributes() {
  static const KOValue value(KODictionary{{"sku", "SKU-1234"}, {"price", 19.99}, {"quantity", 2}});
  return value;
}

// 1,000 campaigns none of which may show on the bench's screen, and a 100-event trigger list.
void storeLargeStore() {
  std::string campaigns;
  for (int i = 0; i < 1000; ++i) {
    if (i) campaigns += ",";
    campaigns += R"({"cid": "c)" + std::to_string(i) +
                 R"(", "status": "active", "type": "general", "ttl": 4102444800, "max_times": 3,
                     "priority": )" +
                 std::to_string(i % 7) + R"(, "show_only_screen": "OtherScreen"})";
  }
  std::string events;
  for (int i = 0; i < 100; ++i) events += std::string(i ? "," : "") + "\"TRIGGER_" + std::to_string(i) + "\"";
  KOInAppV2Manager::removeV2InApps();
  KOInAppV2Manager::saveInAppCampaignsWithData(
      KOJSONSerialization::parse(R"({"campaign_info": [)" + campaigns + R"(], "event_list": [)" + events + "]}"),
      [] {});
}

KOViewController screen(const char* name) {
  KOViewController vc;
  vc.name = name;
  return vc;
}

// Tracking through the facade with a 100-event trigger list: the event is not listed, so the
// check is one set lookup (compare BM_TrackEvent, the events handler alone).
void BM_TrackEventWithTriggerList(benchmark::State& state) {
  KOBenchRig::shared();
  storeLargeStore();
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  events.setEventsBatchCountTreshold(UINT64_MAX);
  Kovantis& sdk = Kovantis::sharedInstance();
  const KOValue name("PRODUCT_VIEWED");
  for (auto _ : state) sdk.trackEvent(name, attributes());
  events.getBatchesWithViewsArray(false);
}
BENCHMARK(BM_TrackEventWithTriggerList)->Iterations(100000);

// The walk over 1,000 stored campaigns when none may show: every campaign's rules are read.
void BM_InAppWalk1000(benchmark::State& state) {
  KOBenchRig::shared();
  storeLargeStore();
  const KOViewController home = screen("HomeViewController");
  KOInAppV2Handler& handler = KOInAppV2Handler::sharedInstance();
  for (auto _ : state) handler.showInAppForViewController(&home);
  if (handler.isShowingInApp()) state.SkipWithError("a campaign showed");
}
BENCHMARK(BM_InAppWalk1000)->Unit(benchmark::kMicrosecond);

void BM_InAppDecisionReport1000(benchmark::State& state) {
  KOBenchRig::shared();
  storeLargeStore();
  const KOViewController home = screen("HomeViewController");
  for (auto _ : state) {
    KOArray report = KOInAppV2Handler::sharedInstance().decisionReport(&home);
    benchmark::DoNotOptimize(report);
  }
}
BENCHMARK(BM_InAppDecisionReport1000)->Unit(benchmark::kMicrosecond);

// A 20-widget campaign laid out as a view description (text measured by the platform).
void BM_InAppDescribe20Widgets(benchmark::State& state) {
  KOBenchRig::shared();
  std::string widgets;
  for (int i = 1; i <= 20; ++i) {
    if (i > 1) widgets += ",";
    widgets += i % 2 ? R"({"id": )" + std::to_string(i) +
                           R"(, "type": "text", "content": "Line of offer text that wraps onto a second line"})"
                     : R"({"id": )" + std::to_string(i) + R"(, "type": "button", "content": "Button"})";
  }
  const KOInAppV2Object inApp(KOJSONSerialization::parse(
      R"({"cid": "wide", "status": "active", "type": "general", "widgets": [)" + widgets + "]}"));
  for (auto _ : state) {
    KOViewDescription view = KOInAppV2ViewBuilder::describe(inApp, KOSize{390, 844});
    benchmark::DoNotOptimize(view);
  }
}
BENCHMARK(BM_InAppDescribe20Widgets)->Unit(benchmark::kMicrosecond);

}  // namespace
