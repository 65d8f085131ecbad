#include "KOAtomicFile.h"

#include <atomic>

#include "KOLogger.h"
#include "KOStringFormat.h"
#include "kovantis/KOPlatform.h"

namespace {

std::string parentDirectory(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos || slash == 0 ? std::string() : path.substr(0, slash);
}

void logFailure(const std::string& path, const char* step, const KOFileError& error) {
  KOLogger::logLocated(
      KO_HERE, nullptr, KOLogSeverityException,
      KOStringFormat::format("Kovantis - Failed to %@ %@: %@ (%d)",
                             {KOValue(step), KOValue(path), KOValue(error.message), KOValue(error.code)}));
}

}  // namespace

namespace {

// Writes a unique temporary beside the file (concurrent writers of one file never share one), then
// renames it over the file.
template <typename WriteTemporary>
bool writeThroughTemporary(KOFileSystem& fs, const std::string& path, WriteTemporary&& writeTemporary) {
  static std::atomic<std::uint64_t> counter{0};
  KOFileError error;
  const std::string dir = parentDirectory(path);
  if (!dir.empty() && !fs.fileExists(dir) && !fs.createDirectories(dir, &error)) {
    logFailure(dir, "create directory", error);
    return false;
  }
  const std::string temporary = path + ".tmp-" + std::to_string(counter.fetch_add(1));
  if (!writeTemporary(temporary, error)) {
    logFailure(path, "write", error);
    fs.removeItem(temporary);
    return false;
  }
  if (!fs.renameFile(temporary, path, &error)) {
    logFailure(path, "replace", error);
    fs.removeItem(temporary);
    return false;
  }
  return true;
}

}  // namespace

bool KOAtomicFile::write(KOFileSystem& fs, const std::string& path, std::string_view bytes, unsigned mode) {
  return writeThroughTemporary(fs, path, [&](const std::string& temporary, KOFileError& error) {
    return fs.writeFile(temporary, bytes, &error, mode);
  });
}

bool KOAtomicFile::writeInPieces(KOFileSystem& fs, const std::string& path,
                                 const std::function<bool(const std::function<bool(std::string_view)>&)>& produce,
                                 unsigned mode) {
  return writeThroughTemporary(fs, path, [&](const std::string& temporary, KOFileError& error) {
    return fs.writeFileInPieces(temporary, produce, &error, mode);
  });
}

bool KOAtomicFile::write(const std::string& path, std::string_view bytes) {
  return write(*KOPlatform::current().fileSystem, path, bytes);
}

std::optional<std::string> KOAtomicFile::read(const KOFileSystem& fs, const std::string& path) {
  return fs.readFile(path);
}
