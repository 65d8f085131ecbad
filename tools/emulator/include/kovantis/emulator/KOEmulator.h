#pragma once

// An in-process kovantis-emulator: a real HTTP server on a loopback port that answers every call
// the SDK makes, stores what it received in SQLite and can be told to fail. Thread-safe; every
// accessor may be called while the server is answering requests.
//
// Installed with the SDK as Kovantis::emulator (libkovantis_emulator). This header and
// KOEmulatorRecords.h are its whole surface: the HTTP server, the store and their libraries stay
// behind the pointer below, so including it adds nothing to a host's compile line.

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KOEmulatorRecords.h"

// The library is built with hidden visibility; this class is what it exports.
#pragma GCC visibility push(default)

class KOEmulator {
 public:
  struct Options {
    std::string dataDir;    // holds emulator.sqlite; created when missing
    std::string seedFile;   // optional JSON seed applied at construction
    std::string imagesDir;  // optional: files under it are served at /images/<relative path>
    std::string bindAddress = "127.0.0.1";
    int keepAliveSeconds = 2;         // short, so that stop() never waits long on idle clients
    int keepAliveMaxRequests = 1000;  // per connection, as production front ends allow
    bool logRequests = false;         // one line per service request on stderr
    // Draws a seeded campaign (its JSON) as an SVG picture for the dashboard's preview; empty
    // answers "no preview". The kovantis-emulator program sets it to the simulated device's
    // renderer; the library itself draws nothing.
    std::function<std::string(const std::string& campaignJSON)> campaignPicture;
  };

  // Throws std::runtime_error when the store cannot be opened or the seed file is unusable.
  explicit KOEmulator(Options options);
  ~KOEmulator();
  KOEmulator(const KOEmulator&) = delete;
  KOEmulator& operator=(const KOEmulator&) = delete;

  // The service rows {method, path} of the request table, for a test checking the SDK's own service table against it.
  static std::vector<KOEmulatorRoute> routes();

  // Binds (port 0 picks a free one), serves on background threads and returns the bound port.
  // Throws std::runtime_error when the port cannot be bound or the server is already running.
  int start(int port = 0);
  // Stops serving and waits for the server threads; pending stalls are cut short. Idempotent.
  void stop();
  bool isRunning() const;
  int port() const;
  std::string baseURL() const;  // "http://127.0.0.1:PORT"

  // The control API (seeds, faults, inspection, reset: README of the emulator) lives under this
  // path on the same port; it is never recorded and never hit by faults.
  static constexpr const char* kControlPath = "/__emulator/";
  // The dashboard's files (its script and style sheet) are served under this path.
  static constexpr const char* kDashboardPath = "/__emulator/dashboard/";
  std::string controlURL() const;  // baseURL() + kControlPath
  // The dashboard's page, the address to open in a browser: baseURL() + "/".
  std::string dashboardURL() const;
  // Every call that changes the emulator over HTTP (seed, fault, reset) must carry this per-run
  // secret in the header "X-Kovantis-Token"; the dashboard page is handed it when served, and a
  // page from another origin can neither read it nor send the header. Calls from a browser must
  // also come from the emulator's own origin. In-process calls need none of this.
  static constexpr const char* kTokenHeader = "X-Kovantis-Token";
  std::string controlToken() const;

  // Seeds: a JSON object whose sections replace the ones stored (see README.md), checked against
  // the seed schema (share/kovantis/schemas/seed.schema.json, docs/formats.md). Throws
  // std::invalid_argument with the reason when the text is not an acceptable seed: the path of the
  // wrong value and the rule it breaks, e.g.
  // seed: inapps.campaign_info[0].widgets[2].action[0].tag: "m_foo" is not one of "m_nav", ...
  void seed(const std::string& json);
  // The same without the schema: each section needs only its shape (an object, or a list where a
  // bare list is allowed), so that a test can hand the SDK an answer the service would never give.
  void seedUnchecked(const std::string& json);
  std::string seedsJSON() const;

  void injectFault(const KOEmulatorFault& fault);
  void clearFaults(const std::string& path = {});  // empty clears every fault
  std::vector<KOEmulatorFault> faults() const;

  // Forgets everything received; with resetSeeds the seeds go back to their defaults too.
  void reset(bool resetSeeds = false);

  // Received requests in arrival order. A filter is an exact path or a prefix ending in "/".
  std::vector<KOEmulatorRequest> requests(const std::string& pathFilter = {}) const;
  // How many requests match, without reading them.
  size_t requestCount(const std::string& pathFilter = {}) const;
  std::vector<KOEmulatorDevice> devices() const;
  std::vector<KOEmulatorBatch> batches() const;
  std::vector<KOEmulatorEvent> events() const;
  std::vector<KOEmulatorDuplicate> duplicates() const;
  std::vector<KOEmulatorLog> logs() const;
  std::vector<KOEmulatorCategories> categories() const;
  // Geofence crossings the devices reported, oldest first.
  std::vector<KOEmulatorGeofenceHit> geofenceHits() const;
  // Push and in-app events per campaign id, in the order each campaign was first reported.
  std::vector<KOEmulatorCampaignEvents> campaignEvents() const;
  // The users the devices reported attributes for, the one whose attribute came last at the end.
  std::vector<KOEmulatorUser> users() const;

  // The JSON answer of GET /__emulator/<what>, e.g. inspectJSON("events"), or
  // inspectJSON("requests", "/v2/report/add"). Throws std::invalid_argument for an unknown name.
  std::string inspectJSON(const std::string& what, const std::string& pathFilter = {}) const;

  // The most service and image requests that were being answered at once since the start or the
  // last reset (a stalled request counts for its whole stall): how a test sees a client's limit.
  size_t peakConcurrentRequests() const;

  // Blocks until at least `count` requests matching the filter were received (whatever their
  // answer) or the timeout passed; returns whether the count was reached.
  bool waitForRequests(const std::string& pathFilter, size_t count, std::chrono::milliseconds timeout) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

#pragma GCC visibility pop
