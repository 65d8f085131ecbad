#include "KOImageDownloadOperation.h"

#include <utility>

#include "KOUtilities/KOLogger.h"
#include "Network/ADHttpClient.h"
#include "kovantis/KOPlatform.h"

KOImageDownloadOperation::KOImageDownloadOperation(KOURL url) : url_(std::move(url)) {}

void KOImageDownloadOperation::start() {
  try {
    auto self = std::static_pointer_cast<KOImageDownloadOperation>(shared_from_this());
    KOPlatform::current().dispatch->asyncBackground([self] { self->startDownload(); });
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
    report(KOValue(), false, KOValue(std::string(e.what())));
  }
}

void KOImageDownloadOperation::startDownload() {
  try {
    const KOServiceEndpoints& endpoints = KOPlatform::current().endpoints;
    KOURLRequest request;
    request.url = url_.absoluteString;
    request.method = "GET";
    request.timeoutSeconds = endpoints.timeoutSeconds;
    request.verifyCertificates = endpoints.verifyCertificates;
    auto self = std::static_pointer_cast<KOImageDownloadOperation>(shared_from_this());
    ADHttpClient::sharedInstance().dataRequest(
        std::move(request), [self](std::vector<std::uint8_t>&& bytes, long statusCode, const std::string& error) {
          const bool success = error.empty() && !bytes.empty() && statusCode == 200;
          // As from the platform's URL session: bytes whenever an answer came, even an empty one.
          KOValue data = error.empty() ? KOValue(KOData{std::move(bytes)}) : KOValue();
          self->report(std::move(data), success, error.empty() ? KOValue() : KOValue(error));
        });
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
    report(KOValue(), false, KOValue(std::string(e.what())));
  }
}

void KOImageDownloadOperation::report(KOValue data, bool success, KOValue error) {
  // The block leaves the operation with its one report: it may hold whoever holds this operation.
  CompletionBlock block = std::exchange(imageDownloadCompletionBlock_, nullptr);
  auto self = std::static_pointer_cast<KOImageDownloadOperation>(weak_from_this().lock());
  if (block && self) {
    try {
      KOPlatform::current().dispatch->asyncMain(
          [self, block = std::move(block), data = std::move(data), success, error = std::move(error)] {
            try {
              block(self, data, success, error);
            } catch (const std::exception& e) {
              KOLogger::logException(KO_HERE, self.get(), "Kovantis - Exception : %@", e);
            }
          });
    } catch (const std::exception& e) {
      KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
    }
  }
  markFinished();
}

void KOImageDownloadOperation::cancelledBeforeStart() { imageDownloadCompletionBlock_ = nullptr; }
