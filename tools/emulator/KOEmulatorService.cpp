#include "KOEmulatorService.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "KOEmulatorFaults.h"
#include "KOEmulatorJSON.h"
#include "KOEmulatorStore.h"
#include "kovantis/emulator/KOEmulator.h"

namespace {

// Thrown while checking a call; becomes a 400 answer carrying the message. The control API
// refuses with the std::invalid_argument its parts throw, answered the same way.
struct Refusal : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

constexpr std::string_view kLogPrefix = "/noformat/logs/";
constexpr std::string_view kControlPrefix = KOEmulator::kControlPath;
constexpr std::string_view kImagePrefix = "/images/";

const std::map<std::string, std::string, std::less<>> kDefaultSeeds = {
    {"config", R"({"l_e":0,"tkn":"5b7e0a92-3c41-4d8e-9f26-a1d04c7e8b13","e_b_c":30})"},
    {"inapps", R"({"campaign_info":[],"event_list":[]})"},
    {"campaigns", "{}"},
    {"smart_triggers", "{}"},
    {"inbox", R"({"messagesInfo":[]})"},
    {"geofences", R"({"fencesInfo":[]})"},
    {"geofence_hit", "{}"},
    {"images", "{}"},
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
  explicit Query(const std::multimap<std::string, std::string> &q) : q_(q) {}
  void refuseRepeated() const {
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

std::string section(const KOEmulatorStore &store, const std::string &name) {
  if (auto stored = store.seedSection(name)) return *stored;
  return kDefaultSeeds.find(name)->second;
}

// Standard base64 with padding, as seeds carry image bytes; nothing when the text is not that.
std::optional<std::string> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  uint32_t bits = 0;
  int pending = 0;
  size_t padding = 0;
  for (char c : text) {
    int value = -1;
    if (c >= 'A' && c <= 'Z') value = c - 'A';
    if (c >= 'a' && c <= 'z') value = c - 'a' + 26;
    if (c >= '0' && c <= '9') value = c - '0' + 52;
    if (c == '+') value = 62;
    if (c == '/') value = 63;
    if (c == '=') {
      ++padding;
      continue;
    }
    if (value < 0 || padding > 0) return std::nullopt;
    bits = (bits << 6) | static_cast<uint32_t>(value);
    pending += 6;
    if (pending >= 8) {
      pending -= 8;
      out.push_back(static_cast<char>((bits >> pending) & 0xFF));
    }
  }
  if (padding > 2) return std::nullopt;
  return out;
}

int64_t nowMilliseconds() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// A campaign's own "last_updated" (milliseconds since 1970, a number or a string of digits).
std::optional<int64_t> seededStamp(const rapidjson::Value &campaign) {
  if (!campaign.IsObject()) return std::nullopt;
  const auto it = campaign.FindMember("last_updated");
  if (it == campaign.MemberEnd()) return std::nullopt;
  const auto &v = it->value;
  if (v.IsInt64()) return v.GetInt64();
  if (v.IsNumber()) return static_cast<int64_t>(v.GetDouble());
  if (v.IsString()) {
    const std::string text(v.GetString(), v.GetStringLength());
    if (text.empty() || text.size() > 18 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      return std::nullopt;
    }
    return std::stoll(text);
  }
  return std::nullopt;
}

const rapidjson::Value *campaignList(const rapidjson::Value &inapps) {
  if (!inapps.IsObject()) return nullptr;
  const auto it = inapps.FindMember("campaign_info");
  return it != inapps.MemberEnd() && it->value.IsArray() ? &it->value : nullptr;
}

// The service stamps a campaign whenever it changes. A seeded campaign without a stamp of its own
// keeps the one it had when it is seeded again unchanged, and is stamped now when it is new or changed.
std::map<std::string, int64_t> stampCampaigns(const rapidjson::Value &inapps,
                                              const std::map<std::string, int64_t> &before) {
  std::map<std::string, int64_t> stamps;
  const rapidjson::Value *list = campaignList(inapps);
  if (!list) return stamps;
  const int64_t now = nowMilliseconds();
  for (const auto &campaign : list->GetArray()) {
    std::string key = KOEmulatorJSON::serialize(campaign);
    const auto kept = before.find(key);
    stamps[key] = seededStamp(campaign).value_or(kept != before.end() ? kept->second : now);
  }
  return stamps;
}

std::string seedsOf(const KOEmulatorStore &store) {
  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  for (const auto &[name, fallback] : kDefaultSeeds) {
    KOEmulatorJSON::writeString(w, name);
    KOEmulatorJSON::writeRaw(w, section(store, name));
  }
  w.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

// The service's addressing key must be a token: the fetch compares it with the device's "push_id".
void checkInboxSeed(const rapidjson::Value &inbox) {
  const rapidjson::Value *list = inbox.IsArray() ? &inbox : nullptr;
  if (inbox.IsObject()) {
    const auto it = inbox.FindMember("messagesInfo");
    if (it != inbox.MemberEnd() && it->value.IsArray()) list = &it->value;
  }
  if (!list) return;
  for (const auto &message : list->GetArray()) {
    if (!message.IsObject()) continue;
    const auto target = message.FindMember("push_id");
    if (target != message.MemberEnd() && !target->value.IsString()) {
      throw std::invalid_argument("seed: an inbox message's \"push_id\" must be a string");
    }
  }
}

void applySeed(KOEmulatorStore &store, const std::string &json) {
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
    if (name == "inbox") checkInboxSeed(value);
    if (value.IsArray() && listKey != listKeys.end()) {
      text = std::string("{\"") + listKey->second + "\":" + KOEmulatorJSON::serialize(value) + "}";
    } else if (value.IsObject()) {
      if (name == "images") {
        for (auto &entry : value.GetObject()) {
          const std::string path = entry.name.GetString();
          if (!path.starts_with(kImagePrefix) || path.size() == kImagePrefix.size() || path.ends_with('/')) {
            throw std::invalid_argument("seed: image path \"" + path + "\" must name a file under " +
                                        std::string(kImagePrefix));
          }
          if (!entry.value.IsString() || !decodeBase64({entry.value.GetString(), entry.value.GetStringLength()})) {
            throw std::invalid_argument("seed: image \"" + path + "\" must be a base64 string");
          }
        }
      }
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
  for (const auto &[name, text] : sections) {
    if (name == "inapps") {
      rapidjson::Document inapps;
      KOEmulatorJSON::parse(text, inapps, error);
      store.setCampaignStamps(stampCampaigns(inapps, store.campaignStamps()));
    }
    store.setSeedSection(name, text);
  }
}

// What a row's handler works on.
struct Env {
  KOEmulatorStore &store;
  KOEmulatorFaults &faults;
  const std::string &imagesDir;
};
using Call = KOEmulatorCall;
using Reply = KOEmulatorReply;
using J = KOEmulatorJSON;

// The service's calls. The checks their row's kind names have passed by the time they run.

Reply deviceAdd(const Env &env, const Call &call, const Query &q) {
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
  d.firstSeen = d.lastSeen = KOEmulatorStore::now();
  env.store.registerDevice(d);
  return ok();
}

Reply reportAdd(const Env &env, const Call &call, const Query &q) {
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
    if (!e.IsObject()) throw Refusal("event " + std::to_string(i) + " must be an object, got " + J::typeName(e));
  }
  KOEmulatorBatch batch;
  batch.appId = q.get("app_id");
  batch.uniqueId = q.get("unique_id");
  batch.batchId = q.get("batch_id");
  batch.viewsCount = count.GetInt64();
  batch.received = KOEmulatorStore::now();
  // A repeated batch is answered with success too: the device must stop resending it.
  // The body as it came: the events are read out of it only when someone inspects them.
  env.store.storeBatch(batch, call.body);
  return ok();
}

Reply getConfig(const Env &env, const Call &, const Query &q) {
  q.allowOnly({"app_id", "unique_id", "os"});
  q.requireNonEmpty("app_id");
  q.require("unique_id");
  if (q.require("os") != "iOS") throw Refusal("query parameter \"os\" must be \"iOS\"");
  return ok(section(env.store, "config"));
}

// The ids the device holds, from "campaign_ids": a list of ids, a list of campaigns carrying a
// "cid", or an object keyed by id.
std::vector<std::string> heldCampaignIds(const rapidjson::Value &body) {
  std::vector<std::string> ids;
  const auto it = body.FindMember("campaign_ids");
  if (it == body.MemberEnd()) return ids;
  const auto &held = it->value;
  auto add = [&](const rapidjson::Value &id) {
    if (!id.IsString()) throw Refusal(std::string("body \"campaign_ids\" holds a ") + J::typeName(id) + ", not an id");
    ids.emplace_back(id.GetString(), id.GetStringLength());
  };
  if (held.IsArray()) {
    for (const auto &entry : held.GetArray()) {
      if (!entry.IsObject()) {
        add(entry);
        continue;
      }
      const auto cid = entry.FindMember("cid");
      if (cid == entry.MemberEnd()) throw Refusal("body \"campaign_ids\" holds a campaign without \"cid\"");
      add(cid->value);
    }
  } else if (held.IsObject()) {
    for (const auto &entry : held.GetObject()) ids.emplace_back(entry.name.GetString(), entry.name.GetStringLength());
  } else {
    throw Refusal(std::string("body \"campaign_ids\" must be an array or an object, got ") + J::typeName(held));
  }
  return ids;
}

std::string stringMember(const rapidjson::Value &object, const char *key) {
  if (!object.IsObject()) return {};
  const auto it = object.FindMember(key);
  return it != object.MemberEnd() && it->value.IsString() ? it->value.GetString() : std::string();
}

// Like the service: the campaigns changed after "last_updated" (all of them for "" or 0), and each
// campaign the device holds that is no longer active, with its status, so that the device drops it.
Reply inappsFetch(const Env &env, const Call &call, const Query &q) {
  int64_t since = 0;
  if (!q.require("last_updated").empty()) {
    q.requireDigits("last_updated");
    const std::string &text = q.get("last_updated");
    errno = 0;
    since = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE) throw Refusal("query parameter \"last_updated\" is out of range");
  }
  const std::vector<std::string> held = heldCampaignIds(parseBody(call));

  rapidjson::Document inapps;
  std::string error;
  KOEmulatorJSON::parse(section(env.store, "inapps"), inapps, error);
  const std::map<std::string, int64_t> stamps = env.store.campaignStamps();
  const rapidjson::Value *list = campaignList(inapps);
  std::vector<std::string> answered;  // the campaigns in the answer, as JSON
  std::vector<std::string> answeredIds;
  if (list) {
    for (const auto &campaign : list->GetArray()) {
      std::string text = J::serialize(campaign);
      const auto stamp = stamps.find(text);
      if (seededStamp(campaign).value_or(stamp != stamps.end() ? stamp->second : 0) <= since) continue;
      answeredIds.push_back(stringMember(campaign, "cid"));
      answered.push_back(std::move(text));
    }
  }
  for (const std::string &id : held) {
    if (std::find(answeredIds.begin(), answeredIds.end(), id) != answeredIds.end()) continue;
    const rapidjson::Value *current = nullptr;
    for (rapidjson::SizeType i = 0; list && i < list->Size() && !current; ++i) {
      if (stringMember((*list)[i], "cid") == id) current = &(*list)[i];
    }
    if (current && stringMember(*current, "status") == "active") continue;
    rapidjson::StringBuffer buffer;
    KOJSONWriter w(buffer);
    if (current) {
      current->Accept(w);
    } else {
      w.StartObject();
      J::writeString(w, "cid");
      J::writeString(w, id);
      J::writeString(w, "status");
      J::writeString(w, "inactive");
      w.EndObject();
    }
    answered.emplace_back(buffer.GetString(), buffer.GetSize());
    answeredIds.push_back(id);
  }

  // Every other key of the seeded answer (event list, minimum delay) goes out as seeded.
  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  auto writeCampaigns = [&] {
    J::writeString(w, "campaign_info");
    w.StartArray();
    for (const std::string &campaign : answered) J::writeRaw(w, campaign);
    w.EndArray();
  };
  bool wroteCampaigns = false;
  if (inapps.IsObject()) {
    for (const auto &m : inapps.GetObject()) {
      if (std::string_view(m.name.GetString(), m.name.GetStringLength()) == "campaign_info") {
        writeCampaigns();
        wroteCampaigns = true;
      } else {
        m.name.Accept(w);
        m.value.Accept(w);
      }
    }
  }
  if (!wroteCampaigns && !answered.empty()) writeCampaigns();
  w.EndObject();
  return ok({buffer.GetString(), buffer.GetSize()});
}

Reply campaignFetch(const Env &env, const Call &, const Query &q) {
  const auto &id = q.requireNonEmpty("campaign_id");
  return ok(seededCampaign(section(env.store, "campaigns"), id).value_or(R"({"reason":"Campaign not found"})"));
}

Reply smartTriggers(const Env &env, const Call &call, const Query &q) {
  const auto &event = q.requireNonEmpty("event");
  auto body = parseBody(call);
  member(body, "EVENT_ATTRS", rapidjson::kObjectType, "an object");
  return ok(seededCampaign(section(env.store, "smart_triggers"), event).value_or(R"({"campaign_info":[]})"));
}

Reply categoriesAdd(const Env &env, const Call &call, const Query &q) {
  auto body = parseBody(call);
  const auto &data = member(body, "data", rapidjson::kArrayType, "an array");
  KOEmulatorCategories c;
  c.appId = q.get("app_id");
  c.uniqueId = q.get("unique_id");
  c.deviceUniqueId = q.get("device_unique_id");
  c.pushId = q.get("push_id");
  c.dataJSON = J::serialize(data);
  c.received = KOEmulatorStore::now();
  env.store.add(c);
  return ok();
}

// A message's creation time in milliseconds: its "c_cr_t", seconds since 1970 as a number or a
// numeric string (the way the device keeps opened pushes). Nothing when there is none to read.
std::optional<double> createdMilliseconds(const rapidjson::Value &message) {
  const auto it = message.FindMember("c_cr_t");
  if (it == message.MemberEnd()) return std::nullopt;
  if (it->value.IsNumber()) return it->value.GetDouble() * 1000.0;
  if (!it->value.IsString() || it->value.GetStringLength() == 0) return std::nullopt;
  const std::string text(it->value.GetString(), it->value.GetStringLength());
  char *end = nullptr;
  errno = 0;
  const double seconds = std::strtod(text.c_str(), &end);
  if (errno != 0 || end != text.c_str() + text.size()) return std::nullopt;
  return seconds * 1000.0;
}

// Like the service: the messages created after "last_updated" (milliseconds since 1970, "0" for
// all) for this device. A message with "push_id" goes only to the device with that push token and
// the key itself stays on the service; one without goes to every device. A message without a
// readable creation time is answered every time. Everything else goes out as seeded.
Reply inboxMessages(const Env &env, const Call &, const Query &q) {
  q.requireDigits("last_updated");
  errno = 0;
  const double since = std::strtod(q.get("last_updated").c_str(), nullptr);
  if (errno == ERANGE) throw Refusal("query parameter \"last_updated\" is out of range");
  const std::string token = q.get("push_id");

  const std::string seeded = section(env.store, "inbox");
  rapidjson::Document inbox;
  std::string error;
  if (!KOEmulatorJSON::parse(seeded, inbox, error) || !inbox.IsObject()) return ok(seeded);
  const auto list = inbox.FindMember("messagesInfo");
  if (list == inbox.MemberEnd() || !list->value.IsArray()) return ok(seeded);  // served as seeded, bad or not

  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  for (const auto &m : inbox.GetObject()) {
    m.name.Accept(w);
    if (&m.value != &list->value) {
      m.value.Accept(w);
      continue;
    }
    w.StartArray();
    for (const auto &message : m.value.GetArray()) {
      if (!message.IsObject()) {
        message.Accept(w);  // a test may feed the device records it must survive
        continue;
      }
      const auto target = message.FindMember("push_id");
      const bool addressed = target != message.MemberEnd();
      if (addressed && std::string_view(target->value.GetString(), target->value.GetStringLength()) != token) continue;
      const auto created = createdMilliseconds(message);
      if (created && *created <= since) continue;
      w.StartObject();
      for (const auto &field : message.GetObject()) {
        if (addressed && &field == &*target) continue;
        field.name.Accept(w);
        field.value.Accept(w);
      }
      w.EndObject();
    }
    w.EndArray();
  }
  w.EndObject();
  return ok({buffer.GetString(), buffer.GetSize()});
}

// A coordinate of the query: a finite number within the range of its kind, as the service takes it.
double coordinateParameter(const Query &q, const std::string &key, double limit) {
  q.requireNumber(key);
  const double value = std::strtod(q.get(key).c_str(), nullptr);
  if (!std::isfinite(value) || std::fabs(value) > limit) {
    throw Refusal("query parameter \"" + key + "\" is not a " + (limit == 90 ? "latitude" : "longitude") + ", got \"" +
                  q.get(key) + "\"");
  }
  return value;
}

Reply geofenceHit(const Env &env, const Call &, const Query &q) {
  const auto &transition = q.require("transitionType");
  if (transition != "enter" && transition != "exit") {
    throw Refusal("query parameter \"transitionType\" must be \"enter\" or \"exit\", got \"" + transition + "\"");
  }
  KOEmulatorGeofenceHit hit;
  hit.lat = coordinateParameter(q, "lat", 90);
  hit.lng = coordinateParameter(q, "lng", 180);
  hit.geoId = q.requireNonEmpty("geoId");
  hit.transitionType = transition;
  hit.appId = q.get("app_id");
  hit.uniqueId = q.get("unique_id");
  hit.deviceUniqueId = q.get("device_unique_id");
  hit.received = KOEmulatorStore::now();
  env.store.add(hit);
  return ok(section(env.store, "geofence_hit"));
}

// Great-circle distance in metres.
double metresBetween(double lat1, double lng1, double lat2, double lng2) {
  constexpr double kRadians = 3.14159265358979323846 / 180.0;
  const double dLat = (lat2 - lat1) * kRadians;
  const double dLng = (lng2 - lng1) * kRadians;
  const double h = std::sin(dLat / 2) * std::sin(dLat / 2) +
                   std::cos(lat1 * kRadians) * std::cos(lat2 * kRadians) * std::sin(dLng / 2) * std::sin(dLng / 2);
  return 2 * 6371000.0 * std::asin(std::sqrt(std::min(1.0, h)));
}

// Like the service: the seeded fences whose centre lies within "search_radius" metres of the device
// (50 km unless the seed says otherwise; the key stays on the service), nearest first. Entries
// without a numeric "lat" and "lng", other keys of the section and a "fencesInfo" that is not a
// list go out as seeded, so a test can hand the SDK bad answers.
Reply geofences(const Env &env, const Call &, const Query &q) {
  const double lat = coordinateParameter(q, "lat", 90);
  const double lng = coordinateParameter(q, "lng", 180);
  const std::string seeded = section(env.store, "geofences");
  rapidjson::Document doc;
  std::string error;
  if (!KOEmulatorJSON::parse(seeded, doc, error) || !doc.IsObject()) return ok(seeded);
  const auto list = doc.FindMember("fencesInfo");
  if (list == doc.MemberEnd() || !list->value.IsArray()) return ok(seeded);
  double radius = 50000;
  const auto setting = doc.FindMember("search_radius");
  const rapidjson::Value *settingValue = setting != doc.MemberEnd() ? &setting->value : nullptr;
  if (settingValue && settingValue->IsNumber()) radius = settingValue->GetDouble();

  std::vector<std::pair<double, const rapidjson::Value *>> near;
  std::vector<const rapidjson::Value *> unreadable;
  for (const auto &fence : list->value.GetArray()) {
    auto number = [&](const char *key) -> const rapidjson::Value * {
      if (!fence.IsObject()) return nullptr;
      const auto it = fence.FindMember(key);
      return it != fence.MemberEnd() && it->value.IsNumber() ? &it->value : nullptr;
    };
    const rapidjson::Value *fLat = number("lat");
    const rapidjson::Value *fLng = number("lng");
    if (!fLat || !fLng) {
      unreadable.push_back(&fence);
      continue;
    }
    const double d = metresBetween(lat, lng, fLat->GetDouble(), fLng->GetDouble());
    if (d <= radius) near.emplace_back(d, &fence);
  }
  std::stable_sort(near.begin(), near.end(), [](const auto &a, const auto &b) { return a.first < b.first; });

  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  for (const auto &m : doc.GetObject()) {
    if (&m.value == settingValue) continue;
    m.name.Accept(w);
    if (&m.value != &list->value) {
      m.value.Accept(w);
      continue;
    }
    w.StartArray();
    for (const auto &[d, fence] : near) fence->Accept(w);
    for (const auto *fence : unreadable) fence->Accept(w);
    w.EndArray();
  }
  w.EndObject();
  return ok({buffer.GetString(), buffer.GetSize()});
}

Reply logUpload(const Env &env, const Call &call, const Query &q) {
  std::string token = call.path.substr(kLogPrefix.size());
  if (token.empty() || token.find('/') != std::string::npos) throw Refusal("bad log token in path");
  q.allowOnly({});
  auto body = parseBody(call);
  auto text = [&](const char *key) { return member(body, key, rapidjson::kStringType, "a string").GetString(); };
  KOEmulatorLog log;
  log.token = token;
  log.appid = text("appid");
  log.uid = text("uid");
  log.lvl = text("lvl");
  log.tb = text("tb");
  log.sdkVer = text("sdk_ver");
  log.msg = text("msg");
  log.tmS = text("tm_s");
  log.received = KOEmulatorStore::now();
  env.store.add(log);
  return {204, {}, {}};
}

std::string imageType(const std::string &path) {
  const std::string extension = std::filesystem::path(path).extension().string();
  if (extension == ".png") return "image/png";
  if (extension == ".gif") return "image/gif";
  if (extension == ".jpg" || extension == ".jpeg") return "image/jpeg";
  return "application/octet-stream";
}

// A file under the images directory; nothing for a path that would leave it.
std::optional<std::string> imageFile(const std::string &dir, const std::string &path) {
  if (dir.empty()) return std::nullopt;
  const std::filesystem::path relative(path.substr(kImagePrefix.size()));
  for (const auto &part : relative) {
    if (part == ".." || part == "." || part.empty()) return std::nullopt;
  }
  const std::filesystem::path file = std::filesystem::path(dir) / relative;
  std::error_code ec;
  if (!std::filesystem::is_regular_file(file, ec)) return std::nullopt;
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  if (in.peek() == std::ifstream::traits_type::eof()) return std::string();
  std::ostringstream bytes;
  if (!(bytes << in.rdbuf())) return std::nullopt;
  return std::move(bytes).str();
}

// Images are plain files at plain URLs, as a CDN serves them: any query is ignored.
Reply image(const Env &env, const Call &call, const Query &) {
  std::optional<std::string> bytes;
  rapidjson::Document seeded;
  std::string error;
  if (J::parse(section(env.store, "images"), seeded, error) && seeded.IsObject()) {
    const auto it = seeded.FindMember(call.path.c_str());
    if (it != seeded.MemberEnd() && it->value.IsString()) {
      bytes = decodeBase64({it->value.GetString(), it->value.GetStringLength()});
    }
  }
  if (!bytes) bytes = imageFile(env.imagesDir, call.path);
  if (!bytes) {
    const std::string message = "no such image: " + call.path;
    return {404, J::errorBody(message), message};
  }
  return {200, std::move(*bytes), {}, imageType(call.path)};
}

// The control API.

Reply done() { return {200, R"({"ok":true})", {}}; }

Reply health(const Env &, const Call &call, const Query &) {
  return {200, "{\"ok\":true,\"port\":" + std::to_string(call.port) + "}", {}};
}

Reply seed(const Env &env, const Call &call, const Query &) {
  applySeed(env.store, call.body);
  return done();
}

Reply reset(const Env &env, const Call &call, const Query &) {
  bool seeds = false;
  if (!call.body.empty()) {
    rapidjson::Document doc;
    std::string error;
    if (!J::parse(call.body, doc, error)) throw Refusal(error);
    if (!doc.IsObject()) throw Refusal("reset body must be a JSON object");
    auto it = doc.FindMember("seeds");
    if (it != doc.MemberEnd()) {
      if (!it->value.IsBool()) throw Refusal("reset \"seeds\" must be a boolean");
      seeds = it->value.GetBool();
    }
  }
  env.store.reset(seeds);
  return done();
}

Reply addFault(const Env &env, const Call &call, const Query &) {
  env.faults.add(KOEmulatorFaults::fromJSON(call.body));
  return done();
}

Reply clearFaults(const Env &env, const Call &, const Query &q) {
  env.faults.clear(q.get("path"));
  return done();
}

// The inspections, also reached in-process through KOEmulator::inspectJSON.
Reply requests(const Env &env, const Call &, const Query &q) {
  return ok(J::toJSON(env.store.requests(q.get("path"))));
}
Reply devices(const Env &env, const Call &, const Query &) { return ok(J::toJSON(env.store.all<KOEmulatorDevice>())); }
Reply batches(const Env &env, const Call &, const Query &) { return ok(J::toJSON(env.store.all<KOEmulatorBatch>())); }
Reply events(const Env &env, const Call &, const Query &) { return ok(J::toJSON(env.store.all<KOEmulatorEvent>())); }
Reply duplicates(const Env &env, const Call &, const Query &) {
  return ok(J::toJSON(env.store.all<KOEmulatorDuplicate>()));
}
Reply logs(const Env &env, const Call &, const Query &) { return ok(J::toJSON(env.store.all<KOEmulatorLog>())); }
Reply categories(const Env &env, const Call &, const Query &) {
  return ok(J::toJSON(env.store.all<KOEmulatorCategories>()));
}
Reply geofenceHits(const Env &env, const Call &, const Query &) {
  return ok(J::toJSON(env.store.all<KOEmulatorGeofenceHit>()));
}
Reply campaignEvents(const Env &env, const Call &, const Query &) {
  return ok(J::toJSON(env.store.all<KOEmulatorCampaignEvents>()));
}
Reply seeds(const Env &env, const Call &, const Query &) { return ok(seedsOf(env.store)); }

// A query number the dashboard sent, or `otherwise` when absent; refused when not an integer.
int64_t number(const Query &q, const std::string &key, int64_t otherwise) {
  if (!q.has(key)) return otherwise;
  q.requireDigits(key, true);
  try {
    return std::stoll(q.get(key));
  } catch (const std::out_of_range &) {
    throw Refusal("query parameter \"" + key + "\" is out of range");
  }
}

// The dashboard's views: paged, so that a store of a hundred thousand events answers at once.
Reply timeline(const Env &env, const Call &, const Query &q) {
  KOEmulatorStore::TimelineQuery query;
  query.device = q.get("device");
  query.name = q.get("name");
  query.text = q.get("q");
  query.beforeRow = std::max<int64_t>(0, number(q, "before_row", 0));
  query.beforePosition = number(q, "before_position", -1);
  query.limit = static_cast<size_t>(std::clamp<int64_t>(number(q, "limit", 50), 1, 500));
  return ok(env.store.timelineJSON(query));
}
Reply requestLog(const Env &env, const Call &, const Query &q) {
  return ok(env.store.requestLogJSON(static_cast<size_t>(std::clamp<int64_t>(number(q, "limit", 200), 1, 1000))));
}
Reply changes(const Env &env, const Call &, const Query &) {
  return ok("{\"stamp\":" + std::to_string(env.store.changeStamp()) + "}");
}
Reply faults(const Env &env, const Call &, const Query &) { return ok(J::toJSON(env.faults.list())); }

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
  Reply (*handle)(const Env &, const Call &, const Query &);
};

// Every call the emulator answers. Whatever no row takes gets its answer from noRoute().
constexpr Route kRoutes[] = {
    {"POST", "/v2/device/add", Kind::Universal, deviceAdd},
    {"POST", "/v2/report/add", Kind::Universal, reportAdd},
    {"GET", "/v1/getConfig", Kind::Service, getConfig},
    {"POST", "/campaigns/inappcampaigns/fetch", Kind::Universal, inappsFetch},
    {"GET", "/campaigns/inappcampaign/fetch", Kind::Universal, campaignFetch},
    {"POST", "/v2/autotriggerinapps", Kind::Universal, smartTriggers},
    {"POST", "/v2/categories/add", Kind::Universal, categoriesAdd},
    {"GET", "/v1/getInboxMessages", Kind::Universal, inboxMessages},
    {"GET", "/v1/geoFenceHit", Kind::Universal, geofenceHit},
    {"GET", "/v1/geoFences", Kind::Universal, geofences},
    {"POST", kLogPrefix, Kind::Service, logUpload},
    {"GET", kImagePrefix, Kind::Image, image},
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
    {"GET", "/__emulator/seed", Kind::Inspection, seeds},
    {"GET", "/__emulator/fault", Kind::Inspection, faults},
    {"GET", "/__emulator/timeline", Kind::Control, timeline},
    {"GET", "/__emulator/request_log", Kind::Control, requestLog},
    {"GET", "/__emulator/changes", Kind::Control, changes},
};

bool isService(const Route &route) { return route.kind == Kind::Service || route.kind == Kind::Universal; }

bool takes(const Route &route, std::string_view path) {
  return route.path.ends_with('/') ? path.starts_with(route.path) : path == route.path;
}

const Route *find(std::string_view method, std::string_view path) {
  for (const Route &route : kRoutes) {
    if (route.method == method && takes(route, path)) return &route;
  }
  return nullptr;
}

// The one answer for a call no row takes.
Reply noRoute(const Call &call) {
  if (call.path.starts_with(kControlPrefix)) {
    std::string message = "no such control endpoint: " + (call.method == "GET" ? "" : call.method + " ") + call.path;
    return {404, J::errorBody(message), message};
  }
  std::string allowed;
  for (const Route &route : kRoutes) {
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
void checkServiceCall(const Route &route, const Call &call, const Query &q) {
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
  for (const Route &route : kRoutes) {
    if (isService(route)) out.push_back({std::string(route.method), std::string(route.path)});
  }
  return out;
}

bool KOEmulatorService::isServicePath(const std::string &path) {
  return std::any_of(std::begin(kRoutes), std::end(kRoutes),
                     [&](const Route &route) { return isService(route) && takes(route, path); });
}

bool KOEmulatorService::isFaultablePath(const std::string &path) {
  return std::any_of(std::begin(kRoutes), std::end(kRoutes), [&](const Route &route) {
    return (isService(route) || route.kind == Kind::Image) && takes(route, path);
  });
}

bool KOEmulatorService::isControlPath(const std::string &path) { return path.starts_with(kControlPrefix); }

std::string KOEmulatorService::queryJSON(const std::multimap<std::string, std::string> &query) {
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

KOEmulatorReply KOEmulatorService::handle(const KOEmulatorCall &call) {
  const Route *route = find(call.method, call.path);
  if (!route) return noRoute(call);
  try {
    Query q(call.query);
    if (isService(*route)) checkServiceCall(*route, call, q);
    return route->handle(Env{store_, faults_, imagesDir_}, call, q);
  } catch (const std::invalid_argument &refusal) {
    return {400, J::errorBody(refusal.what()), refusal.what()};
  }
}

std::optional<std::string> KOEmulatorService::inspect(const std::string &what, const std::string &pathFilter) const {
  KOEmulatorCall call;
  call.method = "GET";
  call.path = std::string(kControlPrefix) + what;
  call.query.emplace("path", pathFilter);
  const Route *route = find(call.method, call.path);
  if (!route || route->kind != Kind::Inspection) return std::nullopt;
  return route->handle(Env{store_, faults_, imagesDir_}, call, Query(call.query)).body;
}

void KOEmulatorService::seed(const std::string &json) { applySeed(store_, json); }

std::string KOEmulatorService::seedsJSON() const { return seedsOf(store_); }

std::optional<std::string> KOEmulatorService::seededCampaign(const std::string &id) const {
  rapidjson::Document doc;
  std::string error;
  if (id.empty() || !J::parse(seedsOf(store_), doc, error) || !doc.IsObject()) return std::nullopt;
  const auto matches = [&](const rapidjson::Value &c) {
    if (!c.IsObject()) return false;
    const auto cid = c.FindMember("cid");
    return cid != c.MemberEnd() && cid->value.IsString() && id == cid->value.GetString();
  };
  const auto inapps = doc.FindMember("inapps");
  if (inapps != doc.MemberEnd() && inapps->value.IsObject()) {
    const auto list = inapps->value.FindMember("campaign_info");
    if (list != inapps->value.MemberEnd() && list->value.IsArray()) {
      for (const auto &c : list->value.GetArray()) {
        if (matches(c)) return J::serialize(c);
      }
    }
  }
  const auto byId = doc.FindMember("campaigns");
  if (byId != doc.MemberEnd() && byId->value.IsObject()) {
    const auto c = byId->value.FindMember(id.c_str());
    if (c != byId->value.MemberEnd() && c->value.IsObject()) return J::serialize(c->value);
  }
  // Smart trigger campaigns are seeded under the event that starts them, not under their id.
  const auto byEvent = doc.FindMember("smart_triggers");
  if (byEvent != doc.MemberEnd() && byEvent->value.IsObject()) {
    for (const auto &trigger : byEvent->value.GetObject()) {
      if (matches(trigger.value)) return J::serialize(trigger.value);
    }
  }
  return std::nullopt;
}
