// The one place that knows the service's API: builds each call's query (universal parameters plus
// its own keys) and body, picks the service and the client flavour, and hands the answer back.
// Also runs the configuration call and the remote log upload.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ADHttpClient.h"
#include "ADServiceRequestGenerator.h"
#include "KOUtilities/KOLogger.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/KOValue.h"

class KOServerInterface {
 public:
  using SuccessCompletion = std::function<void(bool success)>;
  using FetchCompletion = std::function<void(const KOValue& response)>;

  static KOServerInterface& sharedInstance();

  ADHttpClient& httpClient() { return httpClient_; }
  ADServiceRequestGenerator& requestGenerator() { return requestGenerator_; }

  /// The parameters that identify app, SDK and device on every call. Throws KOAssertionFailure
  /// when no app id is stored and KOTypeError when the app version is missing. Shares the result
  /// with the app group when one is set.
  KODictionary getUniversalParams();
  /// The legacy names of the same facts.
  KODictionary getUniversalParamsForV1();

  /// Adds the device; attributes are accepted and not sent.
  void initializeWith(const KODictionary& attributes, SuccessCompletion andCompletionHandler);
  void sendData(const KOValue& batch, const KOValue& withBatchID, SuccessCompletion andCompletionHandler);
  /// The same with the batch body already serialised.
  void sendData(const KOJSONText& batch, const KOValue& withBatchID, SuccessCompletion andCompletionHandler);
  /// One sync round's reports: the universal parameters and the request are made once for all of
  /// them, and each body is sent from where it is kept, without a copy. The completion hears of
  /// every report (id, accepted), also when none could be sent.
  struct Report {
    std::string batchId;  // digits
    /// Makes the body when the request is sent; nothing when the batch is gone.
    std::function<std::shared_ptr<const std::string>()> body;
  };
  /// Sends each report under its batch id; the completion hears each one's answer status (200:
  /// accepted; 0: no answer came).
  void sendReports(const std::vector<Report>& reports,
                   const std::function<void(const std::string& batchId, long status)>& completion);
  void getInAppCampaignsWithLastUpdatedTime(const KOValue& time, const KODictionary& campaignListDict,
                                            FetchCompletion andCompletionHandler);
  void getInAppForCampaignID(const std::string& campaignID, FetchCompletion andCompletionHandler);
  void triggerSmartInAppWithEvent(const std::string& event, const KOValue& andPayload,
                                  FetchCompletion andCompletionHandler);
  void getPushNotificationsFromServerWithLastUpdatedTime(const KOValue& time, FetchCompletion andCompletion);
  /// With no location nothing is sent and the completion gets nil at once.
  void geofenceHitWithLocation(const KOLocationCoordinate* location, const std::string& transitionType,
                               const std::string& geoId, FetchCompletion andCompletion);
  void getGeofencesForLocation(const KOLocationCoordinate* location, FetchCompletion andCompletion);
  void setNotificationCategoriesWithCategories(const KOArray& categories);
  /// At most once an hour: tunes remote logging, the log token and the batch size.
  void getConfigForKovantis();
  void sendLogToLogEntries(const std::string& message, const KOValue& andTraceBack, const std::string& andLevel);

 private:
  KOServerInterface();

  /// Builds the request and sends it with the given flavour; a request that cannot be built
  /// fails its completion at once.
  template <typename Body>
  void send(int service, const KODictionary& params, const Body& body, SuccessCompletion completion);
  /// Builds the call's parameters and body, then fetches; any failure is logged at the caller's
  /// place and answered with nil.
  template <typename Build>
  void fetchGuarded(const KOSourceLocation& where, int service, Build build, FetchCompletion completion);
  template <typename Body>
  void sendReport(const Body& batch, const KOValue& batchID, SuccessCompletion completion);
  void fetch(int service, const KODictionary& params, const KOValue& body, FetchCompletion completion);

  ADHttpClient& httpClient_;
  ADServiceRequestGenerator& requestGenerator_;
};
