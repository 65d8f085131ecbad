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

KOBatchStore::KOBatchStore(std::string path, const KOEventJournal* journal)
    : path_(std::move(path)), journal_(journal) {}

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

std::string KOBatchStore::addJournaled(std::vector<KOEventJournal::Ref> records, std::int64_t nowMilliseconds) {
  std::string id = issueId(nowMilliseconds);
  Batch& batch = batches_[id];
  batch.count = records.size();
  batch.records = std::move(records);
  batch.array = false;
  batch.inJournal = true;
  return id;
}

std::string KOBatchStore::add(const std::vector<std::string>& recordsJSON, std::int64_t nowMilliseconds) {
  std::string array = "[";
  for (std::size_t i = 0; i < recordsJSON.size(); ++i) {
    if (i) array += ',';
    array += recordsJSON[i];
  }
  array += ']';
  std::string id = issueId(nowMilliseconds);
  putRecordsJSON(id, std::move(array), recordsJSON.size());
  return id;
}

void KOBatchStore::putRecordsJSON(const std::string& id, std::string recordsJSON, std::size_t count) {
  Batch batch;
  batch.count = count;
  batch.heapJSON = std::move(recordsJSON);
  batches_[id] = std::move(batch);
}

void KOBatchStore::putInJournal(const std::string& id, std::size_t count, std::vector<KOEventJournal::Ref> records,
                                bool array) {
  Batch batch;
  batch.count = count;
  batch.records = std::move(records);
  batch.array = array;
  batch.inJournal = true;
  batches_[id] = std::move(batch);
}

void KOBatchStore::moveToJournal(const std::string& id, KOEventJournal::Ref array) {
  const auto it = batches_.find(id);
  if (it == batches_.end()) return;
  Batch& batch = it->second;
  batch.records = {array};
  batch.array = true;
  batch.inJournal = true;
  std::string().swap(batch.heapJSON);
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
  std::string array;
  KOJSONSerialization::writeTo(KOValue(records), array);
  putRecordsJSON(id, std::move(array), records.size());
}

bool KOBatchStore::remove(const std::string& id) { return batches_.erase(id) > 0; }

void KOBatchStore::clear() { batches_.clear(); }

std::vector<std::string> KOBatchStore::ids() const {
  std::vector<std::string> out;
  out.reserve(batches_.size());
  for (const auto& [id, batch] : batches_) out.push_back(id);
  return out;
}

const KOBatchStore::Batch* KOBatchStore::find(const std::string& id) const {
  const auto it = batches_.find(id);
  return it == batches_.end() ? nullptr : &it->second;
}

std::size_t KOBatchStore::recordsBytes(const Batch& batch) const {
  if (!batch.inJournal) return batch.heapJSON.size();
  std::size_t bytes = batch.array ? 0 : batch.records.size() + 1;  // brackets and commas
  for (const auto& ref : batch.records) bytes += ref.length;
  return bytes;
}

void KOBatchStore::recordsPieces(const Batch& batch, std::vector<std::string_view>& out) const {
  if (!batch.inJournal) {
    out.push_back(batch.heapJSON);
  } else if (batch.array) {
    for (const auto& ref : batch.records) out.push_back(text(ref));
  } else {
    out.push_back("[");
    for (std::size_t i = 0; i < batch.records.size(); ++i) {
      if (i) out.push_back(",");
      out.push_back(text(batch.records[i]));
    }
    out.push_back("]");
  }
}

void KOBatchStore::appendRecordsJSON(const Batch& batch, std::string& out) const {
  out.reserve(out.size() + recordsBytes(batch));
  if (!batch.inJournal) {
    out += batch.heapJSON;
  } else if (batch.array) {
    for (const auto& ref : batch.records) out += text(ref);
  } else {
    out += '[';
    for (std::size_t i = 0; i < batch.records.size(); ++i) {
      if (i) out += ',';
      out += text(batch.records[i]);
    }
    out += ']';
  }
}

std::string KOBatchStore::recordsJSON(const std::string& id) const {
  std::string out;
  if (const Batch* batch = find(id)) appendRecordsJSON(*batch, out);
  return out;
}

std::optional<std::string> KOBatchStore::reportBody(const std::string& id) const {
  const Batch* batch = find(id);
  if (!batch) return std::nullopt;
  std::string body;
  body.reserve(kBodyOpen.size() + recordsBytes(*batch) + kBodyCount.size() + 24);
  body += kBodyOpen;
  appendRecordsJSON(*batch, body);
  closeBody(body, batch->count);
  return body;
}

KOArray KOBatchStore::records(const std::string& id) const {
  KOValue parsed = KOJSONSerialization::parse(recordsJSON(id));
  return parsed.isArray() ? std::move(parsed.arrayValue()) : KOArray{};
}

KODictionary KOBatchStore::dictionary() const {
  KODictionary out;
  for (const auto& [id, batch] : batches_) out.set(id, KOValue(records(id)));
  return out;
}

namespace {

constexpr std::size_t kFilePiece = 256 * 1024;

void logUnstorable(const std::string& id, const std::exception& e) {
  // One batch the property-list writer refuses (a string holding a NUL byte, say) must not keep
  // every other batch off the disk; it is still sent from memory.
  KOLogger::logLocated(
      KO_HERE, nullptr, KOLogSeverityException,
      KOStringFormat::format("Kovantis - Batch %@ cannot be stored: %@", {KOValue(id), KOValue(e.what())}));
}

// The batch file as it is written: pieces handed to the writer, and where each batch lands.
class FileWriter {
 public:
  FileWriter(KOFileSystem* fs, const std::string& path, const KOFileSystem::KOPieceWriter& sink)
      : fs_(fs), path_(path), sink_(sink) {
    chunk_.reserve(kFilePiece + 4096);
  }

  std::uint64_t position() const { return handed_ + chunk_.size() + (runEnd_ - runBegin_); }
  std::string& chunk() { return chunk_; }

  /// Copies a batch's XML from the previous file: runs of neighbours are read together.
  bool copy(const std::string& id, std::uint64_t begin, std::uint64_t end) {
    if (begin != runEnd_ || runBegin_ == runEnd_) {
      if (!copyRun()) return false;
      runBegin_ = begin;
    }
    runEnd_ = end;
    run_.push_back({id, begin});
    return true;
  }

  /// Hands on a full piece.
  bool maybeFlush() { return chunk_.size() < kFilePiece || flush(); }

  bool copyRun() {
    std::uint64_t at = runBegin_;
    std::size_t next = 0;  // the first batch of the run not yet checked
    while (at < runEnd_) {
      const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(runEnd_ - at, kFilePiece));
      const std::optional<std::string> bytes = fs_ ? fs_->readFileRange(path_, at, length) : std::nullopt;
      if (!bytes || bytes->size() != length) return false;
      // Each batch starts with its key: one that does not says the file is not what was written.
      for (; next < run_.size() && run_[next].second < at + length; ++next) {
        const std::string key = "<key>" + run_[next].first + "</key>";
        const std::size_t offset = static_cast<std::size_t>(run_[next].second - at);
        if (offset + key.size() <= length && bytes->compare(offset, key.size(), key) != 0) return false;
      }
      chunk_ += *bytes;
      at += length;
      if (!maybeFlush()) return false;
    }
    runBegin_ = runEnd_ = 0;
    run_.clear();
    return true;
  }

  bool flush() {
    if (chunk_.empty()) return true;
    handed_ += chunk_.size();
    const bool taken = sink_(chunk_);
    chunk_.clear();
    return taken;
  }

 private:
  KOFileSystem* fs_;  // what the previous file is read through (none: nothing is copied)
  const std::string& path_;
  const KOFileSystem::KOPieceWriter& sink_;
  std::string chunk_;
  std::uint64_t handed_ = 0;
  std::uint64_t runBegin_ = 0, runEnd_ = 0;
  std::vector<std::pair<std::string, std::uint64_t>> run_;
};

}  // namespace

namespace {

// The file's text for `ids`, handed to `sink` a piece at a time: each batch in `previous` copied from
// the file at `path`, any other made from its JSON. `index` receives where each batch lands; false
// when the sink stopped or a copy failed (`copied` false then).
bool produceFileText(KOFileSystem* fs, const std::string& path, const std::vector<std::string>& ids,
                     const KOBatchStore::FileIndex& previous, const KOBatchStore::RecordsSource& source,
                     const KOFileSystem::KOPieceWriter& sink, KOBatchStore::FileIndex& index, bool& copied) {
  FileWriter file(fs, path, sink);
  file.chunk() += KOPropertyListSerialization::kXMLPrologue;
  file.chunk() += "<dict>\n";
  for (const std::string& id : ids) {
    if (const auto it = previous.find(id); it != previous.end()) {
      const std::uint64_t at = file.position();
      index[id] = {at, at + (it->second.second - it->second.first)};
      if (!file.copy(id, it->second.first, it->second.second)) return copied = false;
      continue;
    }
    if (!file.copyRun()) return copied = false;
    const std::optional<std::string> json = source(id);
    if (!json) continue;  // gone meanwhile
    try {
      const std::string fragment = KOPropertyListSerialization::xmlFragmentFromJSON(*json);
      const std::uint64_t at = file.position();
      std::string& chunk = file.chunk();
      chunk += "<key>";
      chunk += id;  // digits only: nothing to escape
      chunk += "</key>";
      chunk += fragment;
      index[id] = {at, file.position()};
    } catch (const std::exception& e) {
      logUnstorable(id, e);
    }
    if (!file.maybeFlush()) return false;
  }
  if (!file.copyRun()) return copied = false;
  file.chunk() += "</dict>\n</plist>\n";
  return file.flush();
}

}  // namespace

bool KOBatchStore::write(KOFileSystem& fs, const std::string& path, const std::vector<std::string>& ids,
                         const FileIndex& previous, const RecordsSource& source, FileIndex* written) {
  if (ids.empty()) {
    if (written) written->clear();
    return !fs.fileExists(path) || fs.removeItem(path);
  }
  FileIndex index;
  bool copied = true;
  const bool ok = KOAtomicFile::writeInPieces(fs, path, [&](const KOFileSystem::KOPieceWriter& sink) {
    return produceFileText(&fs, path, ids, previous, source, sink, index, copied);
  });
  if (!copied) {
    // What the file held could not be read back as written: the next write makes every batch
    // from its records instead.
    KOLogger::logLocated(KO_HERE, nullptr, KOLogSeverityException,
                         "Kovantis - The batch file is not as it was written; it is written again from memory");
    if (written) written->clear();
    return false;
  }
  if (ok && written) *written = std::move(index);
  return ok;
}

bool KOBatchStore::write(KOFileSystem& fs, const std::string& filePath) const {
  return write(
      fs, filePath, ids(), {}, [this](const std::string& id) { return std::optional(recordsJSON(id)); }, nullptr);
}

std::string KOBatchStore::fileText() const {
  std::string text;
  FileIndex index;
  bool copied = true;
  produceFileText(
      nullptr, path_, ids(), {}, [this](const std::string& id) { return std::optional(recordsJSON(id)); },
      [&](std::string_view piece) {
        text += piece;
        return true;
      },
      index, copied);
  return text;
}
