#include "KOSimDispatch.h"

#include <pthread.h>

#include <algorithm>
#include <cstdio>

#include "KOSimClock.h"

KOSimDispatch::KOSimDispatch(int backgroundThreads) : mainThread_(std::this_thread::get_id()) {
  for (int i = 0; i < (backgroundThreads > 0 ? backgroundThreads : 1); ++i) {
    workers_.emplace_back([this] {
      pthread_setname_np(pthread_self(), "ko-background");
      backgroundLoop();
    });
  }
  timerThread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "ko-timers");
    timerLoop();
  });
}

KOSimDispatch::~KOSimDispatch() { shutdown(); }

void KOSimDispatch::shutdown() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_ && workers_.empty() && !timerThread_.joinable()) return;
    stopping_ = true;
  }
  backgroundCv_.notify_all();
  timerCv_.notify_all();
  mainCv_.notify_all();
  for (auto& t : workers_) {
    if (t.joinable()) t.join();
  }
  workers_.clear();
  if (timerThread_.joinable()) timerThread_.join();
  std::lock_guard<std::mutex> lock(mutex_);
  mainQueue_.clear();
  backgroundQueue_.clear();
  timers_.clear();
}

void KOSimDispatch::runGuarded(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kovantis-sim: uncaught exception on a queue: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "kovantis-sim: uncaught exception on a queue\n");
  }
}

void KOSimDispatch::asyncMain(std::function<void()> work) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    mainQueue_.push_back(std::move(work));
  }
  mainCv_.notify_all();
}

void KOSimDispatch::asyncBackground(std::function<void()> work) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    backgroundQueue_.push_back(std::move(work));
  }
  backgroundCv_.notify_one();
}

KODispatchToken KOSimDispatch::schedule(double delaySeconds, bool onMain, std::function<void()> work) {
  const double seconds = delaySeconds > 0 ? delaySeconds : 0;
  const auto delay = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  KODispatchToken token;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    token = nextToken_++;
    if (stopping_) return token;
    if (clock_ && clock_->isFixed()) {
      // Due at once is queued at once: nothing waits for a clock nobody moves.
      if (seconds == 0) {
        enqueueLocked(onMain, std::move(work));
      } else {
        simulatedTimers_.emplace(token, SimulatedTimer{clock_->now() + seconds, onMain, std::move(work)});
      }
      return token;
    }
    timers_.emplace(token, Timer{Clock::now() + delay, onMain, std::move(work)});
  }
  timerCv_.notify_all();
  return token;
}

void KOSimDispatch::enqueueLocked(bool onMain, std::function<void()> work) {
  if (onMain) {
    mainQueue_.push_back(std::move(work));
    mainCv_.notify_all();
  } else {
    backgroundQueue_.push_back(std::move(work));
    backgroundCv_.notify_one();
  }
}

void KOSimDispatch::setClock(const KOSimClock* clock) {
  std::lock_guard<std::mutex> lock(mutex_);
  clock_ = clock;
}

void KOSimDispatch::clockMoved() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_ || !clock_ || simulatedTimers_.empty()) return;
  const bool fixed = clock_->isFixed();
  const double now = clock_->now();
  // In the order they became due; calls due at the same moment in the order they were made.
  std::vector<std::pair<double, KODispatchToken>> due;
  for (const auto& [token, timer] : simulatedTimers_) {
    if (!fixed || timer.due <= now) due.emplace_back(timer.due, token);
  }
  std::sort(due.begin(), due.end());
  for (const auto& [when, token] : due) {
    auto it = simulatedTimers_.find(token);
    enqueueLocked(it->second.onMain, std::move(it->second.work));
    simulatedTimers_.erase(it);
  }
}

std::size_t KOSimDispatch::pendingSimulatedCalls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return simulatedTimers_.size();
}

KODispatchToken KOSimDispatch::afterMain(double delaySeconds, std::function<void()> work) {
  return schedule(delaySeconds, true, std::move(work));
}

KODispatchToken KOSimDispatch::afterBackground(double delaySeconds, std::function<void()> work) {
  return schedule(delaySeconds, false, std::move(work));
}

bool KOSimDispatch::cancel(KODispatchToken token) {
  std::lock_guard<std::mutex> lock(mutex_);
  return timers_.erase(token) > 0 || simulatedTimers_.erase(token) > 0;
}

bool KOSimDispatch::isMainThread() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::this_thread::get_id() == mainThread_;
}

void KOSimDispatch::adoptCurrentThreadAsMain() {
  std::lock_guard<std::mutex> lock(mutex_);
  mainThread_ = std::this_thread::get_id();
}

std::size_t KOSimDispatch::pumpMain() {
  std::deque<std::function<void()>> ready;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (mainQueue_.empty()) return 0;  // the common case while a run loop waits: no allocation
    ready.swap(mainQueue_);
  }
  for (auto& work : ready) runGuarded(work);
  return ready.size();
}

bool KOSimDispatch::runMainUntil(const std::function<bool()>& condition, double timeoutSeconds) {
  const auto deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeoutSeconds));
  for (;;) {
    pumpMain();
    if (condition()) return true;
    if (Clock::now() >= deadline) return false;
    // Wake for new main-queue work at once; otherwise look at the condition again shortly, since
    // it may depend on work finishing on another thread (a network completion, say).
    std::unique_lock<std::mutex> lock(mutex_);
    mainCv_.wait_until(lock, std::min(deadline, Clock::now() + std::chrono::microseconds(250)),
                       [this] { return !mainQueue_.empty() || stopping_; });
    if (stopping_) return condition();
  }
}

bool KOSimDispatch::backgroundIdle() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!backgroundQueue_.empty() || backgroundRunning_ != 0) return false;
  for (const auto& [token, timer] : timers_) {
    if (!timer.onMain) return false;  // delayed background work is work still to come
  }
  return true;
}

void KOSimDispatch::backgroundLoop() {
  for (;;) {
    std::function<void()> work;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      backgroundCv_.wait(lock, [this] { return stopping_ || !backgroundQueue_.empty(); });
      if (stopping_) return;
      work = std::move(backgroundQueue_.front());
      backgroundQueue_.pop_front();
      ++backgroundRunning_;
    }
    runGuarded(work);
    std::lock_guard<std::mutex> lock(mutex_);
    --backgroundRunning_;
  }
}

void KOSimDispatch::timerLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    if (timers_.empty()) {
      timerCv_.wait(lock);
      continue;
    }
    auto earliest = timers_.begin();
    for (auto it = timers_.begin(); it != timers_.end(); ++it) {
      if (it->second.due < earliest->second.due) earliest = it;
    }
    if (Clock::now() < earliest->second.due) {
      timerCv_.wait_until(lock, earliest->second.due);
      continue;
    }
    Timer timer = std::move(earliest->second);
    timers_.erase(earliest);
    enqueueLocked(timer.onMain, std::move(timer.work));
  }
}
