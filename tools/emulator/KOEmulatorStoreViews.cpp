// The store's views for the dashboard: pages of the timeline and of the request log, written
// straight from their rows.

#include <algorithm>

#include "KOEmulatorJSON.h"
#include "KOEmulatorStatement.h"
#include "KOEmulatorStore.h"

using KOEmulatorSQL::Statement;

std::string KOEmulatorStore::timelineJSON(const TimelineQuery& q) const {
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
      const auto& view = views->value[static_cast<rapidjson::SizeType>(i)];
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
