// Geofences as the service answers them: the seeded fences near the asking device, nearest first;
// reported crossings are kept for inspection.

#include <string>
#include <vector>

#include "EmulatorFixture.h"

namespace {
const std::string kFences = "/v1/geoFences";

std::vector<std::string> idsOf(const rapidjson::Document& answer) {
  std::vector<std::string> out;
  for (const auto& f : answer["fencesInfo"].GetArray()) {
    out.push_back(f.IsObject() && f.HasMember("geoId") ? f["geoId"].GetString() : "<unreadable>");
  }
  return out;
}
}  // namespace

TEST_F(EmulatorTest, FencesAreTheSeededOnesNearTheDeviceNearestFirst) {
  // Along the equator one degree of longitude is about 111 km. Entries the SDK could not read, and
  // other keys, go out as seeded, which only an unchecked seed may hold.
  emulator->seedUnchecked(R"({"geofences": {"search_radius": 150000, "extra": 1, "fencesInfo": [
      {"geoId": "far", "lat": 0, "lng": 3},
      {"geoId": "east", "lat": 0, "lng": 1},
      {"geoId": "here", "lat": 0, "lng": 0.001},
      {"geoId": "bad", "lat": "0", "lng": 0}, 5]}})");
  struct Case {
    std::string lng;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"0", {"here", "east", "bad", "<unreadable>"}},
      {"1.9", {"east", "far", "bad", "<unreadable>"}},
      {"-2", {"bad", "<unreadable>"}},
  };
  for (const auto& c : cases) {
    auto res = get(kFences, universal({{"lat", "0"}, {"lng", c.lng}}));
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200) << res->body;
    const auto answer = json(res->body);
    EXPECT_EQ(idsOf(answer), c.expected) << c.lng;
    EXPECT_FALSE(answer.HasMember("search_radius"));
    EXPECT_EQ(answer["extra"].GetInt(), 1);
  }
  // A device nowhere on earth is refused, as the service does.
  for (const auto& [lat, lng] :
       std::vector<std::pair<std::string, std::string>>{{"nan", "0"}, {"0", "inf"}, {"90.5", "0"}, {"0", "-180.1"}}) {
    EXPECT_EQ(get(kFences, universal({{"lat", lat}, {"lng", lng}}))->status, 400) << lat << "," << lng;
  }
  emulator->seedUnchecked(R"({"geofences": {"fencesInfo": {"geoId": "not a list"}}})");
  EXPECT_EQ(get(kFences, universal({{"lat", "0"}, {"lng", "0"}}))->body, R"({"fencesInfo":{"geoId":"not a list"}})");
}

TEST_F(EmulatorTest, GeofenceHitsAreStoredWithTheirDevice) {
  auto hit = [&](const std::string& transition, const std::string& lat) {
    return get("/v1/geoFenceHit", universal({{"transitionType", transition},
                                             {"lat", lat},
                                             {"lng", "13.400000"},
                                             {"geoId", "g7"},
                                             {"device_unique_id", "P-1"}}))
        ->status;
  };
  EXPECT_EQ(hit("enter", "52.520000"), 200);
  EXPECT_EQ(hit("exit", "52.530000"), 200);
  EXPECT_EQ(hit("crossed", "52.5"), 400);
  EXPECT_EQ(hit("exit", "-91"), 400);
  const auto hits = emulator->geofenceHits();
  ASSERT_EQ(hits.size(), 2u);
  EXPECT_EQ(hits[0].geoId, "g7");
  EXPECT_EQ(hits[0].transitionType, "enter");
  EXPECT_DOUBLE_EQ(hits[0].lat, 52.52);
  EXPECT_EQ(hits[1].transitionType, "exit");
  EXPECT_EQ(hits[1].deviceUniqueId, "P-1");
  EXPECT_EQ(json(emulator->inspectJSON("geofence_hits"))[1]["lat"].GetDouble(), 52.53);
}
