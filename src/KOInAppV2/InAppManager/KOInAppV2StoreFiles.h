// What the in-app store's sources share: the sandbox's file system, its log lines, and how a name
// from the service is shown and read. Internal to the store.
#pragma once

#include <string>
#include <string_view>

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOPlatform.h"

namespace KOInAppV2StoreFiles {

inline constexpr std::size_t kMaxNameBytes = 255;

inline KOFileSystem& fileSystem() { return *KOPlatform::current().fileSystem; }
inline std::string documents() { return fileSystem().documentsDirectory(); }

inline void logLine(const KOSourceLocation& where, const void* object, const std::string& format,
                    const KOValue& argument) {
  KOLogger::logLocated(where, object, KOLogSeverityException, KOStringFormat::format(format, {argument}));
}

/// A name from the service as a log line may show it: at most 64 bytes, control bytes escaped.
inline std::string printable(std::string_view name) {
  std::string out;
  for (const char c : name.substr(0, 64)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      static constexpr char kHex[] = "0123456789abcdef";
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    } else {
      out += c;
    }
  }
  if (name.size() > 64) out += "...";
  return "\"" + out + "\"";
}

/// The campaign id a smart-trigger entry names, or nothing.
inline const std::string* campaignIdOfEventEntry(const KOValue& entry) {
  for (const char* key : {CAMPAIGN_ID, "campaign_id"}) {
    const KOValue& cid = validObjectForKey(entry, key);
    if (cid.isString()) return &cid.stringValue();
  }
  return nullptr;
}

}  // namespace KOInAppV2StoreFiles
