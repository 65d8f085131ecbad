// The in-app store's hot paths: the rules object every show decision builds per campaign, the
// merge of a fetch answer, and the walk over the stored campaigns a show decision makes.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOInAppV2/Models/KOInAppV2CampaignPropertiesObject.h"
#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisDateUtils.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"

namespace {

constexpr int kCampaigns = 1000;

// The benchmarks that need the emulator install their own device; these only need one.
void ensureDevice() {
  if (KOPlatform::isInstalled()) return;
  static auto* device = new KOSimDevice();
  device->install();
}

KOValue widget(const std::string& type, const std::string& content) {
  return KODictionary{
      {"id", 1},
      {"type", type},
      {"content", content},
      {"properties", KODictionary{{"size", 16}, {"color", "#222222"}, {"border", KODictionary{{"radius", 8}}}}},
      {"layout", KODictionary{{"width", 280}, {"margin", KODictionary{{"top", 12}, {"bottom", 12}}}}},
      {"action", KOArray{KODictionary{{"tag", "m_nav"}, {"uri", "app://offers"}}}},
  };
}

/// A campaign as the service sends it: rules, presentation and a few widgets.
KOValue typicalCampaign(int i, std::int64_t lastUpdated) {
  const double ttl = KovantisDateUtils::now() + 30 * 86400;
  return KODictionary{
      {"cid", "5f2b9c1e-campaign-" + std::to_string(i)},
      {"status", "active"},
      {"type", i % 4 == 0 ? "smart" : "general"},
      {"priority", i % 7},
      {"interval", 3600},
      {"ttl", ttl},
      {"max_times", 1},
      {"persistent", false},
      {"last_updated", lastUpdated + i},
      {"context", KOArray{"home"}},
      {"show_only_screen", "HomeViewController"},
      {"align", "center"},
      {"cancellable", true},
      {"animate", KODictionary{{"entry", "fade_in"}, {"exit", "fade_out"}}},
      {"properties", KODictionary{{"background", KODictionary{{"color", "#000000"}}}, {"opacity", 0.6}}},
      {"widgets", KOArray{KODictionary{{"type", "container"},
                                       {"widgets", KOArray{widget("image", "https://cdn.example.com/banner.png"),
                                                           widget("text", "Twenty percent off everything today"),
                                                           widget("button", "Shop now")}}}}},
  };
}

KOValue answer(std::int64_t lastUpdated) {
  KOArray campaigns;
  campaigns.reserve(kCampaigns);
  for (int i = 0; i < kCampaigns; ++i) campaigns.push_back(typicalCampaign(i, lastUpdated));
  return KODictionary{{"campaign_info", std::move(campaigns)},
                      {"event_list", KOArray{KODictionary{{"event", "BUY"}, {"cid", "smart-1"}}}},
                      {"minimum_delay_bw_inapps", 15}};
}

void freshStore() {
  KOInAppV2Manager::removeV2InApps();
  KOInAppV2Manager::saveInAppCampaignsWithData(answer(1700000000000), nullptr);
}

void BM_InAppCampaignPropertiesBuild(benchmark::State& state) {
  ensureDevice();
  const KOValue campaign = typicalCampaign(1, 1700000000000);
  for (auto _ : state) {
    KOInAppV2CampaignPropertiesObject props(campaign);
    benchmark::DoNotOptimize(props);
  }
}
BENCHMARK(BM_InAppCampaignPropertiesBuild);

// For comparison: the whole model a campaign that is about to be drawn needs.
void BM_InAppObjectBuild(benchmark::State& state) {
  ensureDevice();
  const KOValue campaign = typicalCampaign(1, 1700000000000);
  for (auto _ : state) {
    KOInAppV2Object inApp(campaign);
    benchmark::DoNotOptimize(inApp);
  }
}
BENCHMARK(BM_InAppObjectBuild);

// A 1,000-campaign answer into a store of 1,000: every campaign replaced, sorted, written whole.
void BM_InAppMerge1000Into1000(benchmark::State& state) {
  ensureDevice();
  freshStore();
  const KOValue answers[2] = {answer(1700000100000), answer(1700000200000)};
  int turn = 0;
  for (auto _ : state) {
    KOInAppV2Manager::saveInAppCampaignsWithData(answers[turn], nullptr);
    turn ^= 1;
  }
  state.counters["campaigns"] =
      static_cast<double>(KOInAppV2Manager::sharedInstance().snapshot()->activeCampaigns().size());
}
BENCHMARK(BM_InAppMerge1000Into1000)->Unit(benchmark::kMillisecond)->UseRealTime();

// What a show decision does over 1,000 stored campaigns that all turn out ineligible: the rules
// object of each, its type, its screen and (for the general ones on this screen) its statistics.
void BM_InAppActiveCampaignWalk(benchmark::State& state) {
  ensureDevice();
  freshStore();
  // Every campaign shown once already, as far as its statistics say.
  KODictionary stored = KOInAppV2Manager::getCampaignsDictFromPlist();
  for (const KOValue& campaign : KOInAppV2Manager::getActiveInAppCampaigns()) {
    stored.set(campaign["cid"].stringValue(), KODictionary{{KO_TIMES_SHOWN, "1"},
                                                           {KO_EXPIRY_DATE, campaign["ttl"]},
                                                           {LAST_SHOWN, KODate{KovantisDateUtils::now()}}});
  }
  KOPropertyListFile::write(KOInAppV2Manager::getFilePath(), stored);
  KOInAppV2Manager::sharedInstance().dropCache();
  std::size_t eligible = 0;
  for (auto _ : state) {
    eligible = 0;
    const auto snapshot = KOInAppV2Manager::sharedInstance().snapshot();
    for (const KODictionary* campaign : snapshot->activeCampaigns()) {
      const KOInAppV2CampaignPropertiesObject props(*campaign);
      if (props.inAppType() != KOInAppV2TypeGeneral) continue;
      if (!props.showOnlyInScreen().empty() && props.showOnlyInScreen() != "HomeViewController") continue;
      const KOValue& stats = snapshot->statisticsForCampaignId(props.campaignId());
      if (!stats.isNil() &&
          KOModelDict::integerValueOrZero(validObjectForKey(stats, KO_TIMES_SHOWN)) >= props.maxTimes()) {
        continue;
      }
      ++eligible;
    }
    benchmark::DoNotOptimize(eligible);
  }
  state.counters["campaigns"] =
      static_cast<double>(KOInAppV2Manager::sharedInstance().snapshot()->activeCampaigns().size());
}
BENCHMARK(BM_InAppActiveCampaignWalk)->Unit(benchmark::kMicrosecond);

}  // namespace
