#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Sim/KOSimDevice.h"
#include "kovantis/KONotificationCenter.h"

TEST(KOSimDispatchThreaded, MainQueueRunsInOrderOnlyWhenPumpedOnTheMainThread) {
  KOSimDispatch dispatch(2);
  std::vector<int> order;
  std::atomic<int> onMain{0};
  for (int i = 0; i < 100; ++i) {
    dispatch.asyncBackground([&, i] {
      dispatch.asyncMain([&, i] {
        if (dispatch.isMainThread()) ++onMain;
        order.push_back(i);
      });
    });
  }
  EXPECT_TRUE(order.empty());
  ASSERT_TRUE(dispatch.runMainUntil([&] { return order.size() == 100; }, 10));
  EXPECT_EQ(onMain.load(), 100);
}

TEST(KOSimDispatchThreaded, BackgroundWorkRunsConcurrentlyOffTheMainThread) {
  KOSimDispatch dispatch(3);
  std::atomic<int> running{0}, peak{0}, done{0}, offMain{0};
  std::atomic<bool> release{false};
  for (int i = 0; i < 3; ++i) {
    dispatch.asyncBackground([&] {
      if (!dispatch.isMainThread()) ++offMain;
      const int now = ++running;
      int seen = peak.load();
      while (now > seen && !peak.compare_exchange_weak(seen, now)) {
      }
      // Hold each worker until all three run at once, which a serial queue could never do.
      while (!release.load()) std::this_thread::yield();
      --running;
      ++done;
    });
  }
  ASSERT_TRUE(dispatch.runMainUntil([&] { return peak.load() == 3; }, 10));
  release = true;
  ASSERT_TRUE(dispatch.runMainUntil([&] { return done.load() == 3 && dispatch.backgroundIdle(); }, 10));
  EXPECT_EQ(offMain.load(), 3);
}

TEST(KOSimDispatchThreaded, DelayedCallsFireInDueOrderAndCanBeCancelled) {
  KOSimDispatch dispatch(2);
  std::vector<std::string> fired;
  std::atomic<bool> backgroundFired{false};
  dispatch.afterMain(0.03, [&] { fired.push_back("late"); });
  dispatch.afterMain(0.01, [&] { fired.push_back("early"); });
  const auto cancelled = dispatch.afterMain(0.02, [&] { fired.push_back("cancelled"); });
  dispatch.afterBackground(0.01, [&] { backgroundFired = true; });
  EXPECT_TRUE(dispatch.cancel(cancelled));
  EXPECT_FALSE(dispatch.cancel(cancelled));
  ASSERT_TRUE(dispatch.runMainUntil([&] { return fired.size() == 2 && backgroundFired; }, 10));
  EXPECT_EQ(fired, (std::vector<std::string>{"early", "late"}));
}

// With the device's clock fixed, an hour's delay passes in no real time: moving the clock fires
// what became due, in due order, and nothing before.
TEST(KOSimDispatchThreaded, DelayedCallsFollowAFixedClock) {
  KOSimDevice device;
  device.clock().setNow(1800000000);
  KOSimDispatch& dispatch = device.dispatch();
  std::vector<std::string> fired;
  std::atomic<bool> backgroundFired{false};
  dispatch.afterMain(3600, [&] { fired.push_back("hour"); });
  dispatch.afterMain(60, [&] { fired.push_back("minute"); });
  const auto cancelled = dispatch.afterMain(120, [&] { fired.push_back("cancelled"); });
  dispatch.afterBackground(90, [&] { backgroundFired = true; });
  dispatch.afterMain(0, [&] { fired.push_back("now"); });
  EXPECT_TRUE(dispatch.cancel(cancelled));
  ASSERT_TRUE(dispatch.runMainUntil([&] { return !fired.empty(); }, 10));
  dispatch.pumpMain();
  EXPECT_EQ(fired, (std::vector<std::string>{"now"}));

  device.clock().advance(59);
  dispatch.pumpMain();
  EXPECT_EQ(fired.size(), 1u);
  device.clock().advance(1);
  ASSERT_TRUE(dispatch.runMainUntil([&] { return fired.size() == 2; }, 10));
  device.clock().advance(3540);
  ASSERT_TRUE(dispatch.runMainUntil([&] { return fired.size() == 3 && backgroundFired; }, 10));
  EXPECT_EQ(fired, (std::vector<std::string>{"now", "minute", "hour"}));

  // Calls left waiting when the clock runs freely again are due at once.
  dispatch.afterMain(86400, [&] { fired.push_back("tomorrow"); });
  device.clock().useRealTime();
  ASSERT_TRUE(dispatch.runMainUntil([&] { return fired.size() == 4; }, 10));
  EXPECT_EQ(dispatch.pendingSimulatedCalls(), 0u);
}

TEST(KOSimDispatchThreaded, ShutdownDropsQueuedWorkAndJoins) {
  std::atomic<int> ran{0};
  {
    KOSimDispatch dispatch(1);
    dispatch.afterBackground(60, [&] { ++ran; });
    dispatch.asyncMain([&] { ++ran; });
    dispatch.shutdown();
    dispatch.asyncBackground([&] { ++ran; });
    EXPECT_EQ(dispatch.pumpMain(), 0u);
  }
  EXPECT_EQ(ran.load(), 0);
}

TEST(KONotificationCenterThreaded, PostsFromManyThreadsWhileObserversComeAndGo) {
  KONotificationCenter center;
  std::atomic<int> heard{0};
  const auto steady = center.addObserver("tick", [&](const KONotification& n) {
    if (n.userInfo["n"].isInteger()) ++heard;
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) center.post("tick", KODictionary{{"n", i}});
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 200; ++i) {
      const auto token =
          center.addObserver("tick", [](const KONotification&) { throw std::runtime_error("bad observer"); });
      center.removeObserver(token);
    }
  });
  for (auto& t : threads) t.join();
  EXPECT_EQ(heard.load(), 2000);  // a throwing observer never stops the others

  center.removeObserver(steady);
  center.post("tick", KODictionary{{"n", 1}});
  EXPECT_EQ(heard.load(), 2000);
}

TEST(KOSimPreferencesThreaded, ConcurrentWritersNeverLoseAKey) {
  KOSimDevice device;
  KOPreferenceStore& prefs = device.preferences().standard();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        prefs.setObject(KOValue(i), "k" + std::to_string(t) + "_" + std::to_string(i));
        prefs.synchronize();
        (void)prefs.objectForKey("k0_0");
      }
    });
  }
  for (auto& t : threads) t.join();
  device.preferences().standardStore().reload();
  EXPECT_EQ(prefs.dictionaryRepresentation().size(), 200u);
  EXPECT_EQ(prefs.objectForKey("k3_49"), KOValue(49));
}
