// The users as the service keeps them: folded from the attribute events of the stored reports on
// each call, so that they always agree with events().

#include <algorithm>
#include <map>
#include <utility>

#include "KOEmulatorJSON.h"
#include "KOEmulatorStore.h"

namespace {

struct Folded {
  KOEmulatorUser user;
  rapidjson::Document attributes{rapidjson::kObjectType};
  size_t lastReport = 0;

  void set(const rapidjson::Value& key, const rapidjson::Value& value) {
    auto& allocator = attributes.GetAllocator();
    const auto found = attributes.FindMember(key);
    if (found != attributes.MemberEnd()) {
      found->value.CopyFrom(value, allocator);
    } else {
      attributes.AddMember(rapidjson::Value(key, allocator), rapidjson::Value(value, allocator), allocator);
    }
  }
  void setAll(const rapidjson::Value& object) {
    if (!object.IsObject()) return;
    for (const auto& member : object.GetObject()) set(member.name, member.value);
  }
};

}  // namespace

template <>
std::vector<KOEmulatorUser> KOEmulatorStore::all() const {
  std::map<std::pair<std::string, std::string>, Folded> users;
  size_t report = 0;
  for (const KOEmulatorEvent& event : all<KOEmulatorEvent>()) {
    ++report;
    if (event.name != "EVENT_ACTION_USER_ATTRIBUTE") continue;
    rapidjson::Document record;
    std::string error;
    if (!KOEmulatorJSON::parse(event.json, record, error) || !record.IsObject()) continue;
    Folded& folded = users[{event.appId, event.uniqueId}];
    folded.user.appId = event.appId;
    folded.user.uniqueId = event.uniqueId;
    folded.lastReport = report;
    // Plain attributes are one object; time stamps and locations come as lists of one-key objects
    // under their kind ("timestamp", "location").
    if (const auto plain = record.FindMember("EVENT_ATTRS"); plain != record.MemberEnd()) folded.setAll(plain->value);
    const auto custom = record.FindMember("EVENT_ATTRS_CUST");
    if (custom == record.MemberEnd() || !custom->value.IsObject()) continue;
    for (const auto& kind : custom->value.GetObject()) {
      if (!kind.value.IsArray()) continue;
      for (const auto& entry : kind.value.GetArray()) folded.setAll(entry);
    }
  }
  std::vector<Folded*> order;
  for (auto& [key, folded] : users) order.push_back(&folded);
  std::sort(order.begin(), order.end(), [](const Folded* a, const Folded* b) { return a->lastReport < b->lastReport; });
  std::vector<KOEmulatorUser> out;
  for (Folded* folded : order) {
    folded->user.attributesJSON = KOEmulatorJSON::serialize(folded->attributes);
    out.push_back(std::move(folded->user));
  }
  return out;
}
