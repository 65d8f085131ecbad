// Fetches one in-app image: a plain GET through the SDK's HTTP client, reported once on the main
// queue with the bytes as received. Whether they make an image is the caller's business.
#pragma once

#include <functional>
#include <memory>

#include "KOOperation.h"
#include "kovantis/KOValue.h"

class KOImageDownloadOperation : public KOOperation {
 public:
  /// The operation itself, the bytes (nil when no answer came), whether it succeeded (no transport
  /// error, some bytes, status 200) and the transport error (nil when the exchange completed).
  using CompletionBlock = std::function<void(const std::shared_ptr<KOImageDownloadOperation>& operation,
                                             const KOValue& data, bool success, const KOValue& error)>;

  /// Owned through a std::shared_ptr: the work in flight keeps the operation alive.
  explicit KOImageDownloadOperation(KOURL url);

  const KOURL& url() const { return url_; }
  /// Set before the operation is added to a queue.
  void setImageDownloadCompletionBlock(CompletionBlock block) { imageDownloadCompletionBlock_ = std::move(block); }
  const CompletionBlock& imageDownloadCompletionBlock() const { return imageDownloadCompletionBlock_; }

  /// Hands startDownload to the shared background queue, so nothing runs on the starting thread.
  void start() override;
  void startDownload();

 protected:
  void cancelledBeforeStart() override;

 private:
  void report(KOValue data, bool success, KOValue error);

  const KOURL url_;
  CompletionBlock imageDownloadCompletionBlock_;
};
