#include "KOEmulatorService.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "KOEmulatorJSON.h"
#include "KOEmulatorStore.h"

namespace {

// Thrown while checking a call; becomes a 400 answer carrying the message.
struct Refusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};

constexpr std::string_view kLogPrefix = "/noformat/logs/";

const std::map<std::string, std::string, std::less<>> kDefaultSeeds = {
    {"config", R"({"l_e":0,"tkn":"5b7e0a92-3c41-4d8e-9f26-a1d04c7e8b13","e_b_c":30})"},
    {"inapps", R"({"campaign_info":[],"event_list":[]})"},
    {"campaigns", "{}"},
    {"smart_triggers", "{}"},
    {"inbox", R"({"messagesInfo":[]})"},
    {"geofences", R"({"fencesInfo":[]})"},
    {"geofence_hit", "{}"},
};

// Present on every call that carries the universal parameters; may be empty.
constexpr std::array kUniversalKeys = {
    "os",      "app_ver",   "app_id",      "sdk_ver",          "unique_id",        "model",
    "os_ver",  "device_ts", "device_tz",   "device_tz_offset", "device_unique_id", "os_value",
    "version", "appId",     "lib_version", "device_model",     "device_version",
};

// The legacy duplicates of the universal parameters must agree with them.
constexpr std::array<std::pair<const char *, const char *>, 8> kMirroredKeys = {{
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
  explicit Query(const std::multimap<std::string, std::string> &q) : q_(q) {
    for (auto it = q_.begin(); it != q_.end(); it = q_.upper_bound(it->first)) {
      if (q_.count(it->first) > 1) throw Refusal("query parameter \"" + it->first + "\" given more than once");
    }
  }
  bool has(const std::string &key) const { return q_.count(key) != 0; }
  const std::string &require(const std::string &key) const {
    auto it = q_.find(key);
    if (it == q_.end()) throw Refusal("missing query parameter \"" + key + "\"");
    return it->second;
  }
  const std::string &requireNonEmpty(const std::string &key) const {
    const auto &v = require(key);
    if (v.empty()) throw Refusal("query parameter \"" + key + "\" is empty");
    return v;
  }
  std::string get(const std::string &key) const {
    auto it = q_.find(key);
    return it == q_.end() ? std::string() : it->second;
  }
  void requireDigits(const std::string &key, bool allowSign = false) const {
    const auto &v = requireNonEmpty(key);
    size_t start = (allowSign && (v[0] == '-' || v[0] == '+')) ? 1 : 0;
    if (start == v.size() || !std::all_of(v.begin() + static_cast<std::ptrdiff_t>(start), v.end(),
                                          [](char c) { return c >= '0' && c <= '9'; })) {
      throw Refusal("query parameter \"" + key + "\" must be an integer, got \"" + v + "\"");
    }
  }
  void requireNumber(const std::string &key) const {
    const auto &v = requireNonEmpty(key);
    char *end = nullptr;
    errno = 0;
    std::strtod(v.c_str(), &end);
    if (errno != 0 || end != v.c_str() + v.size()) {
      throw Refusal("query parameter \"" + key + "\" must be a number, got \"" + v + "\"");
    }
  }
  void allowOnly(std::initializer_list<const char *> keys) const {
    for (const auto &[k, v] : q_) {
      if (std::none_of(keys.begin(), keys.end(), [&](const char *a) { return k == a; })) {
        throw Refusal("unexpected query parameter \"" + k + "\"");
      }
    }
  }
  void requireUniversal() const {
    for (const char *key : kUniversalKeys) require(key);
    requireNonEmpty("app_id");
    if (get("os") != "iOS") throw Refusal("query parameter \"os\" must be \"iOS\"");
    requireDigits("device_ts");
    requireDigits("device_tz_offset", true);
    for (const auto &[current, legacy] : kMirroredKeys) {
      if (has(current) != has(legacy) || get(current) != get(legacy)) {
        throw Refusal(std::string("query parameters \"") + current + "\" and \"" + legacy + "\" disagree");
      }
    }
  }

 private:
  const std::multimap<std::string, std::string> &q_;
};

rapidjson::Document parseBody(const KOEmulatorCall &call) {
  rapidjson::Document doc;
  std::string error;
  if (call.body.empty()) throw Refusal("missing JSON body");
  if (!KOEmulatorJSON::parse(call.body, doc, error)) throw Refusal("body: " + error);
  if (!doc.IsObject()) throw Refusal(std::string("body must be a JSON object, got ") + KOEmulatorJSON::typeName(doc));
  return doc;
}

const rapidjson::Value &member(const rapidjson::Value &object, const char *key, rapidjson::Type type,
                               const char *what) {
  auto it = object.FindMember(key);
  if (it == object.MemberEnd()) throw Refusal(std::string("body is missing \"") + key + "\"");
  if (it->value.GetType() != type) {
    throw Refusal(std::string("body \"") + key + "\" must be " + what + ", got " + KOEmulatorJSON::typeName(it->value));
  }
  return it->value;
}

std::string optionalString(const rapidjson::Value &object, const char *key) {
  auto it = object.FindMember(key);
  if (it == object.MemberEnd()) return {};
  if (!it->value.IsString()) {
    throw Refusal(std::string("body \"") + key + "\" must be a string, got " + KOEmulatorJSON::typeName(it->value));
  }
  return {it->value.GetString(), it->value.GetStringLength()};
}

KOEmulatorReply ok(std::string body = R"({"status":"success"})") { return {200, std::move(body), {}}; }

// A campaign seed is either a whole answer or a bare campaign, which is wrapped the way the
// service wraps it.
std::string campaignAnswer(const rapidjson::Value &entry) {
  if (entry.HasMember("campaign_info") || entry.HasMember("reason")) return KOEmulatorJSON::serialize(entry);
  return "{\"campaign_info\":[" + KOEmulatorJSON::serialize(entry) + "]}";
}

// The answer seeded under a key of a campaign section, if any.
std::optional<std::string> seededCampaign(const std::string &sectionJSON, const std::string &key) {
  rapidjson::Document seeds;
  std::string error;
  KOEmulatorJSON::parse(sectionJSON, seeds, error);
  if (!seeds.IsObject()) return std::nullopt;
  const auto it = seeds.FindMember(key.c_str());
  if (it == seeds.MemberEnd()) return std::nullopt;
  return campaignAnswer(it->value);
}

// Every service path with the one method it takes.
const std::map<std::string, std::string, std::less<>> kServiceMethods = {
    {"/v2/device/add", "POST"},
    {"/v2/report/add", "POST"},
    {"/v1/getConfig", "GET"},
    {"/campaigns/inappcampaigns/fetch", "POST"},
    {"/campaigns/inappcampaign/fetch", "GET"},
    {"/v2/autotriggerinapps", "POST"},
    {"/v2/categories/add", "POST"},
    {"/v1/getInboxMessages", "GET"},
    {"/v1/geoFenceHit", "GET"},
    {"/v1/geoFences", "GET"},
};

}  // namespace

bool KOEmulatorService::isServicePath(const std::string &path) {
  return path.starts_with(kLogPrefix) || kServiceMethods.contains(path);
}

std::string KOEmulatorService::queryJSON(const std::multimap<std::string, std::string> &query) {
  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  for (auto it = query.begin(); it != query.end();) {
    auto end = query.upper_bound(it->first);
    KOEmulatorJSON::writeString(w, it->first);
    if (std::next(it) == end) {
      KOEmulatorJSON::writeString(w, it->second);
    } else {
      w.StartArray();
      for (; it != end; ++it) KOEmulatorJSON::writeString(w, it->second);
      w.EndArray();
    }
    it = end;
  }
  w.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

std::string KOEmulatorService::section(const std::string &name) const {
  if (auto stored = store_.seedSection(name)) return *stored;
  return kDefaultSeeds.find(name)->second;
}

KOEmulatorReply KOEmulatorService::handle(const KOEmulatorCall &call) {
  const std::string &path = call.path;
  const bool isLog = path.starts_with(kLogPrefix);
  std::string expected;
  if (isLog) {
    expected = "POST";
  } else if (auto it = kServiceMethods.find(path); it != kServiceMethods.end()) {
    expected = it->second;
  } else {
    std::string message = "no such endpoint: " + path;
    return {404, KOEmulatorJSON::errorBody(message), message};
  }
  if (call.method != expected) {
    std::string message = call.method + " not allowed on " + path + ", use " + expected;
    return {405, KOEmulatorJSON::errorBody(message), message};
  }

  try {
    if (expected == "GET" && (!call.body.empty() || !call.contentType.empty())) {
      throw Refusal("a GET must carry neither a body nor a content type");
    }
    if (expected == "POST" && !call.contentType.starts_with("application/json")) {
      throw Refusal("body must be sent as application/json, got \"" + call.contentType + "\"");
    }
    Query q(call.query);
    const double now = KOEmulatorStore::now();

    if (isLog) {
      std::string token = path.substr(kLogPrefix.size());
      if (token.empty() || token.find('/') != std::string::npos) throw Refusal("bad log token in path");
      q.allowOnly({});
      auto body = parseBody(call);
      KOEmulatorLog log;
      log.token = token;
      log.appid = member(body, "appid", rapidjson::kStringType, "a string").GetString();
      log.uid = member(body, "uid", rapidjson::kStringType, "a string").GetString();
      log.lvl = member(body, "lvl", rapidjson::kStringType, "a string").GetString();
      log.tb = member(body, "tb", rapidjson::kStringType, "a string").GetString();
      log.sdkVer = member(body, "sdk_ver", rapidjson::kStringType, "a string").GetString();
      log.msg = member(body, "msg", rapidjson::kStringType, "a string").GetString();
      log.tmS = member(body, "tm_s", rapidjson::kStringType, "a string").GetString();
      log.received = now;
      store_.storeLog(log);
      return {204, {}, {}};
    }

    if (path == "/v1/getConfig") {
      q.allowOnly({"app_id", "unique_id", "os"});
      q.requireNonEmpty("app_id");
      q.require("unique_id");
      if (q.require("os") != "iOS") throw Refusal("query parameter \"os\" must be \"iOS\"");
      return ok(section("config"));
    }

    q.requireUniversal();

    if (path == "/v2/device/add") {
      auto body = parseBody(call);
      KOEmulatorDevice d;
      d.appId = q.get("app_id");
      d.uniqueId = q.get("unique_id");
      d.deviceUniqueId = q.get("device_unique_id");
      d.pushId = q.get("push_id");
      d.model = q.get("model");
      d.osVer = q.get("os_ver");
      d.appVer = q.get("app_ver");
      d.sdkVer = q.get("sdk_ver");
      d.idfv = optionalString(body, "IDFV");
      d.advertisingId = optionalString(body, "ADVERTISING_IDENTIFIER");
      d.firstSeen = d.lastSeen = now;
      store_.registerDevice(d);
      return ok();
    }
    if (path == "/v2/report/add") {
      q.requireDigits("batch_id");
      auto body = parseBody(call);
      const auto &views = member(body, "viewsInfo", rapidjson::kArrayType, "an array");
      const auto &count = member(body, "viewsCount", rapidjson::kNumberType, "an integer");
      if (!count.IsInt64()) throw Refusal("body \"viewsCount\" must be an integer");
      if (count.GetInt64() != static_cast<int64_t>(views.Size())) {
        throw Refusal("body \"viewsCount\" is " + std::to_string(count.GetInt64()) + " but \"viewsInfo\" holds " +
                      std::to_string(views.Size()) + " events");
      }
      for (rapidjson::SizeType i = 0; i < views.Size(); ++i) {
        const auto &e = views[i];
        if (!e.IsObject()) {
          throw Refusal("event " + std::to_string(i) + " must be an object, got " + KOEmulatorJSON::typeName(e));
        }
      }
      KOEmulatorBatch batch;
      batch.appId = q.get("app_id");
      batch.uniqueId = q.get("unique_id");
      batch.batchId = q.get("batch_id");
      batch.viewsCount = count.GetInt64();
      batch.received = now;
      // A repeated batch is answered with success too: the device must stop resending it.
      // The body as it came: the events are read out of it only when someone inspects them.
      store_.storeBatch(batch, call.body);
      return ok();
    }
    if (path == "/campaigns/inappcampaigns/fetch") {
      q.require("last_updated");
      parseBody(call);
      return ok(section("inapps"));
    }
    if (path == "/campaigns/inappcampaign/fetch") {
      const auto &id = q.requireNonEmpty("campaign_id");
      return ok(seededCampaign(section("campaigns"), id).value_or(R"({"reason":"Campaign not found"})"));
    }
    if (path == "/v2/autotriggerinapps") {
      const auto &event = q.requireNonEmpty("event");
      auto body = parseBody(call);
      member(body, "EVENT_ATTRS", rapidjson::kObjectType, "an object");
      return ok(seededCampaign(section("smart_triggers"), event).value_or(R"({"campaign_info":[]})"));
    }
    if (path == "/v2/categories/add") {
      auto body = parseBody(call);
      const auto &data = member(body, "data", rapidjson::kArrayType, "an array");
      KOEmulatorCategories c;
      c.appId = q.get("app_id");
      c.uniqueId = q.get("unique_id");
      c.dataJSON = KOEmulatorJSON::serialize(data);
      c.received = now;
      store_.storeCategories(c);
      return ok();
    }
    if (path == "/v1/getInboxMessages") {
      q.requireDigits("last_updated");
      return ok(section("inbox"));
    }
    if (path == "/v1/geoFenceHit") {
      const auto &transition = q.require("transitionType");
      if (transition != "enter" && transition != "exit") {
        throw Refusal("query parameter \"transitionType\" must be \"enter\" or \"exit\", got \"" + transition + "\"");
      }
      q.requireNumber("lat");
      q.requireNumber("lng");
      q.requireNonEmpty("geoId");
      return ok(section("geofence_hit"));
    }
    // "/v1/geoFences", the last of the table.
    q.requireNumber("lat");
    q.requireNumber("lng");
    return ok(section("geofences"));
  } catch (const Refusal &refusal) {
    return {400, KOEmulatorJSON::errorBody(refusal.what()), refusal.what()};
  }
}

void KOEmulatorService::seed(const std::string &json) {
  rapidjson::Document doc;
  std::string error;
  if (!KOEmulatorJSON::parse(json, doc, error)) throw std::invalid_argument("seed: " + error);
  if (!doc.IsObject()) throw std::invalid_argument("seed must be a JSON object");

  // Check every section before storing any, so a bad seed changes nothing.
  std::vector<std::pair<std::string, std::string>> sections;
  for (auto &m : doc.GetObject()) {
    std::string name(m.name.GetString(), m.name.GetStringLength());
    auto &value = m.value;
    if (kDefaultSeeds.find(name) == kDefaultSeeds.end()) {
      throw std::invalid_argument("seed: unknown section \"" + name + "\"");
    }
    static const std::map<std::string, const char *, std::less<>> listKeys = {
        {"inapps", "campaign_info"}, {"inbox", "messagesInfo"}, {"geofences", "fencesInfo"}};
    auto listKey = listKeys.find(name);
    std::string text;
    if (value.IsArray() && listKey != listKeys.end()) {
      text = std::string("{\"") + listKey->second + "\":" + KOEmulatorJSON::serialize(value) + "}";
    } else if (value.IsObject()) {
      if (name == "campaigns" || name == "smart_triggers") {
        for (auto &entry : value.GetObject()) {
          if (!entry.value.IsObject()) {
            throw std::invalid_argument("seed: " + name + " \"" + entry.name.GetString() + "\" must be an object");
          }
        }
      }
      text = KOEmulatorJSON::serialize(value);
    } else {
      throw std::invalid_argument("seed: section \"" + name + "\" must be an object" +
                                  (listKey != listKeys.end() ? " or an array" : ""));
    }
    sections.emplace_back(std::move(name), std::move(text));
  }
  for (const auto &[name, text] : sections) store_.setSeedSection(name, text);
}

std::string KOEmulatorService::seedsJSON() const {
  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  for (const auto &[name, fallback] : kDefaultSeeds) {
    KOEmulatorJSON::writeString(w, name);
    KOEmulatorJSON::writeRaw(w, section(name));
  }
  w.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}
