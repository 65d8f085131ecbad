#pragma once

// The service side of the emulator: checks each call the way the service expects it, stores what
// it delivers and answers from the seeds. Knows nothing about sockets, so the HTTP layer only
// moves bytes.

#include <map>
#include <string>

class KOEmulatorStore;

struct KOEmulatorCall {
  std::string method;
  std::string path;
  std::multimap<std::string, std::string> query;
  std::string contentType;
  std::string body;
};

struct KOEmulatorReply {
  int status = 200;
  std::string body;   // JSON; empty for 204
  std::string error;  // why the call was refused
};

class KOEmulatorService {
 public:
  explicit KOEmulatorService(KOEmulatorStore &store) : store_(store) {}

  static bool isServicePath(const std::string &path);
  static std::string queryJSON(const std::multimap<std::string, std::string> &query);

  KOEmulatorReply handle(const KOEmulatorCall &call);

  // Replaces the sections the seed names; throws std::invalid_argument when it is unusable.
  void seed(const std::string &json);
  std::string seedsJSON() const;  // every section, defaults included

 private:
  std::string section(const std::string &name) const;
  KOEmulatorStore &store_;
};
