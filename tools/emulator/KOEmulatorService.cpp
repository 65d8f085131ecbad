// The request table and what every row shares: finding a call's row, the checks its kind names and
// the answer for a call no row takes. The rows' handlers live by area in KOEmulatorService*.cpp.

#include "KOEmulatorService.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "KOEmulatorServiceCalls.h"
#include "KOEmulatorStore.h"

namespace KOEmulatorCalls {

rapidjson::Document parseBody(const KOEmulatorCall& call) {
  rapidjson::Document doc;
  std::string error;
  if (call.body.empty()) throw Refusal("missing JSON body");
  if (!KOEmulatorJSON::parse(call.body, doc, error)) throw Refusal("body: " + error);
  if (!doc.IsObject()) throw Refusal(std::string("body must be a JSON object, got ") + KOEmulatorJSON::typeName(doc));
  return doc;
}

const rapidjson::Value& member(const rapidjson::Value& object, const char* key, rapidjson::Type type,
                               const char* what) {
  auto it = object.FindMember(key);
  if (it == object.MemberEnd()) throw Refusal(std::string("body is missing \"") + key + "\"");
  if (it->value.GetType() != type) {
    throw Refusal(std::string("body \"") + key + "\" must be " + what + ", got " + KOEmulatorJSON::typeName(it->value));
  }
  return it->value;
}

std::string optionalString(const rapidjson::Value& object, const char* key) {
  auto it = object.FindMember(key);
  if (it == object.MemberEnd()) return {};
  if (!it->value.IsString()) {
    throw Refusal(std::string("body \"") + key + "\" must be a string, got " + KOEmulatorJSON::typeName(it->value));
  }
  return {it->value.GetString(), it->value.GetStringLength()};
}

}  // namespace KOEmulatorCalls

namespace {

using namespace KOEmulatorCalls;

// Which of the shared checks run before a row's handler.
enum class Kind {
  Service,     // a service call: GET without body, POST as JSON, no repeated query parameter
  Universal,   // a service call that also carries the universal parameters
  Control,     // the emulator's own API: none of those checks
  Inspection,  // a control GET that in-process callers reach too
  Image,       // a plain file, not a service call: recorded and open to faults, no shared checks
};

struct Route {
  std::string_view method;
  std::string_view path;  // exact, or every path under it when it ends in "/"
  Kind kind;
  Reply (*handle)(const Env&, const Call&, const Query&);
};

// Every call the emulator answers. Whatever no row takes gets its answer from noRoute().
constexpr Route kRoutes[] = {
    // Reports and devices.
    {"POST", "/v2/device/add", Kind::Universal, deviceAdd},
    {"POST", "/v2/report/add", Kind::Universal, reportAdd},
    {"GET", "/v1/getConfig", Kind::Service, getConfig},
    // In-app campaigns.
    {"POST", "/campaigns/inappcampaigns/fetch", Kind::Universal, inappsFetch},
    {"GET", "/campaigns/inappcampaign/fetch", Kind::Universal, campaignFetch},
    {"POST", "/v2/autotriggerinapps", Kind::Universal, smartTriggers},
    // Push categories and the inbox.
    {"POST", "/v2/categories/add", Kind::Universal, categoriesAdd},
    {"GET", "/v1/getInboxMessages", Kind::Universal, inboxMessages},
    // Geofences.
    {"GET", "/v1/geoFenceHit", Kind::Universal, geofenceHit},
    {"GET", "/v1/geoFences", Kind::Universal, geofences},
    {"POST", kLogPrefix, Kind::Service, logUpload},
    {"GET", kImagePrefix, Kind::Image, image},
    // The control API, its inspections and the dashboard's views.
    {"GET", "/__emulator/health", Kind::Control, health},
    {"POST", "/__emulator/seed", Kind::Control, seed},
    {"POST", "/__emulator/reset", Kind::Control, reset},
    {"POST", "/__emulator/fault", Kind::Control, addFault},
    {"DELETE", "/__emulator/fault", Kind::Control, clearFaults},
    {"GET", "/__emulator/requests", Kind::Inspection, requests},
    {"GET", "/__emulator/devices", Kind::Inspection, devices},
    {"GET", "/__emulator/batches", Kind::Inspection, batches},
    {"GET", "/__emulator/events", Kind::Inspection, events},
    {"GET", "/__emulator/duplicates", Kind::Inspection, duplicates},
    {"GET", "/__emulator/logs", Kind::Inspection, logs},
    {"GET", "/__emulator/categories", Kind::Inspection, categories},
    {"GET", "/__emulator/geofence_hits", Kind::Inspection, geofenceHits},
    {"GET", "/__emulator/campaign_events", Kind::Inspection, campaignEvents},
    {"GET", "/__emulator/privacy", Kind::Inspection, privacy},
    {"GET", "/__emulator/seed", Kind::Inspection, seeds},
    {"GET", "/__emulator/fault", Kind::Inspection, faults},
    {"GET", "/__emulator/timeline", Kind::Control, timeline},
    {"GET", "/__emulator/request_log", Kind::Control, requestLog},
    {"GET", "/__emulator/changes", Kind::Control, changes},
};

bool isService(const Route& route) { return route.kind == Kind::Service || route.kind == Kind::Universal; }

bool takes(const Route& route, std::string_view path) {
  return route.path.ends_with('/') ? path.starts_with(route.path) : path == route.path;
}

const Route* find(std::string_view method, std::string_view path) {
  for (const Route& route : kRoutes) {
    if (route.method == method && takes(route, path)) return &route;
  }
  return nullptr;
}

// The one answer for a call no row takes.
Reply noRoute(const Call& call) {
  if (call.path.starts_with(kControlPrefix)) {
    std::string message = "no such control endpoint: " + (call.method == "GET" ? "" : call.method + " ") + call.path;
    return {404, J::errorBody(message), message};
  }
  std::string allowed;
  for (const Route& route : kRoutes) {
    if (takes(route, call.path)) allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
  }
  if (!allowed.empty()) {
    std::string message = call.method + " not allowed on " + call.path + ", use " + allowed;
    return {405, J::errorBody(message), message};
  }
  std::string message = "no such endpoint: " + call.path;
  return {404, J::errorBody(message), message};
}

// The checks every service call shares, in the order the service makes them.
void checkServiceCall(const Route& route, const Call& call, const Query& q) {
  if (route.method == "GET" && (!call.body.empty() || !call.contentType.empty())) {
    throw Refusal("a GET must carry neither a body nor a content type");
  }
  if (route.method == "POST" && !call.contentType.starts_with("application/json")) {
    throw Refusal("body must be sent as application/json, got \"" + call.contentType + "\"");
  }
  q.refuseRepeated();
  if (route.kind == Kind::Universal) q.requireUniversal();
}

}  // namespace

std::vector<KOEmulatorRoute> KOEmulatorService::routes() {
  std::vector<KOEmulatorRoute> out;
  for (const Route& route : kRoutes) {
    if (isService(route)) out.push_back({std::string(route.method), std::string(route.path)});
  }
  return out;
}

bool KOEmulatorService::isServicePath(const std::string& path) {
  return std::any_of(std::begin(kRoutes), std::end(kRoutes),
                     [&](const Route& route) { return isService(route) && takes(route, path); });
}

bool KOEmulatorService::isFaultablePath(const std::string& path) {
  return std::any_of(std::begin(kRoutes), std::end(kRoutes), [&](const Route& route) {
    return (isService(route) || route.kind == Kind::Image) && takes(route, path);
  });
}

bool KOEmulatorService::isControlPath(const std::string& path) { return path.starts_with(kControlPrefix); }

std::string KOEmulatorService::queryJSON(const std::multimap<std::string, std::string>& query) {
  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  for (auto it = query.begin(); it != query.end();) {
    auto end = query.upper_bound(it->first);
    J::writeString(w, it->first);
    if (std::next(it) == end) {
      J::writeString(w, it->second);
    } else {
      w.StartArray();
      for (; it != end; ++it) J::writeString(w, it->second);
      w.EndArray();
    }
    it = end;
  }
  w.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

KOEmulatorReply KOEmulatorService::handle(const KOEmulatorCall& call) {
  const Route* route = find(call.method, call.path);
  if (!route) return noRoute(call);
  try {
    Query q(call.query);
    if (isService(*route)) checkServiceCall(*route, call, q);
    return route->handle(Env{store_, faults_, imagesDir_}, call, q);
  } catch (const std::invalid_argument& refusal) {
    return {400, J::errorBody(refusal.what()), refusal.what()};
  }
}

std::optional<std::string> KOEmulatorService::inspect(const std::string& what, const std::string& pathFilter) const {
  KOEmulatorCall call;
  call.method = "GET";
  call.path = std::string(kControlPrefix) + what;
  call.query.emplace("path", pathFilter);
  const Route* route = find(call.method, call.path);
  if (!route || route->kind != Kind::Inspection) return std::nullopt;
  return route->handle(Env{store_, faults_, imagesDir_}, call, Query(call.query)).body;
}

void KOEmulatorService::seed(const std::string& json, bool checked) {
  applySeed(store_, json, checked ? SeedCheck::Schema : SeedCheck::ShapeOnly);
}

std::string KOEmulatorService::seedsJSON() const { return seedsOf(store_); }
