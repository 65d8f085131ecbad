#include "EmulatorFixture.h"

#include <cstdlib>

std::filesystem::path makeTemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kovantis-emulator-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

KOEmulator::Options emulatorOptions(const std::filesystem::path& dataDir, const std::string& seedFile) {
  KOEmulator::Options options;
  options.dataDir = dataDir.string();
  options.seedFile = seedFile;
  options.keepAliveSeconds = 1;
  return options;
}

KOEmulatorFault fault(const std::string& path, int status, int64_t delayMs, bool drop, int64_t count, double share) {
  return {path, status, delayMs, drop, count, share};
}

void EmulatorTest::SetUp() {
  dataDir = makeTemporaryDirectory();
  emulator = std::make_unique<KOEmulator>(emulatorOptions(dataDir));
  port = emulator->start(0);
  ASSERT_GT(port, 0);
}

void EmulatorTest::TearDown() {
  emulator.reset();
  std::error_code ec;
  std::filesystem::remove_all(dataDir, ec);
}

httplib::Client EmulatorTest::client() const {
  httplib::Client cli("127.0.0.1", port);
  cli.set_connection_timeout(5);
  cli.set_read_timeout(10);
  cli.set_write_timeout(10);
  cli.set_default_headers({{KOEmulator::kTokenHeader, emulator->controlToken()}});
  return cli;
}

httplib::Params EmulatorTest::universal(const httplib::Params& extra) {
  httplib::Params p;
  for (const std::string pair :
       {"os=iOS", "app_ver=2.1", "app_id=APP-1", "sdk_ver=3.5.0", "unique_id=A1B2-1700000000", "model=iPhone14,2",
        "os_ver=17.1", "device_ts=1700000000", "device_tz=Europe/Berlin", "device_tz_offset=3600",
        "device_unique_id=P-42", "os_value=iOS", "version=2.1", "appId=APP-1", "lib_version=3.5.0",
        "device_model=iPhone14,2", "device_version=17.1"}) {
    p.emplace(pair.substr(0, pair.find('=')), pair.substr(pair.find('=') + 1));
  }
  for (const auto& [k, v] : extra) {
    p.erase(k);
    p.emplace(k, v);
  }
  return p;
}

httplib::Result EmulatorTest::send(const std::string& method, const std::string& path, const httplib::Params& query,
                                   const std::string& body, const std::string& contentType) {
  httplib::Request req;
  req.method = method;
  req.path = httplib::append_query_params(path, query);
  req.body = body;
  if (!contentType.empty()) req.set_header("Content-Type", contentType);
  return client().send(req);
}

std::string EmulatorTest::report(int events, const std::string& name) {
  std::string views;
  for (int i = 0; i < events; ++i) {
    if (i) views += ",";
    views += R"({"EVENT_ACTION":")" + name + std::to_string(i) + R"(","EVENT_ATTRS":{"n":)" + std::to_string(i) +
             R"(},"EVENT_G_TIME":"1700000000"})";
  }
  return R"({"viewsInfo":[)" + views + R"(],"viewsCount":)" + std::to_string(events) + "}";
}

rapidjson::Document EmulatorTest::json(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse(text.c_str(), text.size());
  EXPECT_FALSE(doc.HasParseError()) << text;
  return doc;
}

std::string EmulatorTest::errorOf(const httplib::Result& res) {
  if (!res) {
    ADD_FAILURE() << "no answer: " << httplib::to_string(res.error());
    return {};
  }
  EXPECT_EQ(res->status, 400) << res->body;
  auto doc = json(res->body);
  if (!doc.IsObject() || !doc.HasMember("error") || !doc["error"].IsString()) {
    ADD_FAILURE() << "no JSON error in " << res->body;
    return {};
  }
  return doc["error"].GetString();
}
