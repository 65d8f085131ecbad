#include "KOEmulatorTaskQueue.h"

#include <pthread.h>

#include <csignal>
#include <ctime>

KOEmulatorTaskQueue::KOEmulatorTaskQueue(size_t threads) {
  for (size_t i = 0; i < threads; ++i)
    threads_.emplace_back([this] {
      pthread_setname_np(pthread_self(), "emu-worker");
      work();
    });
}

KOEmulatorTaskQueue::~KOEmulatorTaskQueue() { shutdown(); }

void KOEmulatorTaskQueue::enqueue(std::function<void()> fn) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(fn));
  }
  cond_.notify_one();
}

void KOEmulatorTaskQueue::shutdown() {
  {
    std::lock_guard lock(mutex_);
    shuttingDown_ = true;
  }
  cond_.notify_all();
  for (auto& t : threads_) {
    if (t.joinable()) t.join();
  }
}

void KOEmulatorTaskQueue::work() {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  for (;;) {
    std::function<void()> fn;
    {
      std::unique_lock lock(mutex_);
      cond_.wait(lock, [&] { return shuttingDown_ || !jobs_.empty(); });
      if (jobs_.empty()) return;  // shutting down and nothing left
      fn = std::move(jobs_.front());
      jobs_.pop_front();
    }
    fn();
    // Discard a SIGPIPE this connection left pending on the thread.
    timespec zero{0, 0};
    while (sigtimedwait(&pipe, nullptr, &zero) > 0) {
    }
  }
}
