// The control API under /__emulator/: seeds, faults, reset, the inspections and the dashboard's views.

#include "KOEmulatorFaults.h"
#include "KOEmulatorServiceCalls.h"
#include "KOEmulatorStore.h"

namespace KOEmulatorCalls {

namespace {

Reply done() { return {200, R"({"ok":true})", {}}; }

// A query number the dashboard sent, or `otherwise` when absent; refused when not an integer.
int64_t number(const Query& q, const std::string& key, int64_t otherwise) {
  if (!q.has(key)) return otherwise;
  q.requireDigits(key, true);
  try {
    return std::stoll(q.get(key));
  } catch (const std::out_of_range&) {
    throw Refusal("query parameter \"" + key + "\" is out of range");
  }
}

}  // namespace

Reply health(const Env&, const Call& call, const Query&) {
  return {200, "{\"ok\":true,\"port\":" + std::to_string(call.port) + "}", {}};
}

// An empty body changes nothing. "?unchecked=true" takes sections the schema would refuse, for a
// test that hands the SDK an answer the service would never give.
Reply seed(const Env& env, const Call& call, const Query& q) {
  const std::string unchecked = q.get("unchecked");
  if (!unchecked.empty() && unchecked != "true" && unchecked != "false") {
    throw Refusal("query parameter \"unchecked\" must be true or false");
  }
  applySeed(env.store, call.body.empty() ? "{}" : call.body,
            unchecked == "true" ? SeedCheck::ShapeOnly : SeedCheck::Schema);
  return done();
}

Reply reset(const Env& env, const Call& call, const Query&) {
  bool seeds = false;
  if (!call.body.empty()) {
    rapidjson::Document doc;
    std::string error;
    if (!J::parse(call.body, doc, error)) throw Refusal(error);
    if (!doc.IsObject()) throw Refusal("reset body must be a JSON object");
    auto it = doc.FindMember("seeds");
    if (it != doc.MemberEnd()) {
      if (!it->value.IsBool()) throw Refusal("reset \"seeds\" must be a boolean");
      seeds = it->value.GetBool();
    }
  }
  env.store.reset(seeds);
  return done();
}

Reply addFault(const Env& env, const Call& call, const Query&) {
  env.faults.add(KOEmulatorFaults::fromJSON(call.body.empty() ? "{}" : call.body));
  return done();
}

Reply clearFaults(const Env& env, const Call&, const Query& q) {
  env.faults.clear(q.get("path"));
  return done();
}

// The inspections, also reached in-process through KOEmulator::inspectJSON.
Reply requests(const Env& env, const Call&, const Query& q) { return ok(J::toJSON(env.store.requests(q.get("path")))); }
Reply devices(const Env& env, const Call&, const Query&) { return ok(J::toJSON(env.store.all<KOEmulatorDevice>())); }
Reply batches(const Env& env, const Call&, const Query&) { return ok(J::toJSON(env.store.all<KOEmulatorBatch>())); }
Reply events(const Env& env, const Call&, const Query&) { return ok(J::toJSON(env.store.all<KOEmulatorEvent>())); }
Reply duplicates(const Env& env, const Call&, const Query&) {
  return ok(J::toJSON(env.store.all<KOEmulatorDuplicate>()));
}
Reply logs(const Env& env, const Call&, const Query&) { return ok(J::toJSON(env.store.all<KOEmulatorLog>())); }
Reply categories(const Env& env, const Call&, const Query&) {
  return ok(J::toJSON(env.store.all<KOEmulatorCategories>()));
}
Reply geofenceHits(const Env& env, const Call&, const Query&) {
  return ok(J::toJSON(env.store.all<KOEmulatorGeofenceHit>()));
}
Reply campaignEvents(const Env& env, const Call&, const Query&) {
  return ok(J::toJSON(env.store.all<KOEmulatorCampaignEvents>()));
}
Reply seeds(const Env& env, const Call&, const Query&) { return ok(seedsOf(env.store)); }

// The dashboard's views: paged, so that a store of a hundred thousand events answers at once.
Reply timeline(const Env& env, const Call&, const Query& q) {
  KOEmulatorStore::TimelineQuery query;
  query.device = q.get("device");
  query.name = q.get("name");
  query.text = q.get("q");
  query.beforeRow = std::max<int64_t>(0, number(q, "before_row", 0));
  query.beforePosition = number(q, "before_position", -1);
  query.limit = static_cast<size_t>(std::clamp<int64_t>(number(q, "limit", 50), 1, 500));
  return ok(env.store.timelineJSON(query));
}
Reply requestLog(const Env& env, const Call&, const Query& q) {
  return ok(env.store.requestLogJSON(static_cast<size_t>(std::clamp<int64_t>(number(q, "limit", 200), 1, 1000))));
}
Reply changes(const Env& env, const Call&, const Query&) {
  return ok("{\"stamp\":" + std::to_string(env.store.changeStamp()) + "}");
}
Reply faults(const Env& env, const Call&, const Query&) { return ok(J::toJSON(env.faults.list())); }

}  // namespace KOEmulatorCalls
