#include "KOOperation.h"

void KOOperation::markFinished() {
  if (finished_.exchange(true)) return;
  executing_ = false;
  // Taken out first: the queue's hook may start the next operation, which must not find this one's.
  std::function<void()> onFinished = std::move(onFinished_);
  if (onFinished) onFinished();
}
