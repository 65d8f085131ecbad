#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "KOSDKTestDevice.h"

class EventPipelineThreaded : public KOSDKTestDevice {
 protected:
  double requestTimeout() override { return 30; }
};

// Eight threads track while syncs run: every event reaches the service once, none twice.
TEST_F(EventPipelineThreaded, EightThreadsTrackingWhileSyncsRun) {
  startClean();
  constexpr int kThreads = 8;
  constexpr int kEventsPerThread = 10000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kEventsPerThread; ++i) {
        sdk().trackEvent(KOValue("T"), KOValue(KODictionary{{"t", t}, {"i", i}}));
        if (i % 2500 == 0) sdk().syncNow();
      }
    });
  }
  // The main thread keeps delivering fetch completions meanwhile, as a host's run loop would.
  for (auto& thread : threads) {
    while (thread.joinable()) {
      device().pumpMain();
      thread.join();
    }
  }
  ASSERT_TRUE(deliverAll(120));
  const auto stored = emulator().events();
  std::set<std::pair<std::int64_t, std::int64_t>> seen;
  for (const auto& e : stored) {
    const KOValue record = KOJSONSerialization::parse(e.json);
    EXPECT_TRUE(seen.emplace(record["EVENT_ATTRS"]["t"].intValue(), record["EVENT_ATTRS"]["i"].intValue()).second);
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kEventsPerThread));
  EXPECT_TRUE(emulator().duplicates().empty());
}
