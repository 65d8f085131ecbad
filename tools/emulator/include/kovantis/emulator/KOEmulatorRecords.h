#pragma once

// Plain records the emulator keeps, as handed to in-process callers. The HTTP inspection
// endpoints serialise the same records, so both views always agree.

#include <cstdint>
#include <map>
#include <string>

struct KOEmulatorRequest {
  int64_t id = 0;
  double time = 0;  // seconds since 1970
  std::string method;
  std::string path;
  std::string target;                        // path and query exactly as received
  std::string queryJSON;                     // {"key": "value"}; a repeated key gives an array
  std::map<std::string, std::string> query;  // last value of each key
  std::string body;
  int status = 0;         // 0 when the connection was dropped
  std::string error;      // why it was refused, empty when accepted
  std::string fault;      // the injected fault that hit it, if any
  double durationMs = 0;  // from its arrival to its answer
};

struct KOEmulatorDevice {
  std::string appId, uniqueId, deviceUniqueId, pushId, model, osVer, appVer, sdkVer;
  std::string idfv, advertisingId;
  double firstSeen = 0, lastSeen = 0;
  int64_t registrations = 0;
};

struct KOEmulatorBatch {
  std::string appId, uniqueId, batchId;
  int64_t viewsCount = 0;
  int64_t eventCount = 0;
  double received = 0;
};

struct KOEmulatorEvent {
  std::string appId, uniqueId, batchId;
  int64_t position = 0;  // index inside its batch
  std::string name;      // "EVENT_ACTION" when it is a string
  std::string json;      // the event record as received
};

struct KOEmulatorDuplicate {
  std::string appId, uniqueId, batchId;
  int64_t viewsCount = 0;
  double received = 0;
  bool identical = false;  // same events as the stored batch
};

struct KOEmulatorLog {
  std::string token, appid, uid, lvl, tb, sdkVer, msg, tmS;
  double received = 0;
};

struct KOEmulatorCategories {
  std::string appId, uniqueId;
  std::string deviceUniqueId, pushId;  // the device they came from
  std::string dataJSON;                // the "data" array as received
  double received = 0;
};

struct KOEmulatorGeofenceHit {
  std::string appId, uniqueId, deviceUniqueId;  // the device it came from
  std::string geoId, transitionType;            // "enter" or "exit"
  double lat = 0, lng = 0;                      // where the device reported it
  double received = 0;
};

// What the devices reported about one campaign, counted from the events they sent: the push
// events carry the push's "kovantis" block and the in-app events the campaign's "cid".
struct KOEmulatorCampaignEvents {
  std::string campaignId;
  int64_t pushReceived = 0;        // "NOTIFICATION_RECEIVED_IOS_APP_ACTIVE"
  int64_t pushClicked = 0;         // "NOTIFICATION_CLICKED_IOS_KOV"
  int64_t pushDismissed = 0;       // "NOTIFICATION_DISMISSED_IOS_KOV"
  int64_t inAppShown = 0;          // "iOS_IN_APP_SHOWN"
  int64_t inAppClicked = 0;        // "iOS_IN_APP_CLICKED"
  int64_t inAppAutoDismissed = 0;  // "iOS_IN_APP_AUTO_DISMISS"
};

// A user as the service keeps it: the attributes its devices reported for it (the
// "EVENT_ACTION_USER_ATTRIBUTE" events), each key with the value reported last. Time stamps are
// milliseconds since 1970, locations "lat,lng", as they were reported.
struct KOEmulatorUser {
  std::string appId, uniqueId;
  std::string attributesJSON;  // {"USER_ATTRIBUTE_USER_EMAIL": "ada@example.com", ...}
};

struct KOEmulatorFault {
  std::string path;            // exact path, a prefix ending in "/", or "*" for every service path
  int status = 0;              // answer with this status; 0 answers normally (after any delay)
  int64_t delayMs = 0;         // stall this long before answering or dropping
  bool drop = false;           // close the connection without an answer
  int64_t count = -1;          // requests it still hits; -1 means until cleared
  double share = 1.0;          // fraction of matching requests it hits, spread evenly
  std::string bodyContains{};  // when set, only requests whose body holds this text (a poisoned record)
};

struct KOEmulatorRoute {
  std::string method;
  std::string path;  // exact, or every path under it when it ends in "/"
};
