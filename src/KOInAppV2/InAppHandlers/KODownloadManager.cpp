#include "KODownloadManager.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <string_view>

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"

namespace {

// Tagged by the URL's text, not by the bytes: the decoder downstream picks its path by this flag.
bool isGifURL(const std::string& url) {
  const std::string_view path = std::string_view(url).substr(0, url.find('?'));
  return path.ends_with(".gif");
}

}  // namespace

struct KODownloadManager::Impl {
  KOOperationQueue downloadQueue{kMaxConcurrentDownloads};
  mutable std::mutex mutex;  // downloads: appended by the caller, searched on the main queue
  std::vector<std::shared_ptr<KOImageDownloadOperation>> downloads;

  std::size_t operationCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return downloads.size();
  }
};

// One call of download(): touched only by the per-image completions, which all run on the main queue.
struct KODownloadManager::Round {
  KOArray results;
  std::size_t remaining = 0;
  Completion completion;
};

KODownloadManager::KODownloadManager() : impl_(std::make_shared<Impl>()) {}

KOOperationQueue& KODownloadManager::downloadQueue() { return impl_->downloadQueue; }

std::vector<std::shared_ptr<KOImageDownloadOperation>> KODownloadManager::downloads() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->downloads;
}

void KODownloadManager::download(const KOArray& urlStrings, Completion withCompletion) {
  try {
    auto round = std::make_shared<Round>();
    // A fixed number of slots: an image past them fails the download when it arrives.
    for (std::size_t i = 0; i < kResultSlots; ++i) round->results.push_back(KOValue::null());
    round->remaining = urlStrings.size();
    round->completion = std::move(withCompletion);
    for (const KOValue& urlString : urlStrings) {
      auto operation = std::make_shared<KOImageDownloadOperation>(KOURL{urlString.stringValue()});
      std::shared_ptr<Impl> impl = impl_;
      operation->setImageDownloadCompletionBlock(
          [impl, round](const std::shared_ptr<KOImageDownloadOperation>& op, const KOValue& data, bool success,
                        const KOValue& error) { imageDownloaded(impl, round, op, data, success, error); });
      {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->downloads.push_back(operation);
      }
      impl_->downloadQueue.addOperation(std::move(operation));
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception while download images is %@", e);
  }
}

void KODownloadManager::imageDownloaded(const std::shared_ptr<Impl>& impl, const std::shared_ptr<Round>& round,
                                        const std::shared_ptr<KOImageDownloadOperation>& operation, const KOValue& data,
                                        bool success, const KOValue& error) {
  try {
    if (error.isAbsent() && data.isData() && success) {
      // A failed image's share is never taken off, so no success is reported after a failure.
      --round->remaining;
      std::size_t position = 0;
      {
        std::lock_guard<std::mutex> lock(impl->mutex);
        const auto found = std::find(impl->downloads.begin(), impl->downloads.end(), operation);
        if (found == impl->downloads.end()) throw std::out_of_range("operation not among the downloads");
        position = static_cast<std::size_t>(found - impl->downloads.begin());
      }
      const std::string& url = operation->url().absoluteString;
      KOLogger::logPlain(KOStringFormat::format("Kovantis - image download started for url %@", {KOValue(url)}));
      if (position >= round->results.size()) {
        throw std::out_of_range("image " + std::to_string(position + 1) + " has no result slot");
      }
      round->results[position] =
          KODictionary{{"isGif", KOValue(static_cast<std::int64_t>(isGifURL(url) ? 1 : 0))}, {"data", data}};
      if (round->remaining == 0) {
        KOLogger::logPlain("Kovantis - all images downloaded for in-app");
        round->results = withoutPlaceholders(std::move(round->results), impl->operationCount());
        if (round->completion) round->completion(true, KOValue(), KOValue(round->results));
      }
      return;
    }
    KOLogger::logPlain(KOStringFormat::format(
        "Kovantis - error in image download completion block for downloading image for in-apps is %@", {error}));
    impl->downloadQueue.cancelAllOperations();
    if (round->completion) round->completion(false, error, KOValue());
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, impl.get(), "Kovantis - Exception while download image is %@", e);
    impl->downloadQueue.cancelAllOperations();
    if (round->completion) round->completion(false, KOValue(), KOValue());
  }
}

KOArray KODownloadManager::cleanupDataArray(KOArray dataArray) const {
  return withoutPlaceholders(std::move(dataArray), impl_->operationCount());
}

KOArray KODownloadManager::withoutPlaceholders(KOArray dataArray, std::size_t operations) {
  // With every slot up to the last image filled, the first placeholder sits at the last position
  // visited, and removing the placeholders there leaves exactly the results.
  const std::size_t n = std::min(dataArray.size(), operations + 1);
  for (std::size_t i = 0; i < n; ++i) {
    if (i >= dataArray.size()) throw std::out_of_range("result list shrank below the images downloaded");
    if (dataArray[i].isNull()) {
      KOArray kept;
      for (KOValue& entry : dataArray) {
        if (!entry.isNull()) kept.push_back(std::move(entry));
      }
      dataArray = std::move(kept);
    }
  }
  return dataArray;
}
