#include "KOBatchStore.h"

#include <algorithm>
#include <cerrno>

#include "KOUtilities/KOAtomicFile.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "KOUtilities/KOStringFormat.h"
#include "kovantis/KOPlatform.h"

namespace {

// A report body is {"viewsInfo":<records>,"viewsCount":n}: the records are written between these
// two parts, straight into the body.
constexpr std::string_view kBodyOpen = "{\"viewsInfo\":";
constexpr std::string_view kBodyCount = ",\"viewsCount\":";

void closeBody(std::string& body, std::size_t count) {
  body += kBodyCount;
  body += std::to_string(count);
  body += '}';
}

}  // namespace

KOArray KOBatchStore::Batch::records() const {
  KOValue body = KOJSONSerialization::parse(body_);
  return std::move(body.dictionaryValue().find("viewsInfo")->arrayValue());
}

std::string KOBatchStore::Batch::fragment() const {
  return KOPropertyListSerialization::xmlFragmentFromJSON(recordsText(body_));
}

KOBatchStore::KOBatchStore(std::string path) : path_(std::move(path)) {}

// A batch id is the decimal milliseconds of its cut: digits only, and small enough for 64 bits.
bool KOBatchStore::usableId(const std::string& id) {
  if (id.empty() || id.size() > 18) return false;
  return std::all_of(id.begin(), id.end(), [](char c) { return c >= '0' && c <= '9'; });
}

namespace {

std::optional<std::string> readTried(KOFileSystem& fs, const std::string& path, KOFileError* error) {
  // One read error may pass (a busy device): the file is given up only when it persists.
  for (int attempt = 0; attempt < 3; ++attempt) {
    std::optional<std::string> bytes = fs.readFile(path, error);
    if (bytes || error->code == ENOENT) return bytes;
  }
  return std::nullopt;
}

std::string fileName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string directoryOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

}  // namespace

std::vector<std::string> KOBatchStore::merge(const KOValue& stored, bool replace) {
  std::vector<std::string> added;
  for (const auto& [id, records] : stored.dictionaryValue()) {
    try {
      if (!usableId(id)) throw KOTypeError("the batch id is not a time in milliseconds");
      if (!records.isArray()) throw KOTypeError("a batch is not a list");
      if (!replace && batches_.count(id)) continue;
      put(id, records.arrayValue());
      added.push_back(id);
    } catch (const std::exception& e) {
      KOLogger::logLocated(
          KO_HERE, this, KOLogSeverityException,
          KOStringFormat::format("Kovantis - Dropping unusable stored batch %@: %@", {KOValue(id), KOValue(e.what())}));
    }
  }
  return added;
}

void KOBatchStore::load(KOFileSystem& fs, std::set<std::string>* inFile) {
  if (loaded_) return;
  loaded_ = true;
  // Temporaries of this file that a crash left before their rename: nothing else writes them
  // before the store is loaded.
  const std::string directory = directoryOf(path_);
  const std::string temporaryPrefix = fileName(path_) + ".tmp-";
  for (const std::string& name : fs.listDirectory(directory)) {
    if (name.rfind(temporaryPrefix, 0) == 0) fs.removeItem(directory + "/" + name);
  }
  // What an earlier start set aside is read again: its batches are delivered under their ids.
  const std::string asidePrefix = fileName(path_) + ".unreadable";
  for (const std::string& name : fs.listDirectory(directory)) {
    if (name.rfind(asidePrefix, 0) != 0) continue;
    KOFileError error;
    const std::optional<std::string> bytes = readTried(fs, directory + "/" + name, &error);
    try {
      const KOValue stored = bytes ? KOPropertyListSerialization::parse(*bytes) : KOValue();
      if (stored.isDictionary()) {
        merge(stored, true);
        mergedAside_.push_back(directory + "/" + name);
      }
    } catch (const std::exception&) {
      // Still unreadable: it stays where it is, for a person to look at.
    }
  }
  KOFileError error;
  const std::optional<std::string> bytes = readTried(fs, path_, &error);
  if (!bytes) {
    if (error.code != ENOENT) setAside(fs, error.message);
    return;
  }
  KOValue stored;
  try {
    stored = KOPropertyListSerialization::parse(*bytes);
  } catch (const std::exception& e) {
    setAside(fs, e.what());
    return;
  }
  if (!stored.isDictionary()) {
    setAside(fs, "not a dictionary of batches");
    return;
  }
  for (const std::string& id : merge(stored, true)) {
    if (inFile) inFile->insert(id);
  }
}

void KOBatchStore::removeMergedAside(KOFileSystem& fs) {
  for (const std::string& path : mergedAside_) fs.removeItem(path);
  mergedAside_.clear();
}

void KOBatchStore::setAside(KOFileSystem& fs, const std::string& why) {
  // The next write would replace a file that could not be read with what is in memory: move it out
  // of the way instead (next to any set aside before), so that whatever it holds is not destroyed.
  std::string aside = path_ + ".unreadable";
  for (int n = 1; fs.fileExists(aside) && n < 1000; ++n) aside = path_ + ".unreadable-" + std::to_string(n);
  const bool moved = fs.renameFile(path_, aside);
  KOLogger::logLocated(KO_HERE, this, KOLogSeverityException,
                       KOStringFormat::format("Kovantis - The batch file could not be read (%@); %@",
                                              {KOValue(why), KOValue(moved ? "kept it as " + aside : "left it")}));
}

std::string KOBatchStore::issueId(std::int64_t nowMilliseconds) {
  // Never an id issued before, even if that batch has left the store: the service takes a batch id
  // it has seen as a resend and would drop the new batch's events.
  if (!batches_.empty()) lastIssued_ = std::max<std::int64_t>(lastIssued_, std::stoll(batches_.rbegin()->first));
  lastIssued_ = nowMilliseconds > lastIssued_ ? nowMilliseconds : lastIssued_ + 1;
  return std::to_string(lastIssued_);
}

std::string KOBatchStore::add(const std::vector<std::string>& recordsJSON, std::int64_t nowMilliseconds) {
  std::size_t bytes = kBodyOpen.size() + kBodyCount.size() + 24;
  for (const auto& r : recordsJSON) bytes += r.size() + 1;
  std::string body;
  body.reserve(bytes);
  body += kBodyOpen;
  body += '[';
  for (std::size_t i = 0; i < recordsJSON.size(); ++i) {
    if (i) body += ',';
    body += recordsJSON[i];
  }
  body += ']';
  closeBody(body, recordsJSON.size());
  std::string key = issueId(nowMilliseconds);
  batches_[key] = std::make_shared<const Batch>(std::move(body), recordsJSON.size());
  return key;
}

void KOBatchStore::putRecordsJSON(const std::string& id, std::string_view recordsJSON, std::size_t count) {
  std::string body(kBodyOpen);
  body += recordsJSON;
  closeBody(body, count);
  batches_[id] = std::make_shared<const Batch>(std::move(body), count);
}

void KOBatchStore::reserveId(const std::string& id) {
  if (usableId(id)) lastIssued_ = std::max<std::int64_t>(lastIssued_, std::stoll(id));
}

std::string KOBatchStore::lastIssuedId() const {
  std::int64_t last = lastIssued_;
  if (!batches_.empty()) last = std::max<std::int64_t>(last, std::stoll(batches_.rbegin()->first));
  return std::to_string(last);
}

void KOBatchStore::put(const std::string& id, const KOArray& records) {
  std::string body(kBodyOpen);
  KOJSONSerialization::writeTo(KOValue(records), body);
  closeBody(body, records.size());
  batches_[id] = std::make_shared<const Batch>(std::move(body), records.size());
}

bool KOBatchStore::remove(const std::string& id) { return batches_.erase(id) > 0; }

void KOBatchStore::clear() { batches_.clear(); }

std::vector<std::string> KOBatchStore::ids() const {
  std::vector<std::string> out;
  out.reserve(batches_.size());
  for (const auto& [id, batch] : batches_) out.push_back(id);
  return out;
}

std::shared_ptr<const KOBatchStore::Batch> KOBatchStore::find(const std::string& id) const {
  const auto it = batches_.find(id);
  return it == batches_.end() ? nullptr : it->second;
}

KOBatchStore::Snapshot KOBatchStore::snapshot() const { return Snapshot(batches_.begin(), batches_.end()); }

KODictionary KOBatchStore::dictionary() const {
  KODictionary out;
  for (const auto& [id, batch] : batches_) out.set(id, KOValue(batch->records()));
  return out;
}

bool KOBatchStore::writeFileText(const Snapshot& snapshot, std::size_t chunkBytes,
                                 const std::function<bool(std::string_view)>& sink) {
  std::string chunk;
  chunk.reserve(chunkBytes + 4096);
  chunk += KOPropertyListSerialization::kXMLPrologue;
  chunk += "<dict>\n";
  for (const auto& [id, batch] : snapshot) {
    try {
      std::string fragment = batch->fragment();
      chunk += "<key>";
      chunk += id;  // digits only: nothing to escape
      chunk += "</key>";
      chunk += fragment;
    } catch (const std::exception& e) {
      // One batch the property-list writer refuses (a string holding a NUL byte, say) must not
      // keep every other batch off the disk; it is still sent from memory.
      KOLogger::logLocated(
          KO_HERE, nullptr, KOLogSeverityException,
          KOStringFormat::format("Kovantis - Batch %@ cannot be stored: %@", {KOValue(id), KOValue(e.what())}));
    }
    if (chunk.size() >= chunkBytes) {
      if (!sink(chunk)) return false;
      chunk.clear();
    }
  }
  chunk += "</dict>\n</plist>\n";
  return sink(chunk);
}

std::string KOBatchStore::fileText(const Snapshot& snapshot) {
  std::string text;
  writeFileText(snapshot, SIZE_MAX / 2, [&](std::string_view piece) {
    text += piece;
    return true;
  });
  return text;
}

std::string_view KOBatchStore::recordsText(const std::string& reportBody) {
  const auto end = reportBody.rfind(kBodyCount);
  if (reportBody.rfind(kBodyOpen, 0) != 0 || end == std::string::npos || end < kBodyOpen.size()) return reportBody;
  return std::string_view(reportBody).substr(kBodyOpen.size(), end - kBodyOpen.size());
}

bool KOBatchStore::write(KOFileSystem& fs, const std::string& path, const Snapshot& snapshot) {
  if (snapshot.empty()) {
    if (!fs.fileExists(path)) return true;
    return fs.removeItem(path);
  }
  // Written a piece at a time: a file of a million held events is never whole in memory.
  return KOAtomicFile::writeInPieces(fs, path, [&](const std::function<bool(std::string_view)>& write) {
    return writeFileText(snapshot, 256 * 1024, write);
  });
}
