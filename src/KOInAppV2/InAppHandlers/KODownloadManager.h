// Fetches the images of one in-app campaign before it is shown: one KOImageDownloadOperation per
// URL, at most five at once, and one answer for the lot — every image's bytes in URL order, or a
// failure. The caller creates a manager per campaign download and stores and decodes the bytes.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "KOImageDownloadOperation.h"
#include "KOOperationQueue.h"
#include "kovantis/KOValue.h"

class KODownloadManager {
 public:
  /// Success, the transport error (nil when there was none) and, on success, the result entries:
  /// {"isGif": 1 or 0, "data": the bytes} in URL order. Called on the main queue.
  using Completion = std::function<void(bool success, const KOValue& error, const KOValue& results)>;

  /// Room for this many images per download; one more fails the download.
  static constexpr std::size_t kResultSlots = 10;
  static constexpr int kMaxConcurrentDownloads = 5;

  KODownloadManager();
  KODownloadManager(const KODownloadManager&) = delete;
  KODownloadManager& operator=(const KODownloadManager&) = delete;

  /// Starts one download per URL string. The completion comes once all succeeded, or on each
  /// failure; an empty list never completes.
  void download(const KOArray& urlStrings, Completion withCompletion);
  /// The result list without the placeholders of unused slots.
  KOArray cleanupDataArray(KOArray dataArray) const;

  KOOperationQueue& downloadQueue();
  /// The operations this manager started, in URL order.
  std::vector<std::shared_ptr<KOImageDownloadOperation>> downloads() const;

 private:
  struct Impl;
  struct Round;
  static void imageDownloaded(const std::shared_ptr<Impl>& impl, const std::shared_ptr<Round>& round,
                              const std::shared_ptr<KOImageDownloadOperation>& operation, const KOValue& data,
                              bool success, const KOValue& error);
  static KOArray withoutPlaceholders(KOArray dataArray, std::size_t operations);
  // Shared with the operations' completions: a download in flight outlives a released manager.
  std::shared_ptr<Impl> impl_;
};
