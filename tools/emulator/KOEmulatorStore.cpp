#include "KOEmulatorStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <variant>

#include "KOEmulatorColumns.h"
#include "KOEmulatorJSON.h"
#include "KOEmulatorStatement.h"

namespace {

// What the store keeps besides its records: the seeds and the stamps of the seeded campaigns.
constexpr const char* kSchema = R"sql(
CREATE INDEX IF NOT EXISTS requests_path ON requests(path);
CREATE TABLE IF NOT EXISTS seeds (section TEXT PRIMARY KEY, json TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS campaign_stamps (campaign TEXT PRIMARY KEY, stamp INTEGER NOT NULL);
)sql";

constexpr const char* kPathFilter =
    "(?1 = '' OR path = ?1 OR (substr(?1, -1) = '/' AND substr(path, 1, length(?1)) = ?1))";

using KOEmulatorSQL::Statement;
using KOEmulatorSQL::Transaction;

template <class Record>
using Kind = KOEmulatorRecordKind<Record>;

template <class Column>
bool fillsMember(const Column& column) {
  return column.sql && !std::holds_alternative<std::monostate>(column.member);
}

// A column an INSERT names: one of the table's own, except the row id SQLite assigns.
template <class Column>
bool inserted(const Column& column) {
  return column.type && std::string_view(column.type) != KOEmulatorSQL::kRowId;
}

template <class Record>
std::string createSQL() {
  std::string sql = std::string("CREATE TABLE IF NOT EXISTS ") + Kind<Record>::table.table + " (";
  const char* separator = "";
  for (const auto& column : Kind<Record>::columns) {
    if (!column.type) continue;
    sql += separator + std::string(column.sql) + " " + column.type;
    separator = ", ";
  }
  if (*Kind<Record>::table.constraints) sql += separator + std::string(Kind<Record>::table.constraints);
  return sql + ");";
}

template <class Record>
std::string insertSQL() {
  std::string names, values;
  for (const auto& column : Kind<Record>::columns) {
    if (!inserted(column)) continue;
    names += (names.empty() ? "" : ", ") + std::string(column.sql);
    values += values.empty() ? "?" : ",?";
  }
  return std::string("INSERT INTO ") + Kind<Record>::table.table + " (" + names + ") VALUES (" + values + ")";
}

// Binds the record's columns in insertSQL()'s order; `unmapped` fills, in order, the inserted
// columns no member holds.
template <class Record>
void bindRow(Statement& s, const Record& record, std::initializer_list<std::string> unmapped = {}) {
  int at = 0;
  auto extra = unmapped.begin();
  for (const auto& column : Kind<Record>::columns) {
    if (!inserted(column)) continue;
    ++at;
    std::visit(
        [&](auto member) {
          using Member = decltype(member);
          if constexpr (std::is_same_v<Member, std::monostate>) {
            s.bind(at, *extra++);
          } else if constexpr (std::is_same_v<Member, int Record::*> || std::is_same_v<Member, bool Record::*>) {
            s.bind(at, static_cast<int64_t>(record.*member));
          } else {
            s.bind(at, record.*member);
          }
        },
        column.member);
  }
}

template <class Record>
std::string selectSQL() {
  std::string names;
  for (const auto& column : Kind<Record>::columns) {
    if (fillsMember(column)) names += (names.empty() ? "" : ", ") + std::string(column.sql);
  }
  return "SELECT " + names + " FROM " + Kind<Record>::table.table;
}

// The current row of a selectSQL() statement.
template <class Record>
Record readRow(const Statement& s) {
  Record record;
  int at = 0;
  for (const auto& column : Kind<Record>::columns) {
    if (!fillsMember(column)) continue;
    std::visit(
        [&](auto member) {
          using Member = decltype(member);
          if constexpr (std::is_same_v<Member, std::string Record::*>) {
            record.*member = s.text(at);
          } else if constexpr (std::is_same_v<Member, double Record::*>) {
            record.*member = s.real(at);
          } else if constexpr (std::is_same_v<Member, int64_t Record::*>) {
            record.*member = s.integer(at);
          } else if constexpr (std::is_same_v<Member, int Record::*>) {
            record.*member = static_cast<int>(s.integer(at));
          } else if constexpr (std::is_same_v<Member, bool Record::*>) {
            record.*member = s.integer(at) != 0;
          }
        },
        column.member);
    ++at;
  }
  return record;
}

template <class... Records>
struct KindList {
  static std::vector<std::string> creates() { return {createSQL<Records>()...}; }
  static std::string deletes() { return ((std::string("DELETE FROM ") + Kind<Records>::table.table + ";") + ...); }
};
// The kinds kept as rows, one table each: what the store creates and what a reset empties.
using StoredKinds = KindList<KOEmulatorRequest, KOEmulatorDevice, KOEmulatorBatch, KOEmulatorDuplicate,
                             KOEmulatorCategories, KOEmulatorLog, KOEmulatorGeofenceHit>;

std::map<std::string, std::string> queryMap(const std::string& json) {
  std::map<std::string, std::string> out;
  rapidjson::Document doc;
  std::string error;
  if (!KOEmulatorJSON::parse(json, doc, error) || !doc.IsObject()) return out;
  for (auto& m : doc.GetObject()) {
    const rapidjson::Value* v = &m.value;
    if (v->IsArray() && !v->Empty()) v = &(*v)[v->Size() - 1];
    if (v->IsString()) out[m.name.GetString()] = std::string(v->GetString(), v->GetStringLength());
  }
  return out;
}

}  // namespace

KOEmulatorStore::KOEmulatorStore(const std::string& dataDir) {
  std::error_code ec;
  std::filesystem::create_directories(dataDir, ec);
  if (ec) throw std::runtime_error("cannot create data directory " + dataDir + ": " + ec.message());
  auto file = (std::filesystem::path(dataDir) / "emulator.sqlite").string();
  if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                      nullptr) != SQLITE_OK) {
    std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw std::runtime_error("cannot open " + file + ": " + message);
  }
  try {
    // Durability matters less than speed here: the store is a test fixture, not a ledger.
    exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF; PRAGMA foreign_keys=ON;");
    sqlite3_busy_timeout(db_, 5000);
    for (const std::string& create : StoredKinds::creates()) exec(create.c_str());
    exec(kSchema);
    // Stores made before categories kept their device gain the columns (empty for old rows).
    sqlite3_exec(db_, "ALTER TABLE requests ADD COLUMN duration_ms REAL NOT NULL DEFAULT 0", nullptr, nullptr,
                 nullptr);  // fails harmlessly when present
    for (const char* column : {"device_unique_id", "push_id"}) {
      const std::string alter =
          std::string("ALTER TABLE categories ADD COLUMN ") + column + " TEXT NOT NULL DEFAULT ''";
      sqlite3_exec(db_, alter.c_str(), nullptr, nullptr, nullptr);  // fails harmlessly when present
    }
  } catch (...) {
    sqlite3_close(db_);
    throw;
  }
}

KOEmulatorStore::~KOEmulatorStore() { sqlite3_close(db_); }

void KOEmulatorStore::exec(const char* sql) const {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : "unknown error";
    sqlite3_free(message);
    throw std::runtime_error("sqlite: " + text);
  }
}

double KOEmulatorStore::now() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

bool KOEmulatorStore::pathMatches(const std::string& filter, const std::string& path) {
  if (filter.empty() || filter == path) return true;
  return filter.back() == '/' && path.compare(0, filter.size(), filter) == 0;
}

int64_t KOEmulatorStore::recordRequest(const KOEmulatorRequest& r) {
  std::lock_guard lock(mutex_);
  Statement s(db_, insertSQL<KOEmulatorRequest>());
  bindRow(s, r);
  s.run();
  const int64_t id = sqlite3_last_insert_rowid(db_);
  ++changes_;
  return id;
}

int64_t KOEmulatorStore::changeStamp() const { return changes_.load(); }

void KOEmulatorStore::registerDevice(const KOEmulatorDevice& d) {
  // A device registers again on every start; keep its first sighting and count the rest.
  static const std::string upsert = [] {
    std::string sql = insertSQL<KOEmulatorDevice>() + " ON CONFLICT (app_id, unique_id) DO UPDATE SET ";
    for (const auto& column : Kind<KOEmulatorDevice>::columns) {
      const std::string_view name = column.sql;
      if (name == "app_id" || name == "unique_id" || name == "first_seen" || name == "registrations") continue;
      sql += std::string(name) + "=excluded." + std::string(name) + ", ";
    }
    return sql + "registrations=registrations+1";
  }();
  KOEmulatorDevice first = d;
  first.firstSeen = d.lastSeen;
  first.registrations = 1;
  std::lock_guard lock(mutex_);
  Statement s(db_, upsert);
  bindRow(s, first);
  s.run();
}

bool KOEmulatorStore::storeBatch(const KOEmulatorBatch& b, const std::string& eventsJSON) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_);
  {
    Statement existing(db_, "SELECT events_json FROM batches WHERE app_id=? AND unique_id=? AND batch_id=?");
    existing.bind(1, b.appId).bind(2, b.uniqueId).bind(3, b.batchId);
    if (existing.step()) {
      const KOEmulatorDuplicate duplicate{.appId = b.appId,
                                          .uniqueId = b.uniqueId,
                                          .batchId = b.batchId,
                                          .viewsCount = b.viewsCount,
                                          .received = b.received,
                                          .identical = existing.text(0) == eventsJSON};
      Statement dup(db_, insertSQL<KOEmulatorDuplicate>());
      bindRow(dup, duplicate);
      dup.run();
      tx.commit();
      return false;
    }
  }
  Statement ins(db_, insertSQL<KOEmulatorBatch>());
  bindRow(ins, b, {eventsJSON});
  ins.run();
  tx.commit();
  return true;
}

template <class Record>
void KOEmulatorStore::add(const Record& record) {
  std::lock_guard lock(mutex_);
  Statement s(db_, insertSQL<Record>());
  bindRow(s, record);
  s.run();
}
template void KOEmulatorStore::add(const KOEmulatorCategories&);
template void KOEmulatorStore::add(const KOEmulatorLog&);
template void KOEmulatorStore::add(const KOEmulatorGeofenceHit&);

std::optional<std::string> KOEmulatorStore::seedSection(const std::string& section) const {
  std::lock_guard lock(mutex_);
  Statement s(db_, "SELECT json FROM seeds WHERE section=?");
  s.bind(1, section);
  if (s.step()) return s.text(0);
  return std::nullopt;
}

void KOEmulatorStore::setSeedSection(const std::string& section, const std::string& json) {
  std::lock_guard lock(mutex_);
  ++changes_;
  Statement s(db_, "INSERT INTO seeds (section, json) VALUES (?1, ?2) ON CONFLICT (section) DO UPDATE SET json=?2");
  s.bind(1, section).bind(2, json).run();
}

std::map<std::string, int64_t> KOEmulatorStore::campaignStamps() const {
  std::lock_guard lock(mutex_);
  std::map<std::string, int64_t> out;
  Statement s(db_, "SELECT campaign, stamp FROM campaign_stamps");
  while (s.step()) out[s.text(0)] = s.integer(1);
  return out;
}

void KOEmulatorStore::setCampaignStamps(const std::map<std::string, int64_t>& stamps) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_);
  exec("DELETE FROM campaign_stamps;");
  Statement s(db_, "INSERT INTO campaign_stamps (campaign, stamp) VALUES (?, ?)");
  for (const auto& [campaign, stamp] : stamps) {
    s.bind(1, campaign).bind(2, stamp).run();
    s.reset();
  }
  tx.commit();
}

void KOEmulatorStore::reset(bool seeds) {
  std::lock_guard lock(mutex_);
  ++changes_;
  Transaction tx(db_);
  exec(StoredKinds::deletes().c_str());
  if (seeds) exec("DELETE FROM seeds; DELETE FROM campaign_stamps;");
  tx.commit();
}

std::vector<KOEmulatorRequest> KOEmulatorStore::requests(const std::string& pathFilter) const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorRequest> out;
  Statement s(db_, selectSQL<KOEmulatorRequest>() + " WHERE " + kPathFilter + " ORDER BY id");
  s.bind(1, pathFilter);
  while (s.step()) {
    out.push_back(readRow<KOEmulatorRequest>(s));
    out.back().query = queryMap(out.back().queryJSON);
  }
  return out;
}

size_t KOEmulatorStore::countRequests(const std::string& pathFilter) const {
  std::lock_guard lock(mutex_);
  Statement s(db_, std::string("SELECT count(*) FROM requests WHERE ") + kPathFilter);
  s.bind(1, pathFilter);
  s.step();
  return static_cast<size_t>(s.integer(0));
}

template <class Record>
std::vector<Record> KOEmulatorStore::all() const {
  std::lock_guard lock(mutex_);
  std::vector<Record> out;
  Statement s(db_, selectSQL<Record>() + " ORDER BY " + Kind<Record>::table.order);
  while (s.step()) out.push_back(readRow<Record>(s));
  return out;
}
template std::vector<KOEmulatorDevice> KOEmulatorStore::all() const;
template std::vector<KOEmulatorBatch> KOEmulatorStore::all() const;
template std::vector<KOEmulatorDuplicate> KOEmulatorStore::all() const;
template std::vector<KOEmulatorLog> KOEmulatorStore::all() const;
template std::vector<KOEmulatorCategories> KOEmulatorStore::all() const;
template std::vector<KOEmulatorGeofenceHit> KOEmulatorStore::all() const;

template <>
std::vector<KOEmulatorEvent> KOEmulatorStore::all() const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorEvent> out;
  Statement s(db_, "SELECT app_id, unique_id, batch_id, events_json FROM batches ORDER BY id");
  while (s.step()) {
    rapidjson::Document stored;
    std::string error;
    // Every stored report body was parsed and checked when it came in.
    if (!KOEmulatorJSON::parse(s.text(3), stored, error)) continue;
    const rapidjson::Value* found = &stored;
    if (stored.IsObject()) {
      const auto member = stored.FindMember("viewsInfo");
      if (member == stored.MemberEnd()) continue;
      found = &member->value;
    }
    const rapidjson::Value& views = *found;
    if (!views.IsArray()) continue;
    for (rapidjson::SizeType i = 0; i < views.Size(); ++i) {
      const auto& view = views[i];
      KOEmulatorEvent e;
      e.appId = s.text(0);
      e.uniqueId = s.text(1);
      e.batchId = s.text(2);
      e.position = static_cast<int64_t>(i);
      const auto name = view.FindMember("EVENT_ACTION");
      if (name != view.MemberEnd() && name->value.IsString()) e.name = name->value.GetString();
      e.json = KOEmulatorJSON::serialize(view);
      out.push_back(std::move(e));
    }
  }
  return out;
}

template <>
std::vector<KOEmulatorCampaignEvents> KOEmulatorStore::all() const {
  // Counted from the stored reports on each call: the views are small and always agree with events().
  static const std::map<std::string, int64_t KOEmulatorCampaignEvents::*> counters = {
      {"NOTIFICATION_RECEIVED_IOS_APP_ACTIVE", &KOEmulatorCampaignEvents::pushReceived},
      {"NOTIFICATION_CLICKED_IOS_KOV", &KOEmulatorCampaignEvents::pushClicked},
      {"NOTIFICATION_DISMISSED_IOS_KOV", &KOEmulatorCampaignEvents::pushDismissed},
      {"iOS_IN_APP_SHOWN", &KOEmulatorCampaignEvents::inAppShown},
      {"iOS_IN_APP_CLICKED", &KOEmulatorCampaignEvents::inAppClicked},
      {"iOS_IN_APP_AUTO_DISMISS", &KOEmulatorCampaignEvents::inAppAutoDismissed}};
  std::vector<KOEmulatorCampaignEvents> out;
  std::map<std::string, size_t> indexOf;
  for (const KOEmulatorEvent& event : all<KOEmulatorEvent>()) {
    const auto counter = counters.find(event.name);
    if (counter == counters.end()) continue;
    rapidjson::Document record;
    std::string error;
    if (!KOEmulatorJSON::parse(event.json, record, error) || !record.IsObject()) continue;
    const auto attributes = record.FindMember("EVENT_ATTRS");
    if (attributes == record.MemberEnd() || !attributes->value.IsObject()) continue;
    const auto cid = attributes->value.FindMember("cid");
    if (cid == attributes->value.MemberEnd() || !cid->value.IsString()) continue;
    const std::string campaignId = cid->value.GetString();
    auto [at, added] = indexOf.try_emplace(campaignId, out.size());
    if (added) out.push_back(KOEmulatorCampaignEvents{.campaignId = campaignId});
    ++(out[at->second].*(counter->second));
  }
  return out;
}
