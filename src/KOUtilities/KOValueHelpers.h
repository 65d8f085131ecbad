// Null-aware dictionary lookups and stores that every parser of server and campaign JSON relies
// on: JSON null counts as absent, and a missing value is stored as "".
#pragma once

#include <string_view>

#include "kovantis/KOValue.h"

/// The value for the key; nil when missing or JSON null.
const KOValue& validObjectForKey(const KODictionary& dict, std::string_view key);
/// Same on any value: nil unless it is a dictionary holding a non-null value for the key.
const KOValue& validObjectForKey(const KOValue& dict, std::string_view key);

/// The value for a dotted key path ("a.b.c"); nil when any step is missing, JSON null or no dictionary.
const KOValue& validObjectForKeyPath(const KODictionary& dict, std::string_view keyPath);
const KOValue& validObjectForKeyPath(const KOValue& dict, std::string_view keyPath);

/// The value for the key; nil when it is JSON null.
const KOValue& safeObjectForKey(const KODictionary& dict, std::string_view key);

/// Whether containers nest deeper than `limit` levels inside the value; walks it without recursion.
bool nestingDeeperThan(const KOValue& value, int limit);
bool nestingDeeperThan(const KODictionary& value, int limit);
bool nestingDeeperThan(const KOArray& value, int limit);

/// A key as dictionary text: a string as it is, anything else as its description.
std::string keyText(const KOValue& key);

/// Stores the object under the key, "" when the object is nil. A nil key stores nothing and logs
/// "Kovantis - Key can't be nil. Object is %@".
void setObjectNilHandled(KODictionary& dict, const KOValue& object, const KOValue& forKey);

/// Removes the key only when the key is non-nil and a value is present.
void removeValidObjectForKey(KODictionary& dict, const KOValue& key);
