#include "KOValueHelpers.h"

#include <vector>

#include "KOLogger.h"
#include "KOStringFormat.h"

namespace {

const KOValue& nonNull(const KOValue& v) { return v.isNull() ? KOValue::nil() : v; }

}  // namespace

std::string keyText(const KOValue& key) {
  if (key.isString()) return key.stringValue();
  // Described, a key nested without end would recurse as deep.
  if (nestingDeeperThan(key, KOValue::kMaxNestingDepth)) throw KOTypeError("a key nested too deep to be written");
  return key.description();
}

const KOValue& validObjectForKey(const KODictionary& dict, std::string_view key) { return nonNull(dict[key]); }

const KOValue& validObjectForKey(const KOValue& dict, std::string_view key) {
  return dict.isDictionary() ? validObjectForKey(dict.dictionaryValue(), key) : KOValue::nil();
}

const KOValue& validObjectForKeyPath(const KODictionary& dict, std::string_view keyPath) {
  const KODictionary* current = &dict;
  for (;;) {
    const auto dot = keyPath.find('.');
    const KOValue& v = validObjectForKey(*current, keyPath.substr(0, dot));
    if (dot == std::string_view::npos) return v;
    if (!v.isDictionary()) return KOValue::nil();
    current = &v.dictionaryValue();
    keyPath.remove_prefix(dot + 1);
  }
}

const KOValue& validObjectForKeyPath(const KOValue& dict, std::string_view keyPath) {
  return dict.isDictionary() ? validObjectForKeyPath(dict.dictionaryValue(), keyPath) : KOValue::nil();
}

const KOValue& safeObjectForKey(const KODictionary& dict, std::string_view key) { return nonNull(dict[key]); }

void setObjectNilHandled(KODictionary& dict, const KOValue& object, const KOValue& forKey) {
  if (forKey.isNil()) {
    KOLogger::logPlain(KOStringFormat::format("Kovantis - Key can't be nil. Object is %@", {object}));
    return;
  }
  dict.set(keyText(forKey), object.isNil() ? KOValue(std::string()) : object);
}

void removeValidObjectForKey(KODictionary& dict, const KOValue& key) {
  if (key.isNil()) return;
  dict.remove(keyText(key));
}

namespace {

using NestingWalk = std::vector<std::pair<const KOValue*, int>>;

void pushNested(NestingWalk& pending, const KOValue& item, int depth) {
  if (item.isArray() || item.isDictionary()) pending.emplace_back(&item, depth);
}

bool walkDeeperThan(NestingWalk& pending, int limit) {
  while (!pending.empty()) {
    const auto [v, depth] = pending.back();
    pending.pop_back();
    if (depth >= limit) return true;
    if (v->isArray()) {
      for (const KOValue& item : v->arrayValue()) pushNested(pending, item, depth + 1);
    } else {
      for (const auto& entry : v->dictionaryValue()) pushNested(pending, entry.second, depth + 1);
    }
  }
  return false;
}

}  // namespace

bool nestingDeeperThan(const KOValue& value, int limit) {
  NestingWalk pending;
  pushNested(pending, value, 0);
  return walkDeeperThan(pending, limit);
}

bool nestingDeeperThan(const KODictionary& value, int limit) {
  if (limit <= 0) return true;
  NestingWalk pending;
  for (const auto& entry : value) pushNested(pending, entry.second, 1);
  return !pending.empty() && walkDeeperThan(pending, limit);
}

bool nestingDeeperThan(const KOArray& value, int limit) {
  if (limit <= 0) return true;
  NestingWalk pending;
  for (const KOValue& item : value) pushNested(pending, item, 1);
  return !pending.empty() && walkDeeperThan(pending, limit);
}
