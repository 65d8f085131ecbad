#pragma once

// A fresh in-process emulator on a free loopback port per test, with a client and the query of a
// well-formed SDK call.

#include <gtest/gtest.h>
#include <httplib.h>
#include <rapidjson/document.h>

#include <filesystem>
#include <memory>
#include <string>

#include "kovantis/emulator/KOEmulator.h"

class EmulatorTest : public ::testing::Test {
 public:
  // The universal parameters as the SDK sends them, with `extra` added or overriding.
  static httplib::Params universal(const httplib::Params& extra = {});

 protected:
  void SetUp() override;
  void TearDown() override;

  // A client with bounded timeouts, so a hung server fails the test instead of stalling it.
  httplib::Client client() const;
  static httplib::Params without(httplib::Params params, const std::string& key) {
    params.erase(key);
    return params;
  }
  httplib::Result send(const std::string& method, const std::string& path, const httplib::Params& query,
                       const std::string& body = {}, const std::string& contentType = {});
  httplib::Result get(const std::string& path, const httplib::Params& query) { return send("GET", path, query); }
  httplib::Result post(const std::string& path, const httplib::Params& query, const std::string& body,
                       const std::string& contentType = "application/json") {
    return send("POST", path, query, body, contentType);
  }
  // {"viewsInfo": [n events named <name>0..], "viewsCount": n}
  static std::string report(int events, const std::string& name = "EVENT");
  static rapidjson::Document json(const std::string& text);
  // The "error" of a 400 answer; fails the test when the answer is not one.
  static std::string errorOf(const httplib::Result& res);

  std::filesystem::path dataDir;
  std::unique_ptr<KOEmulator> emulator;
  int port = 0;
};

std::filesystem::path makeTemporaryDirectory();
KOEmulator::Options emulatorOptions(const std::filesystem::path& dataDir, const std::string& seedFile = {});
KOEmulatorFault fault(const std::string& path, int status, int64_t delayMs = 0, bool drop = false, int64_t count = -1,
                      double share = 1.0);
