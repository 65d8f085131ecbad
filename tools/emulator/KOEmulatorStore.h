#pragma once

// The emulator's SQLite store: one connection, every call serialised by one mutex, so that the
// server's worker threads and in-process inspection can share it.

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kovantis/emulator/KOEmulator.h"

struct sqlite3;

class KOEmulatorStore {
 public:
  explicit KOEmulatorStore(const std::string& dataDir);  // throws std::runtime_error
  ~KOEmulatorStore();
  KOEmulatorStore(const KOEmulatorStore&) = delete;
  KOEmulatorStore& operator=(const KOEmulatorStore&) = delete;

  int64_t recordRequest(const KOEmulatorRequest& request);
  void registerDevice(const KOEmulatorDevice& device);

  // Stores the batch with its events (the report body as received) in one row: events are
  // read out of it when inspected, so that taking a report stays cheap. Returns false, and
  // records a duplicate instead, when this app and device already delivered a batch with that id.
  bool storeBatch(const KOEmulatorBatch& batch, const std::string& eventsJSON);
  // Appends a record of a kind that is only ever added: categories, logs, geofence hits.
  template <class Record>
  void add(const Record& record);

  std::optional<std::string> seedSection(const std::string& section) const;
  void setSeedSection(const std::string& section, const std::string& json);
  // The update stamps (milliseconds since 1970) of the seeded in-app campaigns, keyed by each
  // campaign's JSON text; setting replaces them all.
  std::map<std::string, int64_t> campaignStamps() const;
  void setCampaignStamps(const std::map<std::string, int64_t>& stamps);

  void reset(bool seeds);

  // The records KOEmulator's accessors of the same kind hand out, in their order: the rows of a
  // stored kind, or for KOEmulatorEvent, KOEmulatorCampaignEvents and KOEmulatorUser what is read
  // out of the stored reports.
  template <class Record>
  std::vector<Record> all() const;
  std::vector<KOEmulatorRequest> requests(const std::string& pathFilter) const;
  size_t countRequests(const std::string& pathFilter) const;

  // One page of events, newest first, as JSON for the dashboard: {"events": [...], "next": cursor
  // or null}. A page reads only the batches it shows (stored events are never all parsed for it).
  struct TimelineQuery {
    std::string device;           // unique_id; empty for every device
    std::string name;             // exact event name; empty for every name
    std::string text;             // found anywhere in the event's JSON; empty for no search
    int64_t beforeRow = 0;        // continue before this batch row (0: from the newest)
    int64_t beforePosition = -1;  // and inside it before this position (-1: the whole batch)
    size_t limit = 50;
  };
  std::string timelineJSON(const TimelineQuery& query) const;
  // The latest requests, newest first, without their bodies: {"requests": [...]}.
  std::string requestLogJSON(size_t limit) const;
  // Changes whenever something was received or reset: what the dashboard polls.
  int64_t changeStamp() const;

  static double now();  // seconds since 1970
  // An exact path, or every path under a prefix that ends in "/"; empty matches everything.
  static bool pathMatches(const std::string& filter, const std::string& path);

 private:
  void exec(const char* sql) const;
  sqlite3* db_ = nullptr;
  mutable std::mutex mutex_;
  std::atomic<int64_t> changes_{0};
};

template <>
std::vector<KOEmulatorEvent> KOEmulatorStore::all() const;
template <>
std::vector<KOEmulatorCampaignEvents> KOEmulatorStore::all() const;
template <>
std::vector<KOEmulatorUser> KOEmulatorStore::all() const;
