#pragma once

// Everything the emulator answers, from one table of routes: the service's calls (checked the way
// the service checks them, stored, answered from the seeds) and the emulator's own control API
// under /__emulator/. Knows nothing about sockets, so the HTTP layer only moves bytes, injects
// faults and records the service calls.

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kovantis/emulator/KOEmulatorRecords.h"

class KOEmulatorFaults;
class KOEmulatorStore;

struct KOEmulatorCall {
  std::string method;
  std::string path;
  std::multimap<std::string, std::string> query;
  std::string contentType;
  std::string body;
  int port = 0;  // the local port it arrived on
};

struct KOEmulatorReply {
  KOEmulatorReply(int status_ = 200, std::string body_ = {}, std::string error_ = {}, std::string contentType_ = {})
      : status(status_), body(std::move(body_)), error(std::move(error_)), contentType(std::move(contentType_)) {}
  int status = 200;
  std::string body;         // JSON, an image's bytes; empty for 204
  std::string error;        // why the call was refused
  std::string contentType;  // empty: application/json
};

class KOEmulatorService {
 public:
  // Images are served from the seeds and, when imagesDir is given, from the files under it.
  KOEmulatorService(KOEmulatorStore& store, KOEmulatorFaults& faults, std::string imagesDir = {})
      : store_(store), faults_(faults), imagesDir_(std::move(imagesDir)) {}

  // The service rows of the table, in table order.
  static std::vector<KOEmulatorRoute> routes();
  // Whether a service row takes this path, whatever its method: the calls faults may hit.
  static bool isServicePath(const std::string& path);
  // The calls faults may hit: service calls and images.
  static bool isFaultablePath(const std::string& path);
  static bool isControlPath(const std::string& path);  // under /__emulator/
  static std::string queryJSON(const std::multimap<std::string, std::string>& query);

  // Looks the call's row up, runs the checks its kind shares with the other rows, then its
  // handler. A call no row takes is answered 404 here (405: a service path with another method).
  KOEmulatorReply handle(const KOEmulatorCall& call);
  // The answer of GET /__emulator/<what>; nothing when no inspection row has that name.
  std::optional<std::string> inspect(const std::string& what, const std::string& pathFilter) const;

  // Replaces the sections the seed names; throws std::invalid_argument when it is unusable (see
  // applySeed: `checked` false takes any section of the right shape, as a test of bad answers needs).
  void seed(const std::string& json, bool checked = true);
  std::string seedsJSON() const;  // every section, defaults included
  // The seeded in-app campaign with this id ("inapps" first, then "campaigns"), as JSON.
  std::optional<std::string> seededCampaign(const std::string& id) const;

 private:
  KOEmulatorStore& store_;
  KOEmulatorFaults& faults_;
  std::string imagesDir_;
};
