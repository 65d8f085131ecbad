// What the service knows of each device's privacy choices, read from what the devices sent: once a
// user says no, nothing leaves the device, so the service learns it from the traffic before.
//
//   consent  "denied" when the device's latest call carried "tracking_consent=denied": the SDK
//            marks the calls of the last sync it makes when a user opts out and the app has the
//            held events sent first. An opt-out that discards them sends nothing at all, and the
//            device just goes silent: the service cannot tell it from an app no longer used, and
//            shows "granted" with the time it was last seen. A device that calls unmarked again
//            was granted consent again.
//   wiped    the SDK's install id ("unique_id") is "<vendor id>-<seconds it was made>". A device
//            that comes with a newer install id on the same vendor id had its SDK data wiped (a
//            reinstall changes the vendor id): the earlier install id is marked wiped, and names
//            the one that followed it.
//
// GET /__emulator/privacy answers one entry per install id, in the order they were first seen:
// {"unique_id", "vendor_id", "app_id", "device_unique_id", "consent", "wiped", "followed_by",
//  "first_seen", "last_seen", "calls"}.

#include <algorithm>
#include <map>
#include <vector>

#include "KOEmulatorServiceCalls.h"
#include "KOEmulatorStore.h"

namespace KOEmulatorCalls {

namespace {

struct Install {
  std::string uniqueId, vendorId, appId, deviceUniqueId, consent = "granted", followedBy;
  double firstSeen = 0, lastSeen = 0;
  int64_t calls = 0;
};

// The vendor id part of an install id: what comes before "-<digits>" at its end.
std::string vendorIdOf(const std::string& uniqueId) {
  const size_t dash = uniqueId.rfind('-');
  if (dash == std::string::npos || dash + 1 == uniqueId.size()) return uniqueId;
  const bool digits = std::all_of(uniqueId.begin() + static_cast<std::ptrdiff_t>(dash) + 1, uniqueId.end(),
                                  [](char c) { return c >= '0' && c <= '9'; });
  return digits ? uniqueId.substr(0, dash) : uniqueId;
}

}  // namespace

Reply privacy(const Env& env, const Call&, const Query&) {
  std::vector<Install> installs;
  std::map<std::string, size_t> byId;
  for (const KOEmulatorRequest& request : env.store.requests("")) {  // oldest first
    const auto id = request.query.find("unique_id");
    if (id == request.query.end() || id->second.empty()) continue;
    auto [at, added] = byId.try_emplace(id->second, installs.size());
    if (added) {
      Install install;
      install.uniqueId = id->second;
      install.vendorId = vendorIdOf(id->second);
      install.firstSeen = request.time;
      installs.push_back(std::move(install));
    }
    Install& install = installs[at->second];
    const auto field = [&](const char* key, std::string& into) {
      const auto it = request.query.find(key);
      if (it != request.query.end() && !it->second.empty()) into = it->second;
    };
    field("app_id", install.appId);
    field("device_unique_id", install.deviceUniqueId);
    const auto consent = request.query.find("tracking_consent");
    install.consent = consent == request.query.end() ? "granted" : consent->second;
    install.lastSeen = request.time;
    ++install.calls;
  }
  // Each install id is followed by the next one first seen on its vendor id.
  std::map<std::string, size_t> latestOnVendor;
  for (size_t i = 0; i < installs.size(); ++i) {
    const auto [previous, first] = latestOnVendor.try_emplace(installs[i].vendorId, i);
    if (first) continue;
    installs[previous->second].followedBy = installs[i].uniqueId;
    previous->second = i;
  }
  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartArray();
  for (const Install& install : installs) {
    w.StartObject();
    const std::pair<const char*, const std::string*> texts[] = {
        {"unique_id", &install.uniqueId}, {"vendor_id", &install.vendorId},
        {"app_id", &install.appId},       {"device_unique_id", &install.deviceUniqueId},
        {"consent", &install.consent},    {"followed_by", &install.followedBy}};
    for (const auto& [key, text] : texts) {
      w.Key(key);
      J::writeString(w, *text);
    }
    w.Key("wiped");
    w.Bool(!install.followedBy.empty());
    w.Key("first_seen");
    w.Double(install.firstSeen);
    w.Key("last_seen");
    w.Double(install.lastSeen);
    w.Key("calls");
    w.Int64(install.calls);
    w.EndObject();
  }
  w.EndArray();
  return ok({buffer.GetString(), buffer.GetSize()});
}

}  // namespace KOEmulatorCalls
