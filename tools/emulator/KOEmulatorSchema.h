#pragma once

// The seed schema (schemas/seed.schema.json, compiled in and installed with the package), checked
// with RapidJSON's schema validator. RapidJSON says where a seed breaks the schema and which
// keyword; this says it the way a person reads the seed: the path of the value, the value and the
// rule, e.g. inapps.campaign_info[0].widgets[2].action[0].tag: "m_foo" is not one of "m_nav", ...

#include <rapidjson/document.h>

#include <optional>
#include <string>
#include <string_view>

class KOEmulatorSchema {
 public:
  // Nothing when the seed follows the schema; else one line, "path: why".
  static std::optional<std::string> check(const rapidjson::Value& seed);
  // The schema's text (generated from schemas/seed.schema.json).
  static std::string_view text();
};
