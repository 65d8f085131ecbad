// Sends requests over HTTP(S) on one network thread driving libcurl's multi interface. Many
// requests may be in flight at once; connections to a host are reused.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KOURLRequest.h"
#include "kovantis/KOValue.h"

class ADHttpClient {
 public:
  using FetchCompletion = std::function<void(const KOValue& response)>;
  using SuccessCompletion = std::function<void(bool success)>;
  /// The bytes as received, the HTTP status (0 when no answer came) and the transport error ("" when
  /// the exchange completed, whatever its status).
  using DataCompletion =
      std::function<void(std::vector<std::uint8_t>&& bytes, long statusCode, const std::string& error)>;

  /// The SDK's client. Its network thread starts on first use and is stopped and joined when the
  /// process exits.
  static ADHttpClient& sharedInstance();

  /// A client of one's own (tests, benchmarks): the network thread lives as long as the object.
  ADHttpClient();
  ~ADHttpClient();
  ADHttpClient(const ADHttpClient&) = delete;
  ADHttpClient& operator=(const ADHttpClient&) = delete;

  // Requests are taken by value: a caller done with its request moves it in, body and all.
  /// Success is status 200: the completion gets the parsed answer ({} for an empty or unreadable
  /// body). Otherwise it gets nil. Either way on the main queue.
  void fetchRequest(KOURLRequest request, FetchCompletion withResponseInCompletionHandler);
  /// Success is status 200; the completion runs on the network thread.
  void syncRequest(KOURLRequest request, SuccessCompletion withCompletionHandler);
  /// The same, telling the completion the answer's status (0 when none came: a transport error),
  /// so that a caller can tell a refusal of what it sent from a service that is away.
  using StatusCompletion = std::function<void(long statusCode)>;
  void syncRequestWithStatus(KOURLRequest request, StatusCompletion withCompletionHandler);
  /// Success is status 204; the completion runs on the network thread. Failures are logged to the
  /// console only, so that a failing upload never causes another.
  void sendLogRequest(KOURLRequest request, SuccessCompletion withCompletionHandler);
  /// Any status: the caller judges the answer (image downloads). Nothing is parsed or logged; the
  /// completion runs on the network thread.
  void dataRequest(KOURLRequest request, DataCompletion withCompletionHandler);

  /// Closes the connections kept for reuse once nothing is in flight (as when the app goes to the
  /// background); waits at most the timeout and returns whether they were closed.
  bool closeIdleConnections(double timeoutSeconds = 5);
  /// Stops the network thread; requests still in flight complete as failures.
  void shutdown();

  // ---- For tests and benchmarks only.
  /// Requests handed over and not yet completed.
  std::size_t inFlight() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
