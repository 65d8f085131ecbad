// Runs operations in the order they were added, at most a fixed number at once. The queue only
// starts them: each operation's work runs wherever its start() sends it. Thread-safe.
#pragma once

#include <cstddef>
#include <memory>

#include "KOOperation.h"

class KOOperationQueue {
 public:
  explicit KOOperationQueue(int maxConcurrentOperationCount);
  ~KOOperationQueue();
  KOOperationQueue(const KOOperationQueue&) = delete;
  KOOperationQueue& operator=(const KOOperationQueue&) = delete;

  /// Queues the operation and starts it at once when a slot is free (on the calling thread).
  void addOperation(std::shared_ptr<KOOperation> operation);
  /// Cancels every operation of the queue: those waiting are dropped unstarted, those under way run on.
  void cancelAllOperations();

  int maxConcurrentOperationCount() const;
  /// Operations waiting or under way.
  std::size_t operationCount() const;

 private:
  struct State;
  // Shared with the operations' finish hooks, which may run after the queue itself is gone.
  std::shared_ptr<State> state_;
};
