// The dashboard's page, style sheet and script: plain files under dashboard/, compiled in at
// build time (dashboard/embed.cmake), so the emulator serves them with nothing fetched from outside.
#pragma once

#include <span>
#include <string_view>

struct KOEmulatorAsset {
  std::string_view name;  // "index.html", "dashboard.js", ...
  std::string_view type;  // its Content-Type
  std::string_view text;
};

namespace KOEmulatorDashboardAssets {
std::span<const KOEmulatorAsset> all();
}
