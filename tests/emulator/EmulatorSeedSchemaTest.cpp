// Seeds are checked against the seed schema, whichever way they come, and a wrong one is refused
// with the path of the wrong value and the rule it breaks. What integrators read (the formats page,
// the emulator's reference) and the sample app's seeds follow the schema, so the pages cannot drift
// from what the emulator takes.

#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "DemoSeeds.h"
#include "EmulatorFixture.h"

namespace {

struct WrongSeed {
  std::string seed;
  std::string why;  // the path and the rule, as the refusal says them
};

const std::vector<WrongSeed> kWrongSeeds = {
    {R"({"config": {"e_b_c": "thirty"}})", R"(config.e_b_c: "thirty" is not of type integer)"},
    {R"({"config": {"l_e": 1, "e_b_c": -1}})", "config.e_b_c: -1 is less than the minimum 1"},
    {R"({"inapps": {"campaign_info": [{"cid": "c1", "widgets": [{"type": "text"}, {"type": "txt"}]}]}})",
     R"(inapps.campaign_info[0].widgets[1].type: "txt" is not one of "container", "image", "button")"},
    {R"({"campaigns": {"c1": {"cid": "c1", "widgets": [{"type": "text"}, {"type": "image"},
        {"type": "button", "action": [{"tag": "m_foo"}]}]}}})",
     R"(campaigns.c1.widgets[2].action[0].tag: "m_foo" is not one of "m_nav", "m_share", "m_dismiss")"},
    {R"({"smart_triggers": {"BUY": {"status": "active", "widgets": []}}})",
     R"(smart_triggers.BUY: a campaign needs the key "cid")"},
    // A misspelt widget key, inside a row of a container: a widget the SDK would silently not fill.
    {R"({"inapps": [{"cid": "c1", "widgets": [{"type": "view", "widgets": [[{"type": "button", "contnet": "Buy"}]]}]}]})",
     R"(inapps[0].widgets[0].widgets[0][0]: "contnet" is not a key of a widget (its keys: id, type, content)"},
    {R"({"geofences": [{"geoId": "g1", "lat": 91, "lng": 13.4, "distance": 100}]})",
     "geofences[0].lat: 91 is more than the maximum 90"},
    {R"({"inbox": [{"cid": "m1", "data": {"kovantis": {"cid": "m1", "couponcode": "X"}}}]})",
     R"(inbox[0].data.kovantis: "couponcode" is not a key of a kovantis block)"},
    {R"({"campaign": {}})", R"("campaign" is not a key of a kovantis-emulator seed (its keys: config, inapps)"},
};

std::string refusalOf(const std::function<void()>& seed) {
  try {
    seed();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(accepted)";
}

}  // namespace

TEST_F(EmulatorTest, AWrongSeedIsRefusedWithItsPathInProcessOverHTTPAndFromAFile) {
  const std::string before = emulator->seedsJSON();
  const auto file = dataDir / "seed.json";
  for (const WrongSeed& wrong : kWrongSeeds) {
    SCOPED_TRACE(wrong.seed);
    EXPECT_NE(refusalOf([&] { emulator->seed(wrong.seed); }).find("seed: " + wrong.why), std::string::npos)
        << refusalOf([&] { emulator->seed(wrong.seed); });
    const std::string overHTTP = errorOf(client().Post("/__emulator/seed", wrong.seed, "application/json"));
    EXPECT_NE(overHTTP.find(wrong.why), std::string::npos) << overHTTP;
    std::ofstream(file, std::ios::trunc) << wrong.seed;
    const std::string fromFile = refusalOf([&] { KOEmulator(emulatorOptions(dataDir / "other", file.string())); });
    EXPECT_NE(fromFile.find(file.string() + ": seed: " + wrong.why), std::string::npos) << fromFile;
  }
  EXPECT_EQ(emulator->seedsJSON(), before) << "a refused seed changes nothing";

  // The same answer unchecked, for a test of what the SDK does with it; its shape is still needed.
  emulator->seedUnchecked(kWrongSeeds[0].seed);
  EXPECT_NE(emulator->seedsJSON().find(R"("config":{"e_b_c":"thirty"})"), std::string::npos);
  auto res = client().Post("/__emulator/seed?unchecked=true", kWrongSeeds[1].seed, "application/json");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200) << res->body;
  EXPECT_NE(emulator->seedsJSON().find(R"("config":{"l_e":1,"e_b_c":-1})"), std::string::npos);
  EXPECT_THROW(emulator->seedUnchecked(R"({"config": [1]})"), std::invalid_argument);
}

namespace {

// Where each kind of example goes in a seed: the word after ```json names its kind.
const std::map<std::string, std::pair<std::string, std::string>> kPlaces = {
    {"seed", {"", ""}},
    {"config", {R"({"config": )", "}"}},
    {"campaign", {R"({"campaigns": {"example": )", "}}"}},
    {"campaign-answer", {R"({"campaigns": {"example": )", "}}"}},
    {"campaign-list", {R"({"inapps": )", "}"}},
    {"push", {R"({"inbox": [{"cid": "example", "data": )", "}]}"}},
    {"inbox-message", {R"({"inbox": [)", "]}"}},
    {"inbox-answer", {R"({"inbox": )", "}"}},
    {"geofence-answer", {R"({"geofences": )", "}"}},
};

struct Example {
  std::string where;  // file:line
  std::string kind;
  std::string json;
};

std::vector<Example> examplesIn(const std::string& relative) {
  std::ifstream in(std::string(KOVANTIS_SOURCE_DIR) + "/" + relative);
  std::vector<Example> out;
  std::string line;
  int number = 0;
  std::optional<Example> open;
  while (std::getline(in, line)) {
    ++number;
    if (open) {
      if (line.starts_with("```")) {
        out.push_back(std::move(*open));
        open.reset();
      } else {
        open->json += line + "\n";
      }
    } else if (line.starts_with("```json")) {
      std::istringstream words(line.substr(7));
      open = Example{relative + ":" + std::to_string(number), "", ""};
      words >> open->kind;
    }
  }
  EXPECT_FALSE(open) << relative << ": a JSON block is not closed";
  return out;
}

}  // namespace

TEST_F(EmulatorTest, TheDocumentedExamplesAndTheSampleAppsSeedsFollowTheSchema) {
  std::set<std::string> kindsOnTheFormatsPage;
  size_t checked = 0;
  for (const char* page : {"docs/formats.md", "tools/emulator/README.md", "README.md"}) {
    for (const Example& example : examplesIn(page)) {
      const auto place = kPlaces.find(example.kind);
      if (place == kPlaces.end()) {
        ADD_FAILURE() << example.where << ": a JSON example must say which kind it is (```json campaign, ...), not \""
                      << example.kind << "\"";
        continue;
      }
      if (std::string(page) == "docs/formats.md") kindsOnTheFormatsPage.insert(example.kind);
      const std::string seed = place->second.first + example.json + place->second.second;
      const std::string refusal = refusalOf([&] { emulator->seed(seed); });
      EXPECT_EQ(refusal, "(accepted)") << example.where << " (" << example.kind << ")\n" << example.json;
      ++checked;
    }
  }
  for (const auto& [kind, place] : kPlaces) {
    EXPECT_TRUE(kindsOnTheFormatsPage.contains(kind) || kind == "seed")
        << "docs/formats.md shows no \"" << kind << "\" example";
  }
  EXPECT_GE(checked, kPlaces.size());

  for (const std::string& seed : {DemoSeeds::config(), DemoSeeds::inbox(1800000000), DemoSeeds::geofences(),
                                  DemoSeeds::inApps("http://127.0.0.1:1/images")}) {
    EXPECT_EQ(refusalOf([&] { emulator->seed(seed); }), "(accepted)") << "the sample app's seed\n" << seed;
  }
}
