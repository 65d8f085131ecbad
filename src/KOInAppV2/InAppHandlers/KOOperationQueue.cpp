#include "KOOperationQueue.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <vector>

struct KOOperationQueue::State : std::enable_shared_from_this<KOOperationQueue::State> {
  explicit State(int limit) : maxConcurrent(std::max(1, limit)) {}

  const int maxConcurrent;
  mutable std::mutex mutex;
  std::deque<std::shared_ptr<KOOperation>> waiting;
  std::vector<std::weak_ptr<KOOperation>> running;

  // Starts what fits into the free slots and drops what was cancelled meanwhile. Operations are
  // started and dropped outside the lock: their start() may finish them on this very thread.
  void startWhatFits() {
    std::vector<std::shared_ptr<KOOperation>> starting;
    std::vector<std::shared_ptr<KOOperation>> dropped;
    {
      std::lock_guard<std::mutex> lock(mutex);
      while (!waiting.empty()) {
        if (waiting.front()->isCancelled()) {
          dropped.push_back(std::move(waiting.front()));
        } else if (running.size() < static_cast<std::size_t>(maxConcurrent)) {
          running.push_back(waiting.front());
          starting.push_back(std::move(waiting.front()));
        } else {
          break;
        }
        waiting.pop_front();
      }
    }
    for (auto& op : dropped) {
      op->onFinished_ = nullptr;
      op->cancelledBeforeStart();
      op->finished_ = true;
    }
    for (auto& op : starting) {
      op->executing_ = true;
      op->start();
    }
  }

  void finished(const KOOperation* op) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      std::erase_if(running, [op](const std::weak_ptr<KOOperation>& r) {
        auto held = r.lock();
        return !held || held.get() == op;
      });
    }
    startWhatFits();
  }
};

KOOperationQueue::KOOperationQueue(int maxConcurrentOperationCount)
    : state_(std::make_shared<State>(maxConcurrentOperationCount)) {}

KOOperationQueue::~KOOperationQueue() = default;

void KOOperationQueue::addOperation(std::shared_ptr<KOOperation> operation) {
  if (!operation) return;
  std::weak_ptr<State> weak = state_;
  const KOOperation* raw = operation.get();
  operation->onFinished_ = [weak, raw] {
    if (auto state = weak.lock()) state->finished(raw);
  };
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->waiting.push_back(std::move(operation));
  }
  state_->startWhatFits();
}

void KOOperationQueue::cancelAllOperations() {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    for (auto& op : state_->waiting) op->cancel();
    for (auto& r : state_->running) {
      if (auto op = r.lock()) op->cancel();
    }
  }
  state_->startWhatFits();
}

int KOOperationQueue::maxConcurrentOperationCount() const { return state_->maxConcurrent; }

std::size_t KOOperationQueue::operationCount() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->waiting.size() + state_->running.size();
}
