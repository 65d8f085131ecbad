// Push: the categories a device registers and the inbox it fetches.

#include <optional>

#include "KOEmulatorServiceCalls.h"
#include "KOEmulatorStore.h"

namespace KOEmulatorCalls {

namespace {

// A message's creation time in milliseconds: its "c_cr_t", seconds since 1970 as a number or a
// numeric string (the way the device keeps opened pushes). Nothing when there is none to read.
std::optional<double> createdMilliseconds(const rapidjson::Value& message) {
  const auto it = message.FindMember("c_cr_t");
  if (it == message.MemberEnd()) return std::nullopt;
  if (it->value.IsNumber()) return it->value.GetDouble() * 1000.0;
  if (!it->value.IsString() || it->value.GetStringLength() == 0) return std::nullopt;
  const std::string text(it->value.GetString(), it->value.GetStringLength());
  char* end = nullptr;
  errno = 0;
  const double seconds = std::strtod(text.c_str(), &end);
  if (errno != 0 || end != text.c_str() + text.size()) return std::nullopt;
  return seconds * 1000.0;
}

}  // namespace

// The service's addressing key must be a token: the fetch compares it with the device's "push_id".
void checkInboxSeed(const rapidjson::Value& inbox) {
  const rapidjson::Value* list = inbox.IsArray() ? &inbox : nullptr;
  if (inbox.IsObject()) {
    const auto it = inbox.FindMember("messagesInfo");
    if (it != inbox.MemberEnd() && it->value.IsArray()) list = &it->value;
  }
  if (!list) return;
  for (const auto& message : list->GetArray()) {
    if (!message.IsObject()) continue;
    const auto target = message.FindMember("push_id");
    if (target != message.MemberEnd() && !target->value.IsString()) {
      throw std::invalid_argument("seed: an inbox message's \"push_id\" must be a string");
    }
  }
}

Reply categoriesAdd(const Env& env, const Call& call, const Query& q) {
  auto body = parseBody(call);
  const auto& data = member(body, "data", rapidjson::kArrayType, "an array");
  KOEmulatorCategories c;
  c.appId = q.get("app_id");
  c.uniqueId = q.get("unique_id");
  c.deviceUniqueId = q.get("device_unique_id");
  c.pushId = q.get("push_id");
  c.dataJSON = J::serialize(data);
  c.received = KOEmulatorStore::now();
  env.store.add(c);
  return ok();
}

// Like the service: the messages created after "last_updated" (milliseconds since 1970, "0" for
// all) for this device. A message with "push_id" goes only to the device with that push token and
// the key itself stays on the service; one without goes to every device. A message without a
// readable creation time is answered every time. Everything else goes out as seeded.
Reply inboxMessages(const Env& env, const Call&, const Query& q) {
  q.requireDigits("last_updated");
  errno = 0;
  const double since = std::strtod(q.get("last_updated").c_str(), nullptr);
  if (errno == ERANGE) throw Refusal("query parameter \"last_updated\" is out of range");
  const std::string token = q.get("push_id");

  const std::string seeded = section(env.store, "inbox");
  rapidjson::Document inbox;
  std::string error;
  if (!KOEmulatorJSON::parse(seeded, inbox, error) || !inbox.IsObject()) return ok(seeded);
  const auto list = inbox.FindMember("messagesInfo");
  if (list == inbox.MemberEnd() || !list->value.IsArray()) return ok(seeded);  // served as seeded, bad or not

  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  for (const auto& m : inbox.GetObject()) {
    m.name.Accept(w);
    if (&m.value != &list->value) {
      m.value.Accept(w);
      continue;
    }
    w.StartArray();
    for (const auto& message : m.value.GetArray()) {
      if (!message.IsObject()) {
        message.Accept(w);  // a test may feed the device records it must survive
        continue;
      }
      const auto target = message.FindMember("push_id");
      const bool addressed = target != message.MemberEnd();
      if (addressed && std::string_view(target->value.GetString(), target->value.GetStringLength()) != token) continue;
      const auto created = createdMilliseconds(message);
      if (created && *created <= since) continue;
      w.StartObject();
      for (const auto& field : message.GetObject()) {
        if (addressed && &field == &*target) continue;
        field.name.Accept(w);
        field.value.Accept(w);
      }
      w.EndObject();
    }
    w.EndArray();
  }
  w.EndObject();
  return ok({buffer.GetString(), buffer.GetSize()});
}

}  // namespace KOEmulatorCalls
