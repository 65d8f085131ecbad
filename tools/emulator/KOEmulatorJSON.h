#pragma once

// JSON plumbing shared by the emulator's parts; RapidJSON stays behind this header.

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>
#include <string_view>
#include <vector>

#include "kovantis/emulator/KOEmulatorRecords.h"

using KOJSONWriter = rapidjson::Writer<rapidjson::StringBuffer>;

class KOEmulatorJSON {
 public:
  // Strict parse: one value, valid UTF-8, nothing after it. On failure `error` says why.
  static bool parse(std::string_view text, rapidjson::Document &doc, std::string &error);
  static std::string serialize(const rapidjson::Value &value);
  static std::string errorBody(const std::string &message);  // {"error": message}
  static const char *typeName(const rapidjson::Value &value);
  static void writeString(KOJSONWriter &w, const std::string &s);
  // Writes stored JSON text as a value; text that does not parse is written as a string, so an
  // answer stays valid JSON whatever the store holds.
  static void writeRaw(KOJSONWriter &w, const std::string &json);

  // The records as the control API shows them.
  static void write(KOJSONWriter &w, const KOEmulatorRequest &r);
  static void write(KOJSONWriter &w, const KOEmulatorDevice &d);
  static void write(KOJSONWriter &w, const KOEmulatorBatch &b);
  static void write(KOJSONWriter &w, const KOEmulatorEvent &e);
  static void write(KOJSONWriter &w, const KOEmulatorDuplicate &d);
  static void write(KOJSONWriter &w, const KOEmulatorLog &l);
  static void write(KOJSONWriter &w, const KOEmulatorCategories &c);
  static void write(KOJSONWriter &w, const KOEmulatorGeofenceHit &h);
  static void write(KOJSONWriter &w, const KOEmulatorCampaignEvents &c);
  static void write(KOJSONWriter &w, const KOEmulatorFault &f);
  template <class Record>
  static std::string toJSON(const std::vector<Record> &records) {
    rapidjson::StringBuffer buffer;
    KOJSONWriter w(buffer);
    w.StartArray();
    for (const auto &r : records) write(w, r);
    w.EndArray();
    return {buffer.GetString(), buffer.GetSize()};
  }
};
