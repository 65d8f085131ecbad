#include "KOSimFiles.h"

#include <atomic>
#include <cerrno>

#include "KOUtilities/KOPropertyListSerialization.h"

namespace KOSimFiles {

bool writeWhole(KOFileSystem& fs, const std::string& path, std::string_view bytes, unsigned mode) {
  static std::atomic<std::uint64_t> counter{0};
  const auto slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0) {
    const std::string dir = path.substr(0, slash);
    if (!fs.fileExists(dir) && !fs.createDirectories(dir)) return false;
  }
  const std::string temporary = path + ".tmp-sim-" + std::to_string(counter.fetch_add(1));
  if (fs.writeFile(temporary, bytes, nullptr, mode) && fs.renameFile(temporary, path)) return true;
  fs.removeItem(temporary);
  return false;
}

KOValue readPropertyList(const KOFileSystem& fs, const std::string& path) {
  std::optional<std::string> bytes;
  KOFileError error;
  for (int attempt = 0; attempt < 3 && !bytes; ++attempt) {  // a read error may pass
    bytes = fs.readFile(path, &error);
    if (!bytes && error.code == ENOENT) break;
  }
  if (!bytes) return KOValue();
  try {
    return KOPropertyListSerialization::parse(*bytes);
  } catch (const std::exception&) {
    return KOValue();  // an unreadable store starts empty, as the platform's would
  }
}

bool writePropertyList(KOFileSystem& fs, const std::string& path, const KOValue& value, unsigned mode) {
  try {
    return writeWhole(fs, path, KOPropertyListSerialization::writeXML(value), mode);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace KOSimFiles
