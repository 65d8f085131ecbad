// Reports and devices: registration, event batches, the configuration and log uploads.

#include "KOEmulatorServiceCalls.h"
#include "KOEmulatorStore.h"

namespace KOEmulatorCalls {

Reply deviceAdd(const Env& env, const Call& call, const Query& q) {
  auto body = parseBody(call);
  KOEmulatorDevice d;
  d.appId = q.get("app_id");
  d.uniqueId = q.get("unique_id");
  d.deviceUniqueId = q.get("device_unique_id");
  d.pushId = q.get("push_id");
  d.model = q.get("model");
  d.osVer = q.get("os_ver");
  d.appVer = q.get("app_ver");
  d.sdkVer = q.get("sdk_ver");
  d.idfv = optionalString(body, "IDFV");
  d.advertisingId = optionalString(body, "ADVERTISING_IDENTIFIER");
  d.firstSeen = d.lastSeen = KOEmulatorStore::now();
  env.store.registerDevice(d);
  return ok();
}

Reply reportAdd(const Env& env, const Call& call, const Query& q) {
  q.requireDigits("batch_id");
  auto body = parseBody(call);
  const auto& views = member(body, "viewsInfo", rapidjson::kArrayType, "an array");
  const auto& count = member(body, "viewsCount", rapidjson::kNumberType, "an integer");
  if (!count.IsInt64()) throw Refusal("body \"viewsCount\" must be an integer");
  if (count.GetInt64() != static_cast<int64_t>(views.Size())) {
    throw Refusal("body \"viewsCount\" is " + std::to_string(count.GetInt64()) + " but \"viewsInfo\" holds " +
                  std::to_string(views.Size()) + " events");
  }
  for (rapidjson::SizeType i = 0; i < views.Size(); ++i) {
    const auto& e = views[i];
    if (!e.IsObject()) throw Refusal("event " + std::to_string(i) + " must be an object, got " + J::typeName(e));
  }
  KOEmulatorBatch batch;
  batch.appId = q.get("app_id");
  batch.uniqueId = q.get("unique_id");
  batch.batchId = q.get("batch_id");
  batch.viewsCount = count.GetInt64();
  batch.received = KOEmulatorStore::now();
  // A repeated batch is answered with success too: the device must stop resending it.
  // The body as it came: the events are read out of it only when someone inspects them.
  env.store.storeBatch(batch, call.body);
  return ok();
}

Reply getConfig(const Env& env, const Call&, const Query& q) {
  q.allowOnly({"app_id", "unique_id", "os"});
  q.requireNonEmpty("app_id");
  q.require("unique_id");
  if (q.require("os") != "iOS") throw Refusal("query parameter \"os\" must be \"iOS\"");
  return ok(section(env.store, "config"));
}

Reply logUpload(const Env& env, const Call& call, const Query& q) {
  std::string token = call.path.substr(kLogPrefix.size());
  if (token.empty() || token.find('/') != std::string::npos) throw Refusal("bad log token in path");
  q.allowOnly({});
  auto body = parseBody(call);
  auto text = [&](const char* key) { return member(body, key, rapidjson::kStringType, "a string").GetString(); };
  KOEmulatorLog log;
  log.token = token;
  log.appid = text("appid");
  log.uid = text("uid");
  log.lvl = text("lvl");
  log.tb = text("tb");
  log.sdkVer = text("sdk_ver");
  log.msg = text("msg");
  log.tmS = text("tm_s");
  log.received = KOEmulatorStore::now();
  env.store.add(log);
  return {204, {}, {}};
}

}  // namespace KOEmulatorCalls
