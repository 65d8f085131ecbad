#include "KOPropertyListFile.h"

#include <cerrno>

#include "KOAtomicFile.h"
#include "KOLogger.h"
#include "KOPropertyListSerialization.h"
#include "KOStringFormat.h"
#include "kovantis/KOPlatform.h"

KOValue KOPropertyListFile::read(const KOFileSystem& fs, const std::string& path) {
  KOFileError error;
  std::optional<std::string> bytes = fs.readFile(path, &error);
  if (!bytes) {
    if (error.code != ENOENT) {  // missing reads as nothing; anything else is worth a line
      KOLogger::logLocated(
          KO_HERE, nullptr, KOLogSeverityException,
          KOStringFormat::format("Kovantis - Unreadable file %@: %@", {KOValue(path), KOValue(error.message)}));
    }
    return KOValue();
  }
  try {
    return KOPropertyListSerialization::parse(*bytes);
  } catch (const std::exception& e) {
    KOLogger::logLocated(
        KO_HERE, nullptr, KOLogSeverityException,
        KOStringFormat::format("Kovantis - Unreadable file %@: %@", {KOValue(path), KOValue(e.what())}));
    return KOValue();
  }
}

KOValue KOPropertyListFile::read(const std::string& path) { return read(*KOPlatform::current().fileSystem, path); }

bool KOPropertyListFile::write(KOFileSystem& fs, const std::string& path, const KOValue& value, unsigned mode) {
  std::string xml;
  try {
    xml = KOPropertyListSerialization::writeXML(value);
  } catch (const std::exception& e) {
    KOLogger::logLocated(
        KO_HERE, nullptr, KOLogSeverityException,
        KOStringFormat::format("Kovantis - Failed to serialise %@: %@", {KOValue(path), KOValue(e.what())}));
    return false;
  }
  return KOAtomicFile::write(fs, path, xml, mode);
}

bool KOPropertyListFile::write(const std::string& path, const KOValue& value) {
  return write(*KOPlatform::current().fileSystem, path, value);
}

std::string KOPropertyListFile::documentsPath(const std::string& name) {
  return KOPlatform::current().fileSystem->documentsDirectory() + "/" + name;
}
