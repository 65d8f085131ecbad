// One unit of asynchronous work that a KOOperationQueue starts when one of its slots is free. The
// work may end on any thread; it calls markFinished() then, which frees the slot.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

class KOOperationQueue;

class KOOperation : public std::enable_shared_from_this<KOOperation> {
 public:
  virtual ~KOOperation() = default;
  KOOperation(const KOOperation&) = delete;
  KOOperation& operator=(const KOOperation&) = delete;

  /// Begins the work. The queue calls it once, and never for an operation cancelled before that.
  virtual void start() = 0;

  /// An operation not yet started never starts; one under way runs to its end.
  void cancel() noexcept { cancelled_ = true; }
  bool isCancelled() const noexcept { return cancelled_; }
  bool isExecuting() const noexcept { return executing_; }
  bool isFinished() const noexcept { return finished_; }

 protected:
  KOOperation() = default;
  /// Ends the operation and tells its queue; later calls do nothing.
  void markFinished();
  /// The queue dropped this operation unstarted after a cancel: release what the work would have used.
  virtual void cancelledBeforeStart() {}

 private:
  friend class KOOperationQueue;
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};
  std::function<void()> onFinished_;  // set by the queue before start
};
