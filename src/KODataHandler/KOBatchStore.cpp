#include "KOBatchStore.h"

#include <algorithm>

#include "KOUtilities/KOAtomicFile.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "KOUtilities/KOStringFormat.h"
#include "kovantis/KOPlatform.h"

namespace {

constexpr const char* kPrologue =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

// The body of a whole XML document written by the property-list writer, without its prologue and
// <plist> element: the value alone, ready to stand inside a dictionary.
std::string valueFragment(const std::string& document) {
  const std::string open = "<plist version=\"1.0\">";
  const auto start = document.find(open);
  const auto end = document.rfind("</plist>");
  if (start == std::string::npos || end == std::string::npos || end < start) {
    throw KOTypeError("unexpected property-list writer output");
  }
  return document.substr(start + open.size(), end - start - open.size());
}

std::string bodyFor(const std::string& recordsArrayJSON, std::size_t count) {
  std::string body;
  body.reserve(recordsArrayJSON.size() + 40);
  body += "{\"viewsInfo\":";
  body += recordsArrayJSON;
  body += ",\"viewsCount\":";
  body += std::to_string(count);
  body += '}';
  return body;
}

}  // namespace

KOArray KOBatchStore::Batch::records() const {
  KOValue body = KOJSONSerialization::parse(body_);
  return std::move(body.dictionaryValue().find("viewsInfo")->arrayValue());
}

const std::string& KOBatchStore::Batch::fragment() const {
  std::call_once(fragmentOnce_, [this] { fragment_ = valueFragment(KOPropertyListSerialization::writeXML(KOValue(records()))); });
  return fragment_;
}

KOBatchStore::KOBatchStore(std::string path) : path_(std::move(path)) {}

void KOBatchStore::load(const KOFileSystem& fs) {
  if (loaded_) return;
  loaded_ = true;
  const KOValue stored = KOPropertyListFile::read(fs, path_);
  if (!stored.isDictionary()) return;
  for (const auto& [id, records] : stored.dictionaryValue()) {
    try {
      if (!records.isArray()) throw KOTypeError("a batch is not a list");
      put(id, records.arrayValue());
    } catch (const std::exception& e) {
      KOLogger::logLocated(KO_HERE, this, KOLogSeverityException,
                           KOStringFormat::format("Kovantis - Dropping unusable stored batch %@: %@",
                                                  {KOValue(id), KOValue(e.what())}));
    }
  }
}

std::string KOBatchStore::issueId(std::int64_t nowMilliseconds) {
  // Never an id issued before, even if that batch has left the store: the service takes a batch id
  // it has seen as a resend and would drop the new batch's events.
  if (!batches_.empty()) lastIssued_ = std::max<std::int64_t>(lastIssued_, std::stoll(batches_.rbegin()->first));
  lastIssued_ = nowMilliseconds > lastIssued_ ? nowMilliseconds : lastIssued_ + 1;
  return std::to_string(lastIssued_);
}

std::string KOBatchStore::add(const std::vector<std::string>& recordsJSON, std::int64_t nowMilliseconds) {
  std::size_t bytes = 2;
  for (const auto& r : recordsJSON) bytes += r.size() + 1;
  std::string array;
  array.reserve(bytes);
  array += '[';
  for (std::size_t i = 0; i < recordsJSON.size(); ++i) {
    if (i) array += ',';
    array += recordsJSON[i];
  }
  array += ']';
  std::string key = issueId(nowMilliseconds);
  batches_[key] = std::make_shared<const Batch>(bodyFor(array, recordsJSON.size()), recordsJSON.size());
  return key;
}

void KOBatchStore::put(const std::string& id, const KOArray& records) {
  batches_[id] = std::make_shared<const Batch>(bodyFor(KOJSONSerialization::write(KOValue(records)), records.size()),
                                               records.size());
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

std::string KOBatchStore::fileText(const Snapshot& snapshot) {
  std::size_t bytes = 256;
  for (const auto& [id, batch] : snapshot) bytes += batch->fragment().size() + id.size() + 12;
  std::string text;
  text.reserve(bytes);
  text += kPrologue;
  text += "<dict>\n";
  for (const auto& [id, batch] : snapshot) {
    text += "<key>";
    text += id;  // digits only: nothing to escape
    text += "</key>";
    text += batch->fragment();
  }
  text += "</dict>\n</plist>\n";
  return text;
}

bool KOBatchStore::write(KOFileSystem& fs, const std::string& path, const Snapshot& snapshot) {
  if (snapshot.empty()) {
    if (!fs.fileExists(path)) return true;
    return fs.removeItem(path);
  }
  return KOAtomicFile::write(fs, path, fileText(snapshot));
}
