#pragma once

// The server's worker pool. It exists for one reason beyond httplib's own: its workers block
// SIGPIPE, so a client that hangs up before its answer is written (or a dropped connection)
// makes the write fail instead of killing the host process.

#include <httplib.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

class KOEmulatorTaskQueue : public httplib::TaskQueue {
 public:
  explicit KOEmulatorTaskQueue(size_t threads);
  ~KOEmulatorTaskQueue() override;
  KOEmulatorTaskQueue(const KOEmulatorTaskQueue&) = delete;
  KOEmulatorTaskQueue& operator=(const KOEmulatorTaskQueue&) = delete;

  void enqueue(std::function<void()> fn) override;
  void shutdown() override;

 private:
  void work();
  std::mutex mutex_;
  std::condition_variable cond_;
  std::deque<std::function<void()>> jobs_;
  std::vector<std::thread> threads_;
  bool shuttingDown_ = false;
};
