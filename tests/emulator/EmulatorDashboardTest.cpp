// The dashboard: its page and the views it reads, and the rule that only the emulator's own page
// (holding the run's token) may change the emulator while any other page can neither change nor read it.

#include <set>

#include "EmulatorFixture.h"

namespace {

// A client that sends what a browser would send for a page of `origin`, and no token.
httplib::Client browserClient(int port, const httplib::Headers& headers) {
  httplib::Client cli("127.0.0.1", port);
  cli.set_connection_timeout(5);
  cli.set_read_timeout(10);
  cli.set_default_headers(headers);
  return cli;
}

int statusOf(const httplib::Result& res) { return res ? res->status : 0; }

}  // namespace

TEST_F(EmulatorTest, OnlyTheEmulatorsOwnPageWithItsTokenMayChangeItAndNoOtherPageMayReadIt) {
  ASSERT_EQ(post("/v2/report/add", universal({{"batch_id", "1"}}), report(2))->status, 200);
  const std::string own = "http://127.0.0.1:" + std::to_string(port);
  const std::string other = "http://127.0.0.1:" + std::to_string(port + 1);
  const std::string token = emulator->controlToken();
  ASSERT_EQ(token.size(), 32u);

  // The page carries the token in its own text, framed by no one.
  auto page = browserClient(port, {}).Get("/");
  ASSERT_EQ(statusOf(page), 200);
  EXPECT_NE(page->body.find("content=\"" + token + "\""), std::string::npos);
  EXPECT_EQ(page->get_header_value("X-Frame-Options"), "DENY");
  EXPECT_NE(page->get_header_value("Content-Security-Policy").find("frame-ancestors 'none'"), std::string::npos);
  EXPECT_EQ(page->get_header_value("Access-Control-Allow-Origin"), "");
  EXPECT_EQ(statusOf(browserClient(port, {}).Get("/__emulator/dashboard/dashboard.js")), 200);

  struct Case {
    const char* what;
    httplib::Headers headers;
    int reset;   // the answer to POST /__emulator/reset
    int events;  // the answer to GET /__emulator/events
  };
  const std::vector<Case> cases = {
      {"the page itself",
       {{"Origin", own}, {"Sec-Fetch-Site", "same-origin"}, {KOEmulator::kTokenHeader, token}},
       200,
       200},
      {"a script outside any browser with the token", {{KOEmulator::kTokenHeader, token}}, 200, 200},
      {"the page without its token", {{"Origin", own}, {"Sec-Fetch-Site", "same-origin"}}, 403, 200},
      {"a wrong token", {{KOEmulator::kTokenHeader, token + "0"}}, 403, 200},
      {"a page from another local port", {{"Origin", other}, {"Sec-Fetch-Site", "same-site"}}, 403, 403},
      {"another port that guessed the token", {{"Origin", other}, {KOEmulator::kTokenHeader, token}}, 403, 403},
      {"a form posted from another site",
       {{"Sec-Fetch-Site", "cross-site"}, {KOEmulator::kTokenHeader, token}},
       403,
       403},
      {"a name rebound to the loopback", {{"Host", "attacker.example:" + std::to_string(port)}}, 403, 403},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto cli = browserClient(port, c.headers);
    EXPECT_EQ(statusOf(cli.Get("/__emulator/events")), c.events);
    const size_t before = emulator->batches().size();
    EXPECT_EQ(statusOf(cli.Post("/__emulator/reset", "", "application/json")), c.reset);
    if (c.reset != 200) {
      EXPECT_EQ(emulator->batches().size(), before) << "a refused reset changed nothing";
      EXPECT_EQ(
          statusOf(cli.Post("/__emulator/fault", R"({"path":"/v2/report/add","status":500})", "application/json")),
          403);
      EXPECT_TRUE(emulator->faults().empty());
    }
    ASSERT_EQ(
        post("/v2/report/add", universal({{"batch_id", std::to_string(10 + (&c - &cases[0]))}}), report(1))->status,
        200);
  }
  // The service itself stays open to the SDK, which sends none of a browser's headers.
  EXPECT_EQ(browserClient(port, {})
                .Post(httplib::append_query_params("/v2/report/add", universal({{"batch_id", "99"}})), report(1),
                      "application/json")
                ->status,
            200);
}

TEST_F(EmulatorTest, TheTimelinePagesThroughEveryEventNewestFirstOnceEachAndFilters) {
  // Three batches from two devices: 3 + 2 + 4 events.
  ASSERT_EQ(post("/v2/report/add", universal({{"batch_id", "1"}}), report(3, "A"))->status, 200);
  ASSERT_EQ(post("/v2/report/add", universal({{"batch_id", "2"}, {"unique_id", "OTHER"}}), report(2, "B"))->status,
            200);
  ASSERT_EQ(post("/v2/report/add", universal({{"batch_id", "3"}}), report(4, "C"))->status, 200);
  ASSERT_EQ(post("/v2/report/add", universal({{"batch_id", "3"}}), report(4, "C"))->status, 200);  // a duplicate

  const auto page = [&](const httplib::Params& query) {
    auto res = get("/__emulator/timeline", query);
    EXPECT_EQ(statusOf(res), 200);
    return json(res ? res->body : "{}");
  };
  // Pages of 2 in every way the cursor can fall: inside a batch and at its end.
  std::vector<std::string> seen;
  httplib::Params query{{"limit", "2"}};
  for (int pages = 0; pages < 10; ++pages) {
    auto doc = page(query);
    for (const auto& e : doc["events"].GetArray()) {
      seen.push_back(std::string(e["batch_id"].GetString()) + ":" + std::to_string(e["position"].GetInt64()) + ":" +
                     e["name"].GetString());
    }
    if (doc["next"].IsNull()) break;
    query = {{"limit", "2"},
             {"before_row", std::to_string(doc["next"]["before_row"].GetInt64())},
             {"before_position", std::to_string(doc["next"]["before_position"].GetInt64())}};
  }
  const std::vector<std::string> expected = {"3:3:C3", "3:2:C2", "3:1:C1", "3:0:C0", "2:1:B1",
                                             "2:0:B0", "1:2:A2", "1:1:A1", "1:0:A0"};
  EXPECT_EQ(seen, expected);

  auto byName = page({{"name", "B1"}});
  ASSERT_EQ(byName["events"].Size(), 1u);
  EXPECT_EQ(std::string(byName["events"][0]["unique_id"].GetString()), "OTHER");
  EXPECT_EQ(page({{"device", "OTHER"}})["events"].Size(), 2u);
  EXPECT_EQ(page({{"q", "\"C"}})["events"].Size(), 4u);
  EXPECT_EQ(page({{"name", "nothing"}})["events"].Size(), 0u);
  EXPECT_FALSE(errorOf(get("/__emulator/timeline", {{"limit", "many"}})).empty());

  // The request log: newest first, with status, timing and size, without bodies.
  auto log = json(get("/__emulator/request_log", {{"limit", "2"}})->body);
  ASSERT_EQ(log["requests"].Size(), 2u);
  EXPECT_GT(log["requests"][0]["id"].GetInt64(), log["requests"][1]["id"].GetInt64());
  EXPECT_EQ(log["requests"][0]["status"].GetInt(), 200);
  EXPECT_GE(log["requests"][0]["duration_ms"].GetDouble(), 0.0);
  EXPECT_GT(log["requests"][0]["body_bytes"].GetInt64(), 0);
  EXPECT_FALSE(log["requests"][0].HasMember("body"));
}

TEST_F(EmulatorTest, TheChangeStampMovesWithWhatWasReceivedSeededOrReset) {
  const auto stamp = [&] { return json(get("/__emulator/changes", {})->body)["stamp"].GetInt64(); };
  const int64_t start = stamp();
  EXPECT_EQ(stamp(), start) << "reading changes nothing";
  ASSERT_EQ(post("/v2/report/add", universal({{"batch_id", "1"}}), report(1))->status, 200);
  const int64_t received = stamp();
  EXPECT_NE(received, start);
  emulator->seed(R"({"config": {"e_b_c": 5}})");
  const int64_t seeded = stamp();
  EXPECT_NE(seeded, received);
  emulator->reset();
  EXPECT_NE(stamp(), seeded);
}

TEST(EmulatorPreview, ACampaignIsDrawnByTheProgramsRendererAndOtherwiseAnsweredWithNoContent) {
  const auto dir = makeTemporaryDirectory();
  KOEmulator::Options options = emulatorOptions(dir);
  std::set<std::string> drawn;
  options.campaignPicture = [&](const std::string& campaign) {
    drawn.insert(campaign);
    return campaign.find("\"broken\"") == std::string::npos ? std::string("<svg/>") : std::string();
  };
  KOEmulator emulator(options);
  httplib::Client cli("127.0.0.1", emulator.start(0));
  cli.set_connection_timeout(5);
  cli.set_read_timeout(10);
  emulator.seed(R"({"inapps": {"campaign_info": [{"cid": "c1", "type": "general"}]},
                    "campaigns": {"c2": {"cid": "c2", "content": "broken"}},
                    "smart_triggers": {"ADD_TO_CART": {"cid": "c3", "type": "smart"}}})");
  auto shown = cli.Get("/__emulator/campaign_preview?id=c1");
  ASSERT_EQ(statusOf(shown), 200);
  EXPECT_EQ(shown->body, "<svg/>");
  EXPECT_EQ(shown->get_header_value("Content-Type"), "image/svg+xml");
  EXPECT_EQ(statusOf(cli.Get("/__emulator/campaign_preview?id=c2")), 204) << "the renderer drew nothing";
  EXPECT_EQ(statusOf(cli.Get("/__emulator/campaign_preview?id=c3")), 200) << "found by its id, not its event";
  EXPECT_EQ(statusOf(cli.Get("/__emulator/campaign_preview?id=ADD_TO_CART")), 204);
  EXPECT_EQ(statusOf(cli.Get("/__emulator/campaign_preview?id=unknown")), 204);
  EXPECT_EQ(drawn.size(), 3u) << "each seeded campaign reached the renderer as its seeded JSON";
  emulator.stop();
  std::filesystem::remove_all(dir);
}
