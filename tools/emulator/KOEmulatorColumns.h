#pragma once

// Every record the emulator keeps or shows, described once: its columns, each with the SQL column
// it is stored in, the member of the record it fills and the key the control API shows it under.
// The store makes its CREATE, INSERT and SELECT statements and reads its rows from these tables,
// and KOEmulatorJSON writes the records from them, so a column is added in one place only.

#include <cstdint>
#include <string>
#include <variant>

#include "kovantis/emulator/KOEmulatorRecords.h"

// How a column's value is written in the control API's answers.
enum class KOJSONShape {
  Value,          // as its type says
  Raw,            // stored JSON text, written as the JSON it holds
  NullWhenEmpty,  // a string, null when empty
};

template <class Record>
struct KOEmulatorColumn {
  // std::monostate: a column of the table that fills no member (a row id, a stored body).
  using Member = std::variant<std::monostate, std::string Record::*, int64_t Record::*, double Record::*, int Record::*,
                              bool Record::*>;
  const char* sql;   // column name, or what a SELECT reads in its place; nullptr: never stored
  const char* type;  // its declaration in CREATE TABLE; nullptr: read from another column
  Member member;
  const char* key;  // the key in the control API's answers; nullptr: not shown
  KOJSONShape shape = KOJSONShape::Value;
};

// What a table of records adds to its columns. `table` is nullptr for records made from other
// records when read (events, campaign counts) or kept outside the store (faults).
struct KOEmulatorTable {
  const char* table;
  const char* constraints;  // after the columns in CREATE TABLE; "" for none
  const char* order;        // ORDER BY of a read
};

namespace KOEmulatorSQL {
inline constexpr const char* kRowId = "INTEGER PRIMARY KEY";  // assigned by SQLite on insert
inline constexpr const char* kText = "TEXT NOT NULL";
inline constexpr const char* kInteger = "INTEGER NOT NULL";
inline constexpr const char* kReal = "REAL NOT NULL";
}  // namespace KOEmulatorSQL

// Specialised below for every record kind: its `table` and its `columns`, in the order the
// control API writes them.
template <class Record>
struct KOEmulatorRecordKind;

template <>
struct KOEmulatorRecordKind<KOEmulatorRequest> {
  using R = KOEmulatorRequest;
  static constexpr KOEmulatorTable table{"requests", "", "id"};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {"id", KOEmulatorSQL::kRowId, &R::id, "id"},
      {"time", KOEmulatorSQL::kReal, &R::time, "time"},
      {"method", KOEmulatorSQL::kText, &R::method, "method"},
      {"path", KOEmulatorSQL::kText, &R::path, "path"},
      {"target", KOEmulatorSQL::kText, &R::target, "target"},
      {"query", KOEmulatorSQL::kText, &R::queryJSON, "query", KOJSONShape::Raw},
      {"body", KOEmulatorSQL::kText, &R::body, "body"},
      {"status", KOEmulatorSQL::kInteger, &R::status, "status"},
      {"error", KOEmulatorSQL::kText, &R::error, "error", KOJSONShape::NullWhenEmpty},
      {"fault", KOEmulatorSQL::kText, &R::fault, "fault", KOJSONShape::NullWhenEmpty},
      // Shown by the dashboard's request log, not by the inspection.
      {"duration_ms", "REAL NOT NULL DEFAULT 0", &R::durationMs, nullptr},
  };
};

template <>
struct KOEmulatorRecordKind<KOEmulatorDevice> {
  using R = KOEmulatorDevice;
  static constexpr KOEmulatorTable table{"devices", "PRIMARY KEY (app_id, unique_id)", "first_seen, rowid"};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {"app_id", KOEmulatorSQL::kText, &R::appId, "app_id"},
      {"unique_id", KOEmulatorSQL::kText, &R::uniqueId, "unique_id"},
      {"device_unique_id", KOEmulatorSQL::kText, &R::deviceUniqueId, "device_unique_id"},
      {"push_id", KOEmulatorSQL::kText, &R::pushId, "push_id"},
      {"model", KOEmulatorSQL::kText, &R::model, "model"},
      {"os_ver", KOEmulatorSQL::kText, &R::osVer, "os_ver"},
      {"app_ver", KOEmulatorSQL::kText, &R::appVer, "app_ver"},
      {"sdk_ver", KOEmulatorSQL::kText, &R::sdkVer, "sdk_ver"},
      {"idfv", KOEmulatorSQL::kText, &R::idfv, "IDFV"},
      {"advertising_id", KOEmulatorSQL::kText, &R::advertisingId, "ADVERTISING_IDENTIFIER"},
      {"first_seen", KOEmulatorSQL::kReal, &R::firstSeen, "first_seen"},
      {"last_seen", KOEmulatorSQL::kReal, &R::lastSeen, "last_seen"},
      {"registrations", KOEmulatorSQL::kInteger, &R::registrations, "registrations"},
  };
};

// A batch's events stay in the report body it came in ("events_json"), read only when inspected.
template <>
struct KOEmulatorRecordKind<KOEmulatorBatch> {
  using R = KOEmulatorBatch;
  static constexpr KOEmulatorTable table{"batches", "UNIQUE (app_id, unique_id, batch_id)", "id"};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {"id", KOEmulatorSQL::kRowId, {}, nullptr},
      {"app_id", KOEmulatorSQL::kText, &R::appId, "app_id"},
      {"unique_id", KOEmulatorSQL::kText, &R::uniqueId, "unique_id"},
      {"batch_id", KOEmulatorSQL::kText, &R::batchId, "batch_id"},
      {"views_count", KOEmulatorSQL::kInteger, &R::viewsCount, "views_count"},
      // The body was refused unless its count matched its events.
      {"views_count", nullptr, &R::eventCount, "events"},
      {"received", KOEmulatorSQL::kReal, &R::received, "received"},
      {"events_json", KOEmulatorSQL::kText, {}, nullptr},
  };
};

template <>
struct KOEmulatorRecordKind<KOEmulatorEvent> {
  using R = KOEmulatorEvent;
  static constexpr KOEmulatorTable table{nullptr, "", ""};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {nullptr, nullptr, &R::appId, "app_id"},     {nullptr, nullptr, &R::uniqueId, "unique_id"},
      {nullptr, nullptr, &R::batchId, "batch_id"}, {nullptr, nullptr, &R::position, "position"},
      {nullptr, nullptr, &R::name, "name"},        {nullptr, nullptr, &R::json, "event", KOJSONShape::Raw},
  };
};

template <>
struct KOEmulatorRecordKind<KOEmulatorDuplicate> {
  using R = KOEmulatorDuplicate;
  static constexpr KOEmulatorTable table{"duplicates", "", "id"};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {"id", KOEmulatorSQL::kRowId, {}, nullptr},
      {"app_id", KOEmulatorSQL::kText, &R::appId, "app_id"},
      {"unique_id", KOEmulatorSQL::kText, &R::uniqueId, "unique_id"},
      {"batch_id", KOEmulatorSQL::kText, &R::batchId, "batch_id"},
      {"views_count", KOEmulatorSQL::kInteger, &R::viewsCount, "views_count"},
      {"received", KOEmulatorSQL::kReal, &R::received, "received"},
      {"identical", KOEmulatorSQL::kInteger, &R::identical, "identical"},
  };
};

template <>
struct KOEmulatorRecordKind<KOEmulatorLog> {
  using R = KOEmulatorLog;
  static constexpr KOEmulatorTable table{"logs", "", "id"};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {"id", KOEmulatorSQL::kRowId, {}, nullptr},
      {"token", KOEmulatorSQL::kText, &R::token, "token"},
      {"appid", KOEmulatorSQL::kText, &R::appid, "appid"},
      {"uid", KOEmulatorSQL::kText, &R::uid, "uid"},
      {"lvl", KOEmulatorSQL::kText, &R::lvl, "lvl"},
      {"tb", KOEmulatorSQL::kText, &R::tb, "tb"},
      {"sdk_ver", KOEmulatorSQL::kText, &R::sdkVer, "sdk_ver"},
      {"msg", KOEmulatorSQL::kText, &R::msg, "msg"},
      {"tm_s", KOEmulatorSQL::kText, &R::tmS, "tm_s"},
      {"received", KOEmulatorSQL::kReal, &R::received, "received"},
  };
};

template <>
struct KOEmulatorRecordKind<KOEmulatorCategories> {
  using R = KOEmulatorCategories;
  static constexpr KOEmulatorTable table{"categories", "", "id"};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {"id", KOEmulatorSQL::kRowId, {}, nullptr},
      {"app_id", KOEmulatorSQL::kText, &R::appId, "app_id"},
      {"unique_id", KOEmulatorSQL::kText, &R::uniqueId, "unique_id"},
      {"device_unique_id", KOEmulatorSQL::kText, &R::deviceUniqueId, "device_unique_id"},
      {"push_id", KOEmulatorSQL::kText, &R::pushId, "push_id"},
      {"data", KOEmulatorSQL::kText, &R::dataJSON, "data", KOJSONShape::Raw},
      {"received", KOEmulatorSQL::kReal, &R::received, "received"},
  };
};

template <>
struct KOEmulatorRecordKind<KOEmulatorGeofenceHit> {
  using R = KOEmulatorGeofenceHit;
  static constexpr KOEmulatorTable table{"geofence_hits", "", "id"};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {"id", KOEmulatorSQL::kRowId, {}, nullptr},
      {"app_id", KOEmulatorSQL::kText, &R::appId, "app_id"},
      {"unique_id", KOEmulatorSQL::kText, &R::uniqueId, "unique_id"},
      {"device_unique_id", KOEmulatorSQL::kText, &R::deviceUniqueId, "device_unique_id"},
      {"geo_id", KOEmulatorSQL::kText, &R::geoId, "geoId"},
      {"transition", KOEmulatorSQL::kText, &R::transitionType, "transitionType"},
      {"lat", KOEmulatorSQL::kReal, &R::lat, "lat"},
      {"lng", KOEmulatorSQL::kReal, &R::lng, "lng"},
      {"received", KOEmulatorSQL::kReal, &R::received, "received"},
  };
};

template <>
struct KOEmulatorRecordKind<KOEmulatorCampaignEvents> {
  using R = KOEmulatorCampaignEvents;
  static constexpr KOEmulatorTable table{nullptr, "", ""};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {nullptr, nullptr, &R::campaignId, "cid"},
      {nullptr, nullptr, &R::pushReceived, "push_received"},
      {nullptr, nullptr, &R::pushClicked, "push_clicked"},
      {nullptr, nullptr, &R::pushDismissed, "push_dismissed"},
      {nullptr, nullptr, &R::inAppShown, "inapp_shown"},
      {nullptr, nullptr, &R::inAppClicked, "inapp_clicked"},
      {nullptr, nullptr, &R::inAppAutoDismissed, "inapp_auto_dismissed"},
  };
};

template <>
struct KOEmulatorRecordKind<KOEmulatorFault> {
  using R = KOEmulatorFault;
  static constexpr KOEmulatorTable table{nullptr, "", ""};
  static constexpr KOEmulatorColumn<R> columns[] = {
      {nullptr, nullptr, &R::path, "path"},
      {nullptr, nullptr, &R::status, "status"},
      {nullptr, nullptr, &R::delayMs, "delay_ms"},
      {nullptr, nullptr, &R::drop, "drop"},
      {nullptr, nullptr, &R::count, "count"},
      {nullptr, nullptr, &R::share, "share"},
      {nullptr, nullptr, &R::bodyContains, "body_contains"},
  };
};
