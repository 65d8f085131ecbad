// A push the user opened, through the facade as the app delegate hands it over: the click event,
// the after-push mark, the follow-up lookup, the badge and the inbox entry (a file written whole);
// and an action button whose title is looked up among 50 stored categories.
#include <benchmark/benchmark.h>

#include <string>

#include "KOBenchRig.h"
#include "KOUtilities/KOInternalConstants.h"
#include "kovantis/KOConstants.h"
#include "kovantis/Kovantis.h"

namespace {

KOValue openedPush() {
  return KOValue(
      KODictionary{{"aps", KODictionary{{"alert", KODictionary{{"title", "Spring sale"}, {"body", "20% off today"}}}}},
                   {"kovantis", KODictionary{{"cid", "bench-push"}, {"media-attachment", "https://cdn.example/a.png"}}},
                   {"app_extra", KODictionary{{"screenName", "Offers"}}}});
}

void BM_PushOpened(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOSimDevice& device = clean.rig.device;
  Kovantis& sdk = Kovantis::sharedInstance();
  sdk.setDisableInbox(state.range(0) == 0);
  device.application().setApplicationState(KOApplicationState::Inactive);
  const KOValue payload = openedPush();
  for (auto _ : state) {
    sdk.didReceieveNotificationinApplication(&device.application(), payload, true);
    device.pumpMain();
  }
  sdk.setDisableInbox(false);
  device.application().setApplicationState(KOApplicationState::Active);
}
BENCHMARK(BM_PushOpened)->Arg(1)->Arg(0)->ArgName("inbox")->Unit(benchmark::kMicrosecond);

void BM_PushActionTitleOf50Categories(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOArray categories;
  for (int c = 0; c < 50; ++c) {
    KOArray titles, ids;
    for (int a = 0; a < 4; ++a) {
      titles.push_back(KOValue("Action " + std::to_string(a)));
      ids.push_back(KOValue("ACTION_" + std::to_string(c) + "_" + std::to_string(a)));
    }
    categories.push_back(
        KOValue(KODictionary{{"name", "CAT_" + std::to_string(c)}, {"actions", titles}, {"actionsIdentifier", ids}}));
  }
  clean.rig.device.preferences().standard().setObject(KOValue(categories), KOV_NOTIFICATION_CATEGORIES);
  const KOValue payload = openedPush();
  const KOValue identifier("ACTION_49_3");
  for (auto _ : state) Kovantis::sharedInstance().handleActionWithIdentifier(identifier, payload);
  clean.rig.device.preferences().standard().removeObjectForKey(KOV_NOTIFICATION_CATEGORIES);
}
BENCHMARK(BM_PushActionTitleOf50Categories)->Unit(benchmark::kMicrosecond);

}  // namespace
