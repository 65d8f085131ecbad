// The store is merged on the main queue while tracking threads read it for the trigger check and
// show decisions read it per campaign: every reader sees one whole save, never a mix.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOTestDevice.h"
#include "KOUtilities/KOValueHelpers.h"

namespace {

constexpr double kNow = 1800000000;
constexpr int kCampaigns = 20;

KOValue generation(int gen) {
  KOArray campaigns;
  for (int i = 0; i < kCampaigns; ++i) {
    campaigns.push_back(KODictionary{
        {"cid", "c" + std::to_string(i)}, {"status", "active"}, {"ttl", kNow + 86400}, {"priority", i}, {"gen", gen}});
  }
  return KODictionary{{"campaign_info", std::move(campaigns)}, {"event_list", KOArray{"E" + std::to_string(gen)}}};
}

class KOInAppV2ManagerThreaded : public KOTestDevice {};

TEST_F(KOInAppV2ManagerThreaded, ReadersSeeWholeSavesWhileMergesAndShowingsRun) {
  device().clock().setNow(kNow);
  KOInAppV2Manager::saveInAppCampaignsWithData(generation(0), nullptr);
  std::atomic<bool> stop{false};
  std::atomic<int> mixed{0};
  std::atomic<long> reads{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        const auto snapshot = KOInAppV2Manager::sharedInstance().snapshot();
        const auto& active = snapshot->activeCampaigns();
        if (active.size() != kCampaigns) ++mixed;
        const KOValue gen = validObjectForKey(*active.front(), "gen");
        for (const KODictionary* campaign : active) {
          if (validObjectForKey(*campaign, "gen") != gen) ++mixed;
        }
        if (snapshot->eventsArray() != KOValue(KOArray{"E" + gen.description()})) ++mixed;
        KOInAppV2Manager::getCampaignStatusDictWithCampaignId("c3");
        ++reads;
      }
    });
  }
  // Showings are counted from another thread while the merges run on this one.
  std::thread shower([&] {
    const KOInAppV2Object inApp(KOValue(KODictionary{{"cid", "c3"}, {"ttl", kNow + 86400}}));
    for (int i = 0; i < 20; ++i) KOInAppV2Manager::writeToPlistToUpdateInAppNumberOfTimesShownWithInAppObject(inApp);
  });
  for (int gen = 1; gen <= 30; ++gen) KOInAppV2Manager::saveInAppCampaignsWithData(generation(gen), nullptr);
  shower.join();
  stop = true;
  for (auto& r : readers) r.join();

  EXPECT_EQ(mixed.load(), 0);
  EXPECT_GT(reads.load(), 0);
  EXPECT_EQ(KOInAppV2Manager::getCampaignStatusDictWithCampaignId("c3")["timesShown"], KOValue("20"));
  EXPECT_EQ(KOInAppV2Manager::getActiveInAppCampaigns()[0]["gen"], KOValue(30));
}

}  // namespace
