// The simulated device's queues: a main run loop the host pumps, a small pool for the shared
// concurrent queue, and one timer thread for delayed calls. A delayed call made while the device's
// clock is fixed runs in the clock's time instead: it becomes due when the clock is moved past it,
// so tests of delays and expiry never wait in real time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "kovantis/KOPlatform.h"

class KOSimClock;

class KOSimDispatch : public KODispatch {
 public:
  explicit KOSimDispatch(int backgroundThreads = 3);
  ~KOSimDispatch() override;
  KOSimDispatch(const KOSimDispatch&) = delete;
  KOSimDispatch& operator=(const KOSimDispatch&) = delete;

  void asyncMain(std::function<void()> work) override;
  void asyncBackground(std::function<void()> work) override;
  KODispatchToken afterMain(double delaySeconds, std::function<void()> work) override;
  KODispatchToken afterBackground(double delaySeconds, std::function<void()> work) override;
  bool cancel(KODispatchToken token) override;
  bool isMainThread() const override;

  /// Makes the calling thread the main thread (the constructing thread is, by default).
  void adoptCurrentThreadAsMain();
  /// Runs the main-queue work that is ready now; returns how many items ran.
  std::size_t pumpMain();
  /// Pumps the main queue until the condition holds or the timeout passes; returns the condition.
  bool runMainUntil(const std::function<bool()>& condition, double timeoutSeconds);
  /// True when no background work is queued, delayed or running.
  bool backgroundIdle() const;
  /// Stops the threads; queued work is dropped. Called by the destructor.
  void shutdown();
  /// The clock whose fixed time delayed calls follow; the clock tells clockMoved of each change.
  void setClock(const KOSimClock* clock);
  /// Queues the delayed calls the clock's time reached (all of them once it runs freely again).
  void clockMoved();
  /// Delayed calls waiting for the simulated clock.
  std::size_t pendingSimulatedCalls() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Timer {
    Clock::time_point due;
    bool onMain;
    std::function<void()> work;
  };

  struct SimulatedTimer {
    double due;
    bool onMain;
    std::function<void()> work;
  };

  KODispatchToken schedule(double delaySeconds, bool onMain, std::function<void()> work);
  void enqueueLocked(bool onMain, std::function<void()> work);
  void backgroundLoop();
  void timerLoop();
  static void runGuarded(const std::function<void()>& work);

  mutable std::mutex mutex_;
  std::condition_variable mainCv_;
  std::condition_variable backgroundCv_;
  std::condition_variable timerCv_;
  std::deque<std::function<void()>> mainQueue_;
  std::deque<std::function<void()>> backgroundQueue_;
  std::map<KODispatchToken, Timer> timers_;
  std::map<KODispatchToken, SimulatedTimer> simulatedTimers_;
  const KOSimClock* clock_ = nullptr;
  KODispatchToken nextToken_ = 1;
  int backgroundRunning_ = 0;
  bool stopping_ = false;
  std::thread::id mainThread_;
  std::vector<std::thread> workers_;
  std::thread timerThread_;
};
