// Campaigns as the service answers them (by update stamp, inactive ones reported back) and the
// image files campaigns point at. Query strings, unknown and empty images and faults on images are
// exercised through KODownloadManagerTest.

#include <chrono>
#include <fstream>

#include "EmulatorFixture.h"

namespace {
const std::string kFetch = "/campaigns/inappcampaigns/fetch";
// The signature and header of a 1x1 PNG: NUL bytes included, so that serving is checked binary-safe.
const std::string kPNG("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\0\x01\0\0\0\x01\x08\x02\0\0\0\x90wS\xde", 33);
const std::string kPNGBase64 = "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAIAAACQd1Pe";

int64_t nowMilliseconds() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// "cid:status" of each campaign answered, in order.
std::vector<std::string> campaignsOf(const rapidjson::Document& answer) {
  std::vector<std::string> out;
  for (const auto& c : answer["campaign_info"].GetArray()) {
    out.push_back(std::string(c["cid"].GetString()) + ":" + c["status"].GetString());
  }
  return out;
}
}  // namespace

TEST_F(EmulatorTest, CampaignListAnswersWhatChangedSinceTheStampAndWhatIsNoLongerActive) {
  emulator->seed(R"({"inapps": {"campaign_info": [
      {"cid": "old", "status": "active", "last_updated": 1000},
      {"cid": "new", "status": "active", "last_updated": "5000"},
      {"cid": "paused", "status": "inactive", "last_updated": 500}],
    "event_list": ["BUY"], "minimum_delay_bw_inapps": 5}})");
  struct Case {
    std::string since, body;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"", "{}", {"old:active", "new:active", "paused:inactive"}},
      {"0", R"({"c-9": {"s": 1}})", {"old:active", "new:active", "paused:inactive"}},
      {"1000", "{}", {"new:active"}},
      {"5000", "{}", {}},
      // Held campaigns: one still active and unchanged, one paused on the service, one deleted there.
      {"5000", R"({"campaign_ids": ["old", "paused", "gone"]})", {"paused:inactive", "gone:inactive"}},
      {"1000", R"({"campaign_ids": [{"cid": "new"}, {"cid": "gone"}]})", {"new:active", "gone:inactive"}},
      {"5000", R"({"campaign_ids": {"gone": {"s": 1}, "old": {}}})", {"gone:inactive"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("since " + c.since + " with " + c.body);
    auto res = post(kFetch, universal({{"last_updated", c.since}}), c.body);
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200) << res->body;
    auto answer = json(res->body);
    EXPECT_EQ(campaignsOf(answer), c.expected);
    EXPECT_EQ(answer["minimum_delay_bw_inapps"].GetInt(), 5) << "the rest of the answer goes out as seeded";
    EXPECT_EQ(answer["event_list"].Size(), 1u);
  }
}

TEST_F(EmulatorTest, SeededCampaignsWithoutAStampAreStampedWhenTheyChange) {
  const int64_t before = nowMilliseconds();
  emulator->seed(R"({"inapps": [{"cid": "a", "status": "active"}, {"cid": "b", "status": "active"}]})");
  const int64_t seeded = nowMilliseconds();
  while (nowMilliseconds() <= seeded) {
  }  // the clock moves on by a millisecond, so a change made now is stamped after `seeded`
  auto fetch = [&](int64_t since) {
    return campaignsOf(json(post(kFetch, universal({{"last_updated", std::to_string(since)}}), "{}")->body));
  };
  EXPECT_EQ(fetch(before - 1), (std::vector<std::string>{"a:active", "b:active"}));
  EXPECT_TRUE(fetch(seeded).empty());

  emulator->seed(R"({"inapps": [{"cid": "a", "status": "active"}, {"cid": "b", "status": "inactive"}]})");
  EXPECT_EQ(fetch(seeded), (std::vector<std::string>{"b:inactive"})) << "the unchanged campaign keeps its stamp";
}

TEST_F(EmulatorTest, ImagesAreServedFromTheSeedsAndTheImagesDirectory) {
  auto dir = makeTemporaryDirectory();
  std::filesystem::create_directories(dir / "images" / "sub");
  std::ofstream(dir / "images" / "sub" / "file.gif", std::ios::binary) << "GIF89a-from-disk";
  std::ofstream(dir / "images" / "both.png", std::ios::binary) << "from disk";
  std::ofstream(dir / "secret", std::ios::binary) << "outside";
  auto options = emulatorOptions(dir / "data");
  options.imagesDir = (dir / "images").string();
  emulator = std::make_unique<KOEmulator>(options);
  port = emulator->start(0);
  emulator->seed(R"({"images": {"/images/a.png": ")" + kPNGBase64 + R"(", "/images/both.png": "c2VlZA=="}})");

  struct Case {
    std::string method, target;
    int status;
    std::string body, type;
  };
  const std::vector<Case> cases = {
      {"GET", "/images/a.png", 200, kPNG, "image/png"},
      {"GET", "/images/sub/file.gif", 200, "GIF89a-from-disk", "image/gif"},
      {"GET", "/images/both.png", 200, "seed", "image/png"},
      {"GET", "/images/%2e%2e/secret", 404, "", ""},
      {"POST", "/images/a.png", 405, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method + " " + c.target);
    httplib::Request req;
    req.method = c.method;
    req.path = c.target;
    auto res = client().send(req);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, c.status);
    if (c.status != 200) continue;
    EXPECT_EQ(res->body, c.body);
    EXPECT_EQ(res->get_header_value("Content-Type"), c.type);
  }
  auto recorded = emulator->requests("/images/");
  ASSERT_EQ(recorded.size(), cases.size()) << "image requests are recorded like service calls";
  EXPECT_EQ(recorded[3].status, 404);
  emulator.reset();
  std::filesystem::remove_all(dir);
}
