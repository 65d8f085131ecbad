// The one way the SDK writes a file: whole, to a temporary file in the same directory, flushed,
// then renamed over the old one. A failure at any step leaves the old file as it was.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

class KOFileSystem;

class KOAtomicFile {
 public:
  /// Writes through the given file system; logs and returns false on failure.
  static bool write(KOFileSystem& fs, const std::string& path, std::string_view bytes, unsigned mode = 0644);
  /// The same for a file written in pieces (see KOFileSystem::writeFileInPieces).
  static bool writeInPieces(KOFileSystem& fs, const std::string& path,
                            const std::function<bool(const std::function<bool(std::string_view)>&)>& produce,
                            unsigned mode = 0644);
  /// Writes through the installed platform's file system.
  static bool write(const std::string& path, std::string_view bytes);
  /// The whole file, or nothing when it is missing or unreadable.
  static std::optional<std::string> read(const KOFileSystem& fs, const std::string& path);
};
