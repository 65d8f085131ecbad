// Persisted property-list files: read whole (a missing or unreadable file reads as nothing) and
// written whole in XML form through the atomic writer.
#pragma once

#include <string>

#include "kovantis/KOValue.h"

class KOFileSystem;

class KOPropertyListFile {
 public:
  /// The file's value; nil when it is missing, and nil with a log line when it is unreadable.
  static KOValue read(const KOFileSystem& fs, const std::string& path);
  static KOValue read(const std::string& path);
  /// Writes the value atomically; logs and returns false when it cannot be serialised or written.
  static bool write(KOFileSystem& fs, const std::string& path, const KOValue& value, unsigned mode = 0644);
  static bool write(const std::string& path, const KOValue& value);
  /// "<documents>/<name>" on the installed platform.
  static std::string documentsPath(const std::string& name);
};
