#include "KOInAppV2/Models/KOModelDict.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "KOUtilities/KOValueHelpers.h"

namespace {

std::string_view skipBlanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\n' || s.front() == '\r')) {
    s.remove_prefix(1);
  }
  return s;
}

std::int64_t integerOfText(std::string_view s) {
  s = skipBlanks(s);
  bool negative = false;
  if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  // Accumulate toward the sign so that the most negative value fits; saturate past the range.
  std::int64_t out = 0;
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  for (const char c : s) {
    if (c < '0' || c > '9') break;
    const int digit = c - '0';
    if (negative) {
      if (out < (kMin + digit) / 10) return kMin;
      out = out * 10 - digit;
    } else {
      if (out > (kMax - digit) / 10) return kMax;
      out = out * 10 + digit;
    }
  }
  return out;
}

double doubleOfText(std::string_view s) {
  s = skipBlanks(s);
  bool negative = false;
  if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  // Only digits or a point may start a number: "inf" and "nan" are no numbers the service sends,
  // and a value that is not finite could never be written back to the store.
  if (s.empty() || !((s.front() >= '0' && s.front() <= '9') || s.front() == '.')) return 0;
  double out = 0;
  const auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), out, std::chars_format::general);
  (void)ptr;
  if (ec == std::errc::result_out_of_range) {
    // Too large saturates; too small to represent is 0.
    const auto exponent = s.find_first_of("eE");
    const bool tooLarge = exponent == std::string_view::npos || integerOfText(s.substr(exponent + 1)) > 0;
    out = tooLarge ? std::numeric_limits<double>::max() : 0;
  } else if (ec != std::errc() || !std::isfinite(out)) {
    out = 0;
  }
  return negative ? -out : out;
}

bool boolOfText(std::string_view s) {
  s = skipBlanks(s);
  if (s.empty()) return false;
  if (s.front() == 'Y' || s.front() == 'y' || s.front() == 'T' || s.front() == 't') return true;
  if (s.front() == '+' || s.front() == '-') s.remove_prefix(1);
  while (!s.empty() && s.front() == '0') s.remove_prefix(1);
  return !s.empty() && s.front() >= '1' && s.front() <= '9';
}

[[noreturn]] void wrongKind(const KOValue& value, const char* expected) {
  throw KOTypeError(std::string("expected ") + expected + ", found " + KOValue::kindName(value.kind()));
}

const std::string& emptyString() {
  static const std::string empty;
  return empty;
}

}  // namespace

void KOModelDict::initWithDictionary(const KOValue& /*dictionary*/) {}

std::int64_t KOModelDict::integerValue(const KOValue& value) {
  if (value.isAbsent()) return 0;
  if (value.isNumber()) return value.intValue();
  if (value.isString()) return integerOfText(value.stringValue());
  wrongKind(value, "number");
}

double KOModelDict::doubleValue(const KOValue& value) {
  if (value.isAbsent()) return 0;
  if (value.isNumber()) return value.doubleValue();
  if (value.isString()) return doubleOfText(value.stringValue());
  wrongKind(value, "number");
}

bool KOModelDict::boolValue(const KOValue& value) {
  if (value.isAbsent()) return false;
  if (value.isNumber()) return value.boolValue();
  if (value.isString()) return boolOfText(value.stringValue());
  wrongKind(value, "boolean");
}

const std::string& KOModelDict::stringValue(const KOValue& value) {
  if (value.isAbsent()) return emptyString();
  if (value.isString()) return value.stringValue();
  wrongKind(value, "string");
}

const KODictionary* KOModelDict::dictionaryValue(const KOValue& value) {
  if (value.isAbsent()) return nullptr;
  if (value.isDictionary()) return &value.dictionaryValue();
  wrongKind(value, "dictionary");
}

const KOArray* KOModelDict::arrayValue(const KOValue& value) {
  if (value.isAbsent()) return nullptr;
  if (value.isArray()) return &value.arrayValue();
  wrongKind(value, "array");
}

const KOValue& KOModelDict::valueForKeyPath(const KODictionary& dictionary, std::string_view keyPath) {
  const KOValue& found = validObjectForKeyPath(dictionary, keyPath);
  if (!found.isNil()) return found;
  // Absent: either a step is missing (fine) or a step is something a key cannot be looked up in.
  const KODictionary* current = &dictionary;
  for (auto dot = keyPath.find('.'); dot != std::string_view::npos; dot = keyPath.find('.')) {
    const KOValue& step = validObjectForKey(*current, keyPath.substr(0, dot));
    if (step.isNil()) break;
    if (!step.isDictionary()) {
      throw KOTypeError("key path \"" + std::string(keyPath) + "\" passes through " + KOValue::kindName(step.kind()));
    }
    current = &step.dictionaryValue();
    keyPath.remove_prefix(dot + 1);
  }
  return KOValue::nil();
}

std::int64_t KOModelDict::integerValueOrZero(const KOValue& value) noexcept {
  if (value.isNumber()) return value.intValue();
  if (value.isString()) return integerOfText(value.stringValue());
  return 0;
}

double KOModelDict::doubleValueOrZero(const KOValue& value) noexcept {
  if (value.isNumber()) return value.doubleValue();
  if (value.isString()) return doubleOfText(value.stringValue());
  return 0;
}
