// In-app campaigns: the incremental campaign list, one campaign by id and smart triggers.

#include <chrono>
#include <optional>
#include <vector>

#include "KOEmulatorServiceCalls.h"
#include "KOEmulatorStore.h"

namespace KOEmulatorCalls {

namespace {

// A campaign seed is either a whole answer or a bare campaign, which is wrapped the way the
// service wraps it.
std::string campaignAnswer(const rapidjson::Value& entry) {
  if (entry.HasMember("campaign_info") || entry.HasMember("reason")) return KOEmulatorJSON::serialize(entry);
  return "{\"campaign_info\":[" + KOEmulatorJSON::serialize(entry) + "]}";
}

// The answer seeded under a key of a campaign section, if any.
std::optional<std::string> seededCampaign(const std::string& sectionJSON, const std::string& key) {
  rapidjson::Document seeds;
  std::string error;
  KOEmulatorJSON::parse(sectionJSON, seeds, error);
  if (!seeds.IsObject()) return std::nullopt;
  const auto it = seeds.FindMember(key.c_str());
  if (it == seeds.MemberEnd()) return std::nullopt;
  return campaignAnswer(it->value);
}

int64_t nowMilliseconds() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// A campaign's own "last_updated" (milliseconds since 1970, a number or a string of digits).
std::optional<int64_t> seededStamp(const rapidjson::Value& campaign) {
  if (!campaign.IsObject()) return std::nullopt;
  const auto it = campaign.FindMember("last_updated");
  if (it == campaign.MemberEnd()) return std::nullopt;
  const auto& v = it->value;
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

const rapidjson::Value* campaignList(const rapidjson::Value& inapps) {
  if (!inapps.IsObject()) return nullptr;
  const auto it = inapps.FindMember("campaign_info");
  return it != inapps.MemberEnd() && it->value.IsArray() ? &it->value : nullptr;
}

// The ids the device holds, from "campaign_ids": a list of ids, a list of campaigns carrying a
// "cid", or an object keyed by id.
std::vector<std::string> heldCampaignIds(const rapidjson::Value& body) {
  std::vector<std::string> ids;
  const auto it = body.FindMember("campaign_ids");
  if (it == body.MemberEnd()) return ids;
  const auto& held = it->value;
  auto add = [&](const rapidjson::Value& id) {
    if (!id.IsString()) throw Refusal(std::string("body \"campaign_ids\" holds a ") + J::typeName(id) + ", not an id");
    ids.emplace_back(id.GetString(), id.GetStringLength());
  };
  if (held.IsArray()) {
    for (const auto& entry : held.GetArray()) {
      if (!entry.IsObject()) {
        add(entry);
        continue;
      }
      const auto cid = entry.FindMember("cid");
      if (cid == entry.MemberEnd()) throw Refusal("body \"campaign_ids\" holds a campaign without \"cid\"");
      add(cid->value);
    }
  } else if (held.IsObject()) {
    for (const auto& entry : held.GetObject()) ids.emplace_back(entry.name.GetString(), entry.name.GetStringLength());
  } else {
    throw Refusal(std::string("body \"campaign_ids\" must be an array or an object, got ") + J::typeName(held));
  }
  return ids;
}

std::string stringMember(const rapidjson::Value& object, const char* key) {
  if (!object.IsObject()) return {};
  const auto it = object.FindMember(key);
  return it != object.MemberEnd() && it->value.IsString() ? it->value.GetString() : std::string();
}

}  // namespace

// The service stamps a campaign whenever it changes. A seeded campaign without a stamp of its own
// keeps the one it had when it is seeded again unchanged, and is stamped now when it is new or changed.
std::map<std::string, int64_t> stampCampaigns(const rapidjson::Value& inapps,
                                              const std::map<std::string, int64_t>& before) {
  std::map<std::string, int64_t> stamps;
  const rapidjson::Value* list = campaignList(inapps);
  if (!list) return stamps;
  const int64_t now = nowMilliseconds();
  for (const auto& campaign : list->GetArray()) {
    std::string key = KOEmulatorJSON::serialize(campaign);
    const auto kept = before.find(key);
    stamps[key] = seededStamp(campaign).value_or(kept != before.end() ? kept->second : now);
  }
  return stamps;
}

// Like the service: the campaigns changed after "last_updated" (all of them for "" or 0), and each
// campaign the device holds that is no longer active, with its status, so that the device drops it.
Reply inappsFetch(const Env& env, const Call& call, const Query& q) {
  int64_t since = 0;
  if (!q.require("last_updated").empty()) {
    q.requireDigits("last_updated");
    const std::string& text = q.get("last_updated");
    errno = 0;
    since = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE) throw Refusal("query parameter \"last_updated\" is out of range");
  }
  const std::vector<std::string> held = heldCampaignIds(parseBody(call));

  rapidjson::Document inapps;
  std::string error;
  KOEmulatorJSON::parse(section(env.store, "inapps"), inapps, error);
  const std::map<std::string, int64_t> stamps = env.store.campaignStamps();
  const rapidjson::Value* list = campaignList(inapps);
  std::vector<std::string> answered;  // the campaigns in the answer, as JSON
  std::vector<std::string> answeredIds;
  if (list) {
    for (const auto& campaign : list->GetArray()) {
      std::string text = J::serialize(campaign);
      const auto stamp = stamps.find(text);
      if (seededStamp(campaign).value_or(stamp != stamps.end() ? stamp->second : 0) <= since) continue;
      answeredIds.push_back(stringMember(campaign, "cid"));
      answered.push_back(std::move(text));
    }
  }
  for (const std::string& id : held) {
    if (std::find(answeredIds.begin(), answeredIds.end(), id) != answeredIds.end()) continue;
    const rapidjson::Value* current = nullptr;
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
    for (const std::string& campaign : answered) J::writeRaw(w, campaign);
    w.EndArray();
  };
  bool wroteCampaigns = false;
  if (inapps.IsObject()) {
    for (const auto& m : inapps.GetObject()) {
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

Reply campaignFetch(const Env& env, const Call&, const Query& q) {
  const auto& id = q.requireNonEmpty("campaign_id");
  return ok(seededCampaign(section(env.store, "campaigns"), id).value_or(R"({"reason":"Campaign not found"})"));
}

Reply smartTriggers(const Env& env, const Call& call, const Query& q) {
  const auto& event = q.requireNonEmpty("event");
  auto body = parseBody(call);
  member(body, "EVENT_ATTRS", rapidjson::kObjectType, "an object");
  return ok(seededCampaign(section(env.store, "smart_triggers"), event).value_or(R"({"campaign_info":[]})"));
}

}  // namespace KOEmulatorCalls

std::optional<std::string> KOEmulatorService::seededCampaign(const std::string& id) const {
  using namespace KOEmulatorCalls;
  rapidjson::Document doc;
  std::string error;
  if (id.empty() || !J::parse(seedsOf(store_), doc, error) || !doc.IsObject()) return std::nullopt;
  const auto matches = [&](const rapidjson::Value& c) {
    if (!c.IsObject()) return false;
    const auto cid = c.FindMember("cid");
    return cid != c.MemberEnd() && cid->value.IsString() && id == cid->value.GetString();
  };
  const auto inapps = doc.FindMember("inapps");
  if (inapps != doc.MemberEnd() && inapps->value.IsObject()) {
    const auto list = inapps->value.FindMember("campaign_info");
    if (list != inapps->value.MemberEnd() && list->value.IsArray()) {
      for (const auto& c : list->value.GetArray()) {
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
    for (const auto& trigger : byEvent->value.GetObject()) {
      if (matches(trigger.value)) return J::serialize(trigger.value);
    }
  }
  return std::nullopt;
}
