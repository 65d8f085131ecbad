#include <gtest/gtest.h>

#include <thread>

#include "KOEmulatorTestDevice.h"
#include "Network/KOServerInterface.h"

class HttpClientThreaded : public KOEmulatorTestDevice {};

TEST_F(HttpClientThreaded, FiftyRequestsInFlightFromSeveralThreads) {
  KOServerInterface& server = KOServerInterface::sharedInstance();
  std::atomic<int> ok{0}, done{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 5; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < 10; ++i) {
        const KODictionary event{{"EVENT_ACTION", "E"}, {"n", i}};
        const KODictionary batch{{"viewsInfo", KOArray{event}}, {"viewsCount", 1}};
        server.sendData(KOValue(batch), KOValue(std::to_string(1000 + t * 10 + i)), [&](bool success) {
          ok += success ? 1 : 0;
          ++done;
        });
      }
    });
  }
  for (auto& c : callers) c.join();
  ASSERT_TRUE(waitFor([&] { return done.load() == 50; }, 20));
  EXPECT_EQ(ok.load(), 50);
  EXPECT_EQ(emulator().batches().size(), 50u);
  EXPECT_TRUE(emulator().duplicates().empty());
}

TEST_F(HttpClientThreaded, FetchAnswersArriveOnTheMainQueueWhileSendsRun) {
  KOServerInterface& server = KOServerInterface::sharedInstance();
  std::atomic<int> sends{0};
  int fetches = 0;
  bool allOnMain = true;
  for (int i = 0; i < 20; ++i) {
    server.getInAppForCampaignID("c" + std::to_string(i), [&](const KOValue& v) {
      allOnMain = allOnMain && device().dispatch().isMainThread() && v.isDictionary();
      ++fetches;
    });
    server.sendData(KOValue(KODictionary{{"viewsInfo", KOArray{}}, {"viewsCount", 0}}),
                    KOValue(std::to_string(5000 + i)), [&](bool) { ++sends; });
  }
  ASSERT_TRUE(waitFor([&] { return fetches == 20 && sends.load() == 20; }, 20));
  EXPECT_TRUE(allOnMain);
}
