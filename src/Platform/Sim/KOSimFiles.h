// The simulated device's own file helpers. The device sits beside the SDK, not on top of it: it
// writes through its file-system primitives and the property-list serialiser only, never through
// the SDK's atomic writer or logger (those log through the platform this device installs).
#pragma once

#include <string>
#include <string_view>

#include "kovantis/KOPlatform.h"

namespace KOSimFiles {

/// Whole and atomically: a temporary file beside the target, then a rename over it.
bool writeWhole(KOFileSystem& fs, const std::string& path, std::string_view bytes, unsigned mode = 0644);
/// The file's property list; nil when it is missing or unreadable.
KOValue readPropertyList(const KOFileSystem& fs, const std::string& path);
/// The value as an XML property list, written whole; false when it cannot be serialised or written.
bool writePropertyList(KOFileSystem& fs, const std::string& path, const KOValue& value, unsigned mode = 0644);

}  // namespace KOSimFiles
