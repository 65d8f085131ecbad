#pragma once

// What the service's files share: the checks a call's query and body go through, the seeds the
// answers come from, and the handlers of the request table's rows (KOEmulatorService.cpp), one
// file per area of the service.

#include <rapidjson/document.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "KOEmulatorJSON.h"
#include "KOEmulatorService.h"
#include "kovantis/emulator/KOEmulator.h"

class KOEmulatorFaults;
class KOEmulatorStore;

namespace KOEmulatorCalls {

// Thrown while checking a call; becomes a 400 answer carrying the message. The control API
// refuses with the std::invalid_argument its parts throw, answered the same way.
struct Refusal : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

constexpr std::string_view kLogPrefix = "/noformat/logs/";
constexpr std::string_view kControlPrefix = KOEmulator::kControlPath;
constexpr std::string_view kImagePrefix = "/images/";

// Present on every call that carries the universal parameters; may be empty.
constexpr std::array kUniversalKeys = {
    "os",      "app_ver",   "app_id",      "sdk_ver",          "unique_id",        "model",
    "os_ver",  "device_ts", "device_tz",   "device_tz_offset", "device_unique_id", "os_value",
    "version", "appId",     "lib_version", "device_model",     "device_version",
};

// The legacy duplicates of the universal parameters must agree with them.
constexpr std::array<std::pair<const char*, const char*>, 8> kMirroredKeys = {{
    {"os", "os_value"},
    {"app_ver", "version"},
    {"app_id", "appId"},
    {"sdk_ver", "lib_version"},
    {"model", "device_model"},
    {"os_ver", "device_version"},
    {"push_id", "pushToken"},
    {"account_id", "uid"},
}};

class Query {
 public:
  explicit Query(const std::multimap<std::string, std::string>& q) : q_(q) {}
  void refuseRepeated() const {
    for (auto it = q_.begin(); it != q_.end(); it = q_.upper_bound(it->first)) {
      if (q_.count(it->first) > 1) throw Refusal("query parameter \"" + it->first + "\" given more than once");
    }
  }
  bool has(const std::string& key) const { return q_.count(key) != 0; }
  const std::string& require(const std::string& key) const {
    auto it = q_.find(key);
    if (it == q_.end()) throw Refusal("missing query parameter \"" + key + "\"");
    return it->second;
  }
  const std::string& requireNonEmpty(const std::string& key) const {
    const auto& v = require(key);
    if (v.empty()) throw Refusal("query parameter \"" + key + "\" is empty");
    return v;
  }
  std::string get(const std::string& key) const {
    auto it = q_.find(key);
    return it == q_.end() ? std::string() : it->second;
  }
  void requireDigits(const std::string& key, bool allowSign = false) const {
    const auto& v = requireNonEmpty(key);
    size_t start = (allowSign && (v[0] == '-' || v[0] == '+')) ? 1 : 0;
    if (start == v.size() || !std::all_of(v.begin() + static_cast<std::ptrdiff_t>(start), v.end(),
                                          [](char c) { return c >= '0' && c <= '9'; })) {
      throw Refusal("query parameter \"" + key + "\" must be an integer, got \"" + v + "\"");
    }
  }
  void requireNumber(const std::string& key) const {
    const auto& v = requireNonEmpty(key);
    char* end = nullptr;
    errno = 0;
    std::strtod(v.c_str(), &end);
    if (errno != 0 || end != v.c_str() + v.size()) {
      throw Refusal("query parameter \"" + key + "\" must be a number, got \"" + v + "\"");
    }
  }
  void allowOnly(std::initializer_list<const char*> keys) const {
    for (const auto& [k, v] : q_) {
      if (std::none_of(keys.begin(), keys.end(), [&](const char* a) { return k == a; })) {
        throw Refusal("unexpected query parameter \"" + k + "\"");
      }
    }
  }
  void requireUniversal() const {
    for (const char* key : kUniversalKeys) require(key);
    requireNonEmpty("app_id");
    if (get("os") != "iOS") throw Refusal("query parameter \"os\" must be \"iOS\"");
    requireDigits("device_ts");
    requireDigits("device_tz_offset", true);
    for (const auto& [current, legacy] : kMirroredKeys) {
      if (has(current) != has(legacy) || get(current) != get(legacy)) {
        throw Refusal(std::string("query parameters \"") + current + "\" and \"" + legacy + "\" disagree");
      }
    }
  }

 private:
  const std::multimap<std::string, std::string>& q_;
};

// What a row's handler works on.
struct Env {
  KOEmulatorStore& store;
  KOEmulatorFaults& faults;
  const std::string& imagesDir;
};
using Call = KOEmulatorCall;
using Reply = KOEmulatorReply;
using J = KOEmulatorJSON;
// A row's handler. The checks its row's kind names have passed by the time it runs.
using Handler = Reply(const Env&, const Call&, const Query&);

// The body as a JSON object, and its members; each refuses the call when it is not what it must be.
rapidjson::Document parseBody(const Call& call);
const rapidjson::Value& member(const rapidjson::Value& object, const char* key, rapidjson::Type type, const char* what);
std::string optionalString(const rapidjson::Value& object, const char* key);
inline Reply ok(std::string body = R"({"status":"success"})") { return {200, std::move(body), {}}; }

// The seeds (KOEmulatorServiceSeeds.cpp): a section as stored, else its default.
std::string section(const KOEmulatorStore& store, const std::string& name);
std::string seedsOf(const KOEmulatorStore& store);
// Replaces the sections the seed names; throws std::invalid_argument when it is unusable: not a
// seed's shape, or (when checked) against the seed schema, with the path and the rule it breaks.
enum class SeedCheck { Schema, ShapeOnly };
void applySeed(KOEmulatorStore& store, const std::string& json, SeedCheck check = SeedCheck::Schema);
// What seeding asks of the areas' sections.
std::map<std::string, int64_t> stampCampaigns(const rapidjson::Value& inapps,
                                              const std::map<std::string, int64_t>& before);
void checkInboxSeed(const rapidjson::Value& inbox);

// Reports and devices (KOEmulatorServiceReports.cpp).
Handler deviceAdd, reportAdd, getConfig, logUpload;
// In-app campaigns (KOEmulatorServiceInApp.cpp).
Handler inappsFetch, campaignFetch, smartTriggers;
// Push categories and the inbox (KOEmulatorServicePush.cpp).
Handler categoriesAdd, inboxMessages;
// Geofences (KOEmulatorServiceGeofences.cpp).
Handler geofenceHit, geofences;
// Images, from the seeds or the images directory (KOEmulatorServiceSeeds.cpp).
Handler image;
// The control API and the dashboard's views (KOEmulatorServiceControl.cpp).
Handler health, seed, reset, addFault, clearFaults, timeline, requestLog, changes;
// What the service knows of each device's consent and wipes (KOEmulatorServicePrivacy.cpp).
Handler privacy;
// The inspections, also reached in-process through KOEmulator::inspectJSON.
Handler requests, devices, batches, events, duplicates, logs, categories, geofenceHits, campaignEvents, seeds, faults;

}  // namespace KOEmulatorCalls
