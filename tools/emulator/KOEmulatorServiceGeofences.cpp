// Geofences: the fences near a device and the crossings it reports.

#include <cmath>
#include <vector>

#include "KOEmulatorServiceCalls.h"
#include "KOEmulatorStore.h"

namespace KOEmulatorCalls {

namespace {

// A coordinate of the query: a finite number within the range of its kind, as the service takes it.
double coordinateParameter(const Query& q, const std::string& key, double limit) {
  q.requireNumber(key);
  const double value = std::strtod(q.get(key).c_str(), nullptr);
  if (!std::isfinite(value) || std::fabs(value) > limit) {
    throw Refusal("query parameter \"" + key + "\" is not a " + (limit == 90 ? "latitude" : "longitude") + ", got \"" +
                  q.get(key) + "\"");
  }
  return value;
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

}  // namespace

Reply geofenceHit(const Env& env, const Call&, const Query& q) {
  const auto& transition = q.require("transitionType");
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

// Like the service: the seeded fences whose centre lies within "search_radius" metres of the device
// (50 km unless the seed says otherwise; the key stays on the service), nearest first. Entries
// without a numeric "lat" and "lng", other keys of the section and a "fencesInfo" that is not a
// list go out as seeded, so a test can hand the SDK bad answers.
Reply geofences(const Env& env, const Call&, const Query& q) {
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
  const rapidjson::Value* settingValue = setting != doc.MemberEnd() ? &setting->value : nullptr;
  if (settingValue && settingValue->IsNumber()) radius = settingValue->GetDouble();

  std::vector<std::pair<double, const rapidjson::Value*>> near;
  std::vector<const rapidjson::Value*> unreadable;
  for (const auto& fence : list->value.GetArray()) {
    auto number = [&](const char* key) -> const rapidjson::Value* {
      if (!fence.IsObject()) return nullptr;
      const auto it = fence.FindMember(key);
      return it != fence.MemberEnd() && it->value.IsNumber() ? &it->value : nullptr;
    };
    const rapidjson::Value* fLat = number("lat");
    const rapidjson::Value* fLng = number("lng");
    if (!fLat || !fLng) {
      unreadable.push_back(&fence);
      continue;
    }
    const double d = metresBetween(lat, lng, fLat->GetDouble(), fLng->GetDouble());
    if (d <= radius) near.emplace_back(d, &fence);
  }
  std::stable_sort(near.begin(), near.end(), [](const auto& a, const auto& b) { return a.first < b.first; });

  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  for (const auto& m : doc.GetObject()) {
    if (&m.value == settingValue) continue;
    m.name.Accept(w);
    if (&m.value != &list->value) {
      m.value.Accept(w);
      continue;
    }
    w.StartArray();
    for (const auto& [d, fence] : near) fence->Accept(w);
    for (const auto* fence : unreadable) fence->Accept(w);
    w.EndArray();
  }
  w.EndObject();
  return ok({buffer.GetString(), buffer.GetSize()});
}

}  // namespace KOEmulatorCalls
