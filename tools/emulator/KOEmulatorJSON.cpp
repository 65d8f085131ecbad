#include "KOEmulatorJSON.h"

#include <rapidjson/error/en.h>

bool KOEmulatorJSON::parse(std::string_view text, rapidjson::Document &doc, std::string &error) {
  doc.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
  if (!doc.HasParseError()) {
    error.clear();
    return true;
  }
  error = std::string("invalid JSON: ") + rapidjson::GetParseError_En(doc.GetParseError()) + " at offset " +
          std::to_string(doc.GetErrorOffset());
  return false;
}

std::string KOEmulatorJSON::serialize(const rapidjson::Value &value) {
  rapidjson::StringBuffer buffer;
  KOJSONWriter writer(buffer);
  value.Accept(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

std::string KOEmulatorJSON::errorBody(const std::string &message) {
  rapidjson::StringBuffer buffer;
  KOJSONWriter writer(buffer);
  writer.StartObject();
  writer.Key("error");
  writeString(writer, message);
  writer.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

const char *KOEmulatorJSON::typeName(const rapidjson::Value &value) {
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

void KOEmulatorJSON::writeString(KOJSONWriter &w, const std::string &s) {
  w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
}

void KOEmulatorJSON::writeRaw(KOJSONWriter &w, const std::string &json) {
  rapidjson::Document doc;
  std::string error;
  if (!json.empty() && parse(json, doc, error)) {
    doc.Accept(w);
  } else {
    writeString(w, json);
  }
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorRequest &r) {
  w.StartObject();
  w.Key("id");
  w.Int64(r.id);
  w.Key("time");
  w.Double(r.time);
  w.Key("method");
  writeString(w, r.method);
  w.Key("path");
  writeString(w, r.path);
  w.Key("target");
  writeString(w, r.target);
  w.Key("query");
  writeRaw(w, r.queryJSON);
  w.Key("body");
  writeString(w, r.body);
  w.Key("status");
  w.Int(r.status);
  w.Key("error");
  if (r.error.empty())
    w.Null();
  else
    writeString(w, r.error);
  w.Key("fault");
  if (r.fault.empty())
    w.Null();
  else
    writeString(w, r.fault);
  w.EndObject();
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorDevice &d) {
  w.StartObject();
  w.Key("app_id");
  writeString(w, d.appId);
  w.Key("unique_id");
  writeString(w, d.uniqueId);
  w.Key("device_unique_id");
  writeString(w, d.deviceUniqueId);
  w.Key("push_id");
  writeString(w, d.pushId);
  w.Key("model");
  writeString(w, d.model);
  w.Key("os_ver");
  writeString(w, d.osVer);
  w.Key("app_ver");
  writeString(w, d.appVer);
  w.Key("sdk_ver");
  writeString(w, d.sdkVer);
  w.Key("IDFV");
  writeString(w, d.idfv);
  w.Key("ADVERTISING_IDENTIFIER");
  writeString(w, d.advertisingId);
  w.Key("first_seen");
  w.Double(d.firstSeen);
  w.Key("last_seen");
  w.Double(d.lastSeen);
  w.Key("registrations");
  w.Int64(d.registrations);
  w.EndObject();
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorBatch &b) {
  w.StartObject();
  w.Key("app_id");
  writeString(w, b.appId);
  w.Key("unique_id");
  writeString(w, b.uniqueId);
  w.Key("batch_id");
  writeString(w, b.batchId);
  w.Key("views_count");
  w.Int64(b.viewsCount);
  w.Key("events");
  w.Int64(b.eventCount);
  w.Key("received");
  w.Double(b.received);
  w.EndObject();
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorEvent &e) {
  w.StartObject();
  w.Key("app_id");
  writeString(w, e.appId);
  w.Key("unique_id");
  writeString(w, e.uniqueId);
  w.Key("batch_id");
  writeString(w, e.batchId);
  w.Key("position");
  w.Int64(e.position);
  w.Key("name");
  writeString(w, e.name);
  w.Key("event");
  writeRaw(w, e.json);
  w.EndObject();
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorDuplicate &d) {
  w.StartObject();
  w.Key("app_id");
  writeString(w, d.appId);
  w.Key("unique_id");
  writeString(w, d.uniqueId);
  w.Key("batch_id");
  writeString(w, d.batchId);
  w.Key("views_count");
  w.Int64(d.viewsCount);
  w.Key("received");
  w.Double(d.received);
  w.Key("identical");
  w.Bool(d.identical);
  w.EndObject();
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorLog &l) {
  w.StartObject();
  w.Key("token");
  writeString(w, l.token);
  w.Key("appid");
  writeString(w, l.appid);
  w.Key("uid");
  writeString(w, l.uid);
  w.Key("lvl");
  writeString(w, l.lvl);
  w.Key("tb");
  writeString(w, l.tb);
  w.Key("sdk_ver");
  writeString(w, l.sdkVer);
  w.Key("msg");
  writeString(w, l.msg);
  w.Key("tm_s");
  writeString(w, l.tmS);
  w.Key("received");
  w.Double(l.received);
  w.EndObject();
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorCategories &c) {
  w.StartObject();
  w.Key("app_id");
  writeString(w, c.appId);
  w.Key("unique_id");
  writeString(w, c.uniqueId);
  w.Key("device_unique_id");
  writeString(w, c.deviceUniqueId);
  w.Key("push_id");
  writeString(w, c.pushId);
  w.Key("data");
  writeRaw(w, c.dataJSON);
  w.Key("received");
  w.Double(c.received);
  w.EndObject();
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorGeofenceHit &h) {
  w.StartObject();
  w.Key("app_id");
  writeString(w, h.appId);
  w.Key("unique_id");
  writeString(w, h.uniqueId);
  w.Key("device_unique_id");
  writeString(w, h.deviceUniqueId);
  w.Key("geoId");
  writeString(w, h.geoId);
  w.Key("transitionType");
  writeString(w, h.transitionType);
  w.Key("lat");
  w.Double(h.lat);
  w.Key("lng");
  w.Double(h.lng);
  w.Key("received");
  w.Double(h.received);
  w.EndObject();
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorCampaignEvents &c) {
  w.StartObject();
  w.Key("cid");
  writeString(w, c.campaignId);
  const std::pair<const char *, int64_t> counts[] = {
      {"push_received", c.pushReceived},   {"push_clicked", c.pushClicked},
      {"push_dismissed", c.pushDismissed}, {"inapp_shown", c.inAppShown},
      {"inapp_clicked", c.inAppClicked},   {"inapp_auto_dismissed", c.inAppAutoDismissed}};
  for (const auto &[key, count] : counts) {
    w.Key(key);
    w.Int64(count);
  }
  w.EndObject();
}

void KOEmulatorJSON::write(KOJSONWriter &w, const KOEmulatorFault &f) {
  w.StartObject();
  w.Key("path");
  writeString(w, f.path);
  w.Key("status");
  w.Int(f.status);
  w.Key("delay_ms");
  w.Int64(f.delayMs);
  w.Key("drop");
  w.Bool(f.drop);
  w.Key("count");
  w.Int64(f.count);
  w.Key("share");
  w.Double(f.share);
  w.EndObject();
}
