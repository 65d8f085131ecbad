#include "KOEmulatorJSON.h"

#include <rapidjson/error/en.h>

bool KOEmulatorJSON::parse(std::string_view text, rapidjson::Document& doc, std::string& error) {
  doc.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
  if (!doc.HasParseError()) {
    error.clear();
    return true;
  }
  error = std::string("invalid JSON: ") + rapidjson::GetParseError_En(doc.GetParseError()) + " at offset " +
          std::to_string(doc.GetErrorOffset());
  return false;
}

std::string KOEmulatorJSON::serialize(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  KOJSONWriter writer(buffer);
  value.Accept(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

std::string KOEmulatorJSON::errorBody(const std::string& message) {
  rapidjson::StringBuffer buffer;
  KOJSONWriter writer(buffer);
  writer.StartObject();
  writer.Key("error");
  writeString(writer, message);
  writer.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

const char* KOEmulatorJSON::typeName(const rapidjson::Value& value) {
  switch (value.GetType()) {
    case rapidjson::kNullType:
      return "null";
    case rapidjson::kFalseType:
    case rapidjson::kTrueType:
      return "boolean";
    case rapidjson::kObjectType:
      return "object";
    case rapidjson::kArrayType:
      return "array";
    case rapidjson::kStringType:
      return "string";
    case rapidjson::kNumberType:
      return "number";
  }
  return "unknown";
}

void KOEmulatorJSON::writeString(KOJSONWriter& w, const std::string& s) {
  w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
}

void KOEmulatorJSON::writeRaw(KOJSONWriter& w, const std::string& json) {
  rapidjson::Document doc;
  std::string error;
  if (!json.empty() && parse(json, doc, error)) {
    doc.Accept(w);
  } else {
    writeString(w, json);
  }
}

void KOEmulatorJSON::writeValue(KOJSONWriter& w, const std::string& value, KOJSONShape shape) {
  if (shape == KOJSONShape::Raw) {
    writeRaw(w, value);
  } else if (shape == KOJSONShape::NullWhenEmpty && value.empty()) {
    w.Null();
  } else {
    writeString(w, value);
  }
}
