#pragma once

// JSON plumbing shared by the emulator's parts; RapidJSON stays behind this header.

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "KOEmulatorColumns.h"

using KOJSONWriter = rapidjson::Writer<rapidjson::StringBuffer>;

class KOEmulatorJSON {
 public:
  // Strict parse: one value, valid UTF-8, nothing after it. On failure `error` says why.
  static bool parse(std::string_view text, rapidjson::Document& doc, std::string& error);
  static std::string serialize(const rapidjson::Value& value);
  static std::string errorBody(const std::string& message);  // {"error": message}
  static const char* typeName(const rapidjson::Value& value);
  static void writeString(KOJSONWriter& w, const std::string& s);
  // Writes stored JSON text as a value; text that does not parse is written as a string, so an
  // answer stays valid JSON whatever the store holds.
  static void writeRaw(KOJSONWriter& w, const std::string& json);
  static void writeValue(KOJSONWriter& w, const std::string& value, KOJSONShape shape);
  static void writeValue(KOJSONWriter& w, int64_t value, KOJSONShape) { w.Int64(value); }
  static void writeValue(KOJSONWriter& w, int value, KOJSONShape) { w.Int(value); }
  static void writeValue(KOJSONWriter& w, double value, KOJSONShape) { w.Double(value); }
  static void writeValue(KOJSONWriter& w, bool value, KOJSONShape) { w.Bool(value); }

  // A record as the control API shows it: the keyed columns of its kind, in order.
  template <class Record>
  static void write(KOJSONWriter& w, const Record& record) {
    w.StartObject();
    for (const auto& column : KOEmulatorRecordKind<Record>::columns) {
      if (!column.key) continue;
      w.Key(column.key);
      std::visit(
          [&](auto member) {
            if constexpr (!std::is_same_v<decltype(member), std::monostate>)
              writeValue(w, record.*member, column.shape);
          },
          column.member);
    }
    w.EndObject();
  }
  template <class Record>
  static std::string toJSON(const std::vector<Record>& records) {
    rapidjson::StringBuffer buffer;
    KOJSONWriter w(buffer);
    w.StartArray();
    for (const auto& r : records) write(w, r);
    w.EndArray();
    return {buffer.GetString(), buffer.GetSize()};
  }
};
