#include "KOEmulatorStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stdexcept>

#include "KOEmulatorJSON.h"

namespace {

constexpr const char *kSchema = R"sql(
CREATE TABLE IF NOT EXISTS requests (
  id INTEGER PRIMARY KEY, time REAL NOT NULL, method TEXT NOT NULL, path TEXT NOT NULL,
  target TEXT NOT NULL, query TEXT NOT NULL, body TEXT NOT NULL, status INTEGER NOT NULL,
  error TEXT NOT NULL, fault TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS requests_path ON requests(path);
CREATE TABLE IF NOT EXISTS devices (
  app_id TEXT NOT NULL, unique_id TEXT NOT NULL, device_unique_id TEXT NOT NULL, push_id TEXT NOT NULL,
  model TEXT NOT NULL, os_ver TEXT NOT NULL, app_ver TEXT NOT NULL, sdk_ver TEXT NOT NULL,
  idfv TEXT NOT NULL, advertising_id TEXT NOT NULL, first_seen REAL NOT NULL, last_seen REAL NOT NULL,
  registrations INTEGER NOT NULL, PRIMARY KEY (app_id, unique_id));
CREATE TABLE IF NOT EXISTS batches (
  id INTEGER PRIMARY KEY, app_id TEXT NOT NULL, unique_id TEXT NOT NULL, batch_id TEXT NOT NULL,
  views_count INTEGER NOT NULL, received REAL NOT NULL, events_json TEXT NOT NULL,
  UNIQUE (app_id, unique_id, batch_id));
CREATE TABLE IF NOT EXISTS duplicates (
  id INTEGER PRIMARY KEY, app_id TEXT NOT NULL, unique_id TEXT NOT NULL, batch_id TEXT NOT NULL,
  views_count INTEGER NOT NULL, received REAL NOT NULL, identical INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS categories (
  id INTEGER PRIMARY KEY, app_id TEXT NOT NULL, unique_id TEXT NOT NULL, data TEXT NOT NULL,
  received REAL NOT NULL);
CREATE TABLE IF NOT EXISTS logs (
  id INTEGER PRIMARY KEY, token TEXT NOT NULL, appid TEXT NOT NULL, uid TEXT NOT NULL,
  lvl TEXT NOT NULL, tb TEXT NOT NULL, sdk_ver TEXT NOT NULL, msg TEXT NOT NULL, tm_s TEXT NOT NULL,
  received REAL NOT NULL);
CREATE TABLE IF NOT EXISTS geofence_hits (
  id INTEGER PRIMARY KEY, app_id TEXT NOT NULL, unique_id TEXT NOT NULL, device_unique_id TEXT NOT NULL,
  geo_id TEXT NOT NULL, transition TEXT NOT NULL, lat REAL NOT NULL, lng REAL NOT NULL, received REAL NOT NULL);
CREATE TABLE IF NOT EXISTS seeds (section TEXT PRIMARY KEY, json TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS campaign_stamps (campaign TEXT PRIMARY KEY, stamp INTEGER NOT NULL);
)sql";

constexpr const char *kPathFilter =
    "(?1 = '' OR path = ?1 OR (substr(?1, -1) = '/' AND substr(path, 1, length(?1)) = ?1))";

class Statement {
 public:
  Statement(sqlite3 *db, const std::string &sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string("sqlite prepare: ") + sqlite3_errmsg(db));
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement &) = delete;
  Statement &operator=(const Statement &) = delete;

  Statement &bind(int i, const std::string &s) {
    sqlite3_bind_text(stmt_, i, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Statement &bind(int i, int64_t v) {
    sqlite3_bind_int64(stmt_, i, v);
    return *this;
  }
  Statement &bind(int i, double v) {
    sqlite3_bind_double(stmt_, i, v);
    return *this;
  }
  // True while a row is available.
  bool step() {
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    throw std::runtime_error(std::string("sqlite step: ") + sqlite3_errmsg(db_));
  }
  void reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
  void run() {
    while (step()) {
    }
  }
  std::string text(int col) const {
    auto p = sqlite3_column_text(stmt_, col);
    int n = sqlite3_column_bytes(stmt_, col);
    return p ? std::string(reinterpret_cast<const char *>(p), static_cast<size_t>(n)) : std::string();
  }
  int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
  double real(int col) const { return sqlite3_column_double(stmt_, col); }

 private:
  sqlite3 *db_;
  sqlite3_stmt *stmt_ = nullptr;
};

// Keeps a multi-statement change all-or-nothing even when a step throws.
class Transaction {
 public:
  explicit Transaction(sqlite3 *db) : db_(db) { sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr); }
  ~Transaction() {
    if (!committed_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  Transaction(const Transaction &) = delete;
  Transaction &operator=(const Transaction &) = delete;
  void commit() {
    if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string("sqlite commit: ") + sqlite3_errmsg(db_));
    }
    committed_ = true;
  }

 private:
  sqlite3 *db_;
  bool committed_ = false;
};

std::map<std::string, std::string> queryMap(const std::string &json) {
  std::map<std::string, std::string> out;
  rapidjson::Document doc;
  std::string error;
  if (!KOEmulatorJSON::parse(json, doc, error) || !doc.IsObject()) return out;
  for (auto &m : doc.GetObject()) {
    const rapidjson::Value *v = &m.value;
    if (v->IsArray() && !v->Empty()) v = &(*v)[v->Size() - 1];
    if (v->IsString()) out[m.name.GetString()] = std::string(v->GetString(), v->GetStringLength());
  }
  return out;
}

}  // namespace

KOEmulatorStore::KOEmulatorStore(const std::string &dataDir) {
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
    exec(kSchema);
    // Stores made before categories kept their device gain the columns (empty for old rows).
    sqlite3_exec(db_, "ALTER TABLE requests ADD COLUMN duration_ms REAL NOT NULL DEFAULT 0", nullptr, nullptr,
                 nullptr);  // fails harmlessly when present
    for (const char *column : {"device_unique_id", "push_id"}) {
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

void KOEmulatorStore::exec(const char *sql) const {
  char *message = nullptr;
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

bool KOEmulatorStore::pathMatches(const std::string &filter, const std::string &path) {
  if (filter.empty() || filter == path) return true;
  return filter.back() == '/' && path.compare(0, filter.size(), filter) == 0;
}

int64_t KOEmulatorStore::recordRequest(const KOEmulatorRequest &r) {
  std::lock_guard lock(mutex_);
  Statement s(db_,
              "INSERT INTO requests (time, method, path, target, query, body, status, error, fault, duration_ms) "
              "VALUES (?,?,?,?,?,?,?,?,?,?)");
  s.bind(1, r.time).bind(2, r.method).bind(3, r.path).bind(4, r.target).bind(5, r.queryJSON).bind(6, r.body);
  s.bind(7, int64_t{r.status}).bind(8, r.error).bind(9, r.fault).bind(10, r.durationMs).run();
  const int64_t id = sqlite3_last_insert_rowid(db_);
  ++changes_;
  return id;
}

std::string KOEmulatorStore::timelineJSON(const TimelineQuery &q) const {
  std::lock_guard lock(mutex_);
  const size_t limit = std::clamp<size_t>(q.limit, 1, 500);
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
  w.StartObject();
  w.Key("events");
  w.StartArray();
  size_t written = 0;
  int64_t nextRow = 0, nextPosition = -1;
  Statement s(db_,
              "SELECT id, unique_id, batch_id, received, events_json FROM batches "
              "WHERE (?1 = 0 OR id <= ?1) AND (?2 = '' OR unique_id = ?2) ORDER BY id DESC");
  s.bind(1, q.beforeRow).bind(2, q.device);
  while (written < limit && s.step()) {
    const int64_t row = s.integer(0);
    rapidjson::Document stored;
    std::string error;
    if (!KOEmulatorJSON::parse(s.text(4), stored, error) || !stored.IsObject()) continue;
    const auto views = stored.FindMember("viewsInfo");
    if (views == stored.MemberEnd() || !views->value.IsArray()) continue;
    auto end = static_cast<int64_t>(views->value.Size());
    if (row == q.beforeRow && q.beforePosition >= 0) end = std::min(end, q.beforePosition);
    for (int64_t i = end - 1; i >= 0; --i) {
      const auto &view = views->value[static_cast<rapidjson::SizeType>(i)];
      const auto nameMember = view.IsObject() ? view.FindMember("EVENT_ACTION") : view.MemberEnd();
      const std::string name = view.IsObject() && nameMember != view.MemberEnd() && nameMember->value.IsString()
                                   ? nameMember->value.GetString()
                                   : "";
      if (!q.name.empty() && name != q.name) continue;
      const std::string json = KOEmulatorJSON::serialize(view);
      if (!q.text.empty() && json.find(q.text) == std::string::npos) continue;
      if (written == limit) {
        nextRow = row;
        nextPosition = i + 1;
        break;
      }
      w.StartObject();
      w.Key("row");
      w.Int64(row);
      w.Key("position");
      w.Int64(i);
      w.Key("unique_id");
      w.String(s.text(1).c_str());
      w.Key("batch_id");
      w.String(s.text(2).c_str());
      w.Key("received");
      w.Double(s.real(3));
      w.Key("name");
      w.String(name.c_str());
      w.Key("event");
      w.RawValue(json.c_str(), json.size(), rapidjson::kObjectType);
      w.EndObject();
      ++written;
    }
    if (nextRow == 0 && written == limit) {
      // The page is full: the next one starts in this batch if it holds more, else in the next.
      nextRow = row;
      nextPosition = 0;
    }
  }
  w.EndArray();
  w.Key("next");
  if (nextRow != 0 && !(nextPosition == 0 && nextRow == 1)) {
    w.StartObject();
    w.Key("before_row");
    w.Int64(nextPosition == 0 ? nextRow - 1 : nextRow);
    w.Key("before_position");
    w.Int64(nextPosition == 0 ? -1 : nextPosition);
    w.EndObject();
  } else {
    w.Null();
  }
  w.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

std::string KOEmulatorStore::requestLogJSON(size_t limit) const {
  std::lock_guard lock(mutex_);
  Statement s(db_,
              "SELECT id, time, method, target, status, error, fault, duration_ms, length(body) FROM requests "
              "ORDER BY id DESC LIMIT ?");
  s.bind(1, static_cast<int64_t>(std::clamp<size_t>(limit, 1, 1000)));
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
  w.StartObject();
  w.Key("requests");
  w.StartArray();
  while (s.step()) {
    w.StartObject();
    w.Key("id");
    w.Int64(s.integer(0));
    w.Key("time");
    w.Double(s.real(1));
    w.Key("method");
    w.String(s.text(2).c_str());
    w.Key("target");
    w.String(s.text(3).c_str());
    w.Key("status");
    w.Int64(s.integer(4));
    w.Key("error");
    w.String(s.text(5).c_str());
    w.Key("fault");
    w.String(s.text(6).c_str());
    w.Key("duration_ms");
    w.Double(s.real(7));
    w.Key("body_bytes");
    w.Int64(s.integer(8));
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

int64_t KOEmulatorStore::changeStamp() const { return changes_.load(); }

void KOEmulatorStore::registerDevice(const KOEmulatorDevice &d) {
  std::lock_guard lock(mutex_);
  // A device registers again on every start; keep its first sighting and count the rest.
  Statement s(db_, R"sql(
      INSERT INTO devices (app_id, unique_id, device_unique_id, push_id, model, os_ver, app_ver, sdk_ver,
                           idfv, advertising_id, first_seen, last_seen, registrations)
      VALUES (?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?11,1)
      ON CONFLICT (app_id, unique_id) DO UPDATE SET
        device_unique_id=?3, push_id=?4, model=?5, os_ver=?6, app_ver=?7, sdk_ver=?8, idfv=?9,
        advertising_id=?10, last_seen=?11, registrations=registrations+1)sql");
  s.bind(1, d.appId).bind(2, d.uniqueId).bind(3, d.deviceUniqueId).bind(4, d.pushId).bind(5, d.model);
  s.bind(6, d.osVer).bind(7, d.appVer).bind(8, d.sdkVer).bind(9, d.idfv).bind(10, d.advertisingId);
  s.bind(11, d.lastSeen).run();
}

bool KOEmulatorStore::storeBatch(const KOEmulatorBatch &b, const std::string &eventsJSON) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_);
  {
    Statement existing(db_, "SELECT events_json FROM batches WHERE app_id=? AND unique_id=? AND batch_id=?");
    existing.bind(1, b.appId).bind(2, b.uniqueId).bind(3, b.batchId);
    if (existing.step()) {
      bool identical = existing.text(0) == eventsJSON;
      Statement dup(db_,
                    "INSERT INTO duplicates (app_id, unique_id, batch_id, views_count, received, identical) "
                    "VALUES (?,?,?,?,?,?)");
      dup.bind(1, b.appId).bind(2, b.uniqueId).bind(3, b.batchId).bind(4, b.viewsCount).bind(5, b.received);
      dup.bind(6, int64_t{identical ? 1 : 0}).run();
      tx.commit();
      return false;
    }
  }
  Statement ins(db_,
                "INSERT INTO batches (app_id, unique_id, batch_id, views_count, received, events_json) "
                "VALUES (?,?,?,?,?,?)");
  ins.bind(1, b.appId).bind(2, b.uniqueId).bind(3, b.batchId).bind(4, b.viewsCount).bind(5, b.received);
  ins.bind(6, eventsJSON).run();
  tx.commit();
  return true;
}

void KOEmulatorStore::storeCategories(const KOEmulatorCategories &c) {
  std::lock_guard lock(mutex_);
  Statement s(db_,
              "INSERT INTO categories (app_id, unique_id, device_unique_id, push_id, data, received) "
              "VALUES (?,?,?,?,?,?)");
  s.bind(1, c.appId).bind(2, c.uniqueId).bind(3, c.deviceUniqueId).bind(4, c.pushId).bind(5, c.dataJSON);
  s.bind(6, c.received).run();
}

void KOEmulatorStore::storeLog(const KOEmulatorLog &l) {
  std::lock_guard lock(mutex_);
  Statement s(db_,
              "INSERT INTO logs (token, appid, uid, lvl, tb, sdk_ver, msg, tm_s, received) "
              "VALUES (?,?,?,?,?,?,?,?,?)");
  s.bind(1, l.token).bind(2, l.appid).bind(3, l.uid).bind(4, l.lvl).bind(5, l.tb).bind(6, l.sdkVer);
  s.bind(7, l.msg).bind(8, l.tmS).bind(9, l.received).run();
}

void KOEmulatorStore::storeGeofenceHit(const KOEmulatorGeofenceHit &h) {
  std::lock_guard lock(mutex_);
  Statement s(db_,
              "INSERT INTO geofence_hits (app_id, unique_id, device_unique_id, geo_id, transition, lat, lng, received) "
              "VALUES (?,?,?,?,?,?,?,?)");
  s.bind(1, h.appId).bind(2, h.uniqueId).bind(3, h.deviceUniqueId).bind(4, h.geoId).bind(5, h.transitionType);
  s.bind(6, h.lat).bind(7, h.lng).bind(8, h.received).run();
}

std::optional<std::string> KOEmulatorStore::seedSection(const std::string &section) const {
  std::lock_guard lock(mutex_);
  Statement s(db_, "SELECT json FROM seeds WHERE section=?");
  s.bind(1, section);
  if (s.step()) return s.text(0);
  return std::nullopt;
}

void KOEmulatorStore::setSeedSection(const std::string &section, const std::string &json) {
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

void KOEmulatorStore::setCampaignStamps(const std::map<std::string, int64_t> &stamps) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_);
  exec("DELETE FROM campaign_stamps;");
  Statement s(db_, "INSERT INTO campaign_stamps (campaign, stamp) VALUES (?, ?)");
  for (const auto &[campaign, stamp] : stamps) {
    s.bind(1, campaign).bind(2, stamp).run();
    s.reset();
  }
  tx.commit();
}

void KOEmulatorStore::reset(bool seeds) {
  std::lock_guard lock(mutex_);
  ++changes_;
  Transaction tx(db_);
  exec(
      "DELETE FROM batches; DELETE FROM duplicates; DELETE FROM requests;"
      "DELETE FROM devices; DELETE FROM categories; DELETE FROM logs; DELETE FROM geofence_hits;");
  if (seeds) exec("DELETE FROM seeds; DELETE FROM campaign_stamps;");
  tx.commit();
}

std::vector<KOEmulatorRequest> KOEmulatorStore::requests(const std::string &pathFilter) const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorRequest> out;
  Statement s(db_, std::string("SELECT id, time, method, path, target, query, body, status, error, fault "
                               "FROM requests WHERE ") +
                       kPathFilter + " ORDER BY id");
  s.bind(1, pathFilter);
  while (s.step()) {
    KOEmulatorRequest r;
    r.id = s.integer(0);
    r.time = s.real(1);
    r.method = s.text(2);
    r.path = s.text(3);
    r.target = s.text(4);
    r.queryJSON = s.text(5);
    r.query = queryMap(r.queryJSON);
    r.body = s.text(6);
    r.status = static_cast<int>(s.integer(7));
    r.error = s.text(8);
    r.fault = s.text(9);
    out.push_back(std::move(r));
  }
  return out;
}

size_t KOEmulatorStore::countRequests(const std::string &pathFilter) const {
  std::lock_guard lock(mutex_);
  Statement s(db_, std::string("SELECT count(*) FROM requests WHERE ") + kPathFilter);
  s.bind(1, pathFilter);
  s.step();
  return static_cast<size_t>(s.integer(0));
}

std::vector<KOEmulatorDevice> KOEmulatorStore::devices() const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorDevice> out;
  Statement s(db_,
              "SELECT app_id, unique_id, device_unique_id, push_id, model, os_ver, app_ver, sdk_ver, idfv, "
              "advertising_id, first_seen, last_seen, registrations FROM devices ORDER BY first_seen, rowid");
  while (s.step()) {
    KOEmulatorDevice d;
    d.appId = s.text(0);
    d.uniqueId = s.text(1);
    d.deviceUniqueId = s.text(2);
    d.pushId = s.text(3);
    d.model = s.text(4);
    d.osVer = s.text(5);
    d.appVer = s.text(6);
    d.sdkVer = s.text(7);
    d.idfv = s.text(8);
    d.advertisingId = s.text(9);
    d.firstSeen = s.real(10);
    d.lastSeen = s.real(11);
    d.registrations = s.integer(12);
    out.push_back(std::move(d));
  }
  return out;
}

std::vector<KOEmulatorBatch> KOEmulatorStore::batches() const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorBatch> out;
  Statement s(db_, "SELECT app_id, unique_id, batch_id, views_count, received, views_count FROM batches ORDER BY id");
  while (s.step()) {
    KOEmulatorBatch b;
    b.appId = s.text(0);
    b.uniqueId = s.text(1);
    b.batchId = s.text(2);
    b.viewsCount = s.integer(3);
    b.received = s.real(4);
    b.eventCount = s.integer(5);
    out.push_back(std::move(b));
  }
  return out;
}

std::vector<KOEmulatorEvent> KOEmulatorStore::events() const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorEvent> out;
  Statement s(db_, "SELECT app_id, unique_id, batch_id, events_json FROM batches ORDER BY id");
  while (s.step()) {
    rapidjson::Document stored;
    std::string error;
    // Every stored report body was parsed and checked when it came in.
    if (!KOEmulatorJSON::parse(s.text(3), stored, error)) continue;
    const rapidjson::Value *found = &stored;
    if (stored.IsObject()) {
      const auto member = stored.FindMember("viewsInfo");
      if (member == stored.MemberEnd()) continue;
      found = &member->value;
    }
    const rapidjson::Value &views = *found;
    if (!views.IsArray()) continue;
    for (rapidjson::SizeType i = 0; i < views.Size(); ++i) {
      const auto &view = views[i];
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

std::vector<KOEmulatorDuplicate> KOEmulatorStore::duplicates() const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorDuplicate> out;
  Statement s(db_, "SELECT app_id, unique_id, batch_id, views_count, received, identical FROM duplicates ORDER BY id");
  while (s.step()) {
    KOEmulatorDuplicate d;
    d.appId = s.text(0);
    d.uniqueId = s.text(1);
    d.batchId = s.text(2);
    d.viewsCount = s.integer(3);
    d.received = s.real(4);
    d.identical = s.integer(5) != 0;
    out.push_back(std::move(d));
  }
  return out;
}

std::vector<KOEmulatorLog> KOEmulatorStore::logs() const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorLog> out;
  Statement s(db_, "SELECT token, appid, uid, lvl, tb, sdk_ver, msg, tm_s, received FROM logs ORDER BY id");
  while (s.step()) {
    KOEmulatorLog l;
    l.token = s.text(0);
    l.appid = s.text(1);
    l.uid = s.text(2);
    l.lvl = s.text(3);
    l.tb = s.text(4);
    l.sdkVer = s.text(5);
    l.msg = s.text(6);
    l.tmS = s.text(7);
    l.received = s.real(8);
    out.push_back(std::move(l));
  }
  return out;
}

std::vector<KOEmulatorCategories> KOEmulatorStore::categories() const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorCategories> out;
  Statement s(db_, "SELECT app_id, unique_id, device_unique_id, push_id, data, received FROM categories ORDER BY id");
  while (s.step()) {
    KOEmulatorCategories c;
    c.appId = s.text(0);
    c.uniqueId = s.text(1);
    c.deviceUniqueId = s.text(2);
    c.pushId = s.text(3);
    c.dataJSON = s.text(4);
    c.received = s.real(5);
    out.push_back(std::move(c));
  }
  return out;
}

std::vector<KOEmulatorGeofenceHit> KOEmulatorStore::geofenceHits() const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorGeofenceHit> out;
  Statement s(db_,
              "SELECT app_id, unique_id, device_unique_id, geo_id, transition, lat, lng, received FROM geofence_hits "
              "ORDER BY id");
  while (s.step()) {
    KOEmulatorGeofenceHit h;
    h.appId = s.text(0);
    h.uniqueId = s.text(1);
    h.deviceUniqueId = s.text(2);
    h.geoId = s.text(3);
    h.transitionType = s.text(4);
    h.lat = s.real(5);
    h.lng = s.real(6);
    h.received = s.real(7);
    out.push_back(std::move(h));
  }
  return out;
}

std::vector<KOEmulatorCampaignEvents> KOEmulatorStore::campaignEvents() const {
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
  for (const KOEmulatorEvent &event : events()) {
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
