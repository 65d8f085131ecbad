#include "KOBatchStore.h"

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

}  // namespace

KOBatchStore::KOBatchStore(std::string path) : path_(std::move(path)) {}

KOBatchStore::Batch KOBatchStore::makeBatch(const KOArray& records) {
  Batch batch;
  batch.count = records.size();
  batch.json = KOJSONSerialization::write(KOValue(records));
  batch.xml = valueFragment(KOPropertyListSerialization::writeXML(KOValue(records)));
  return batch;
}

void KOBatchStore::load(const KOFileSystem& fs) {
  if (loaded_) return;
  loaded_ = true;
  const KOValue stored = KOPropertyListFile::read(fs, path_);
  if (!stored.isDictionary()) return;
  for (const auto& [id, records] : stored.dictionaryValue()) {
    try {
      if (!records.isArray()) throw KOTypeError("a batch is not a list");
      batches_[id] = makeBatch(records.arrayValue());
    } catch (const std::exception& e) {
      KOLogger::logLocated(KO_HERE, this, KOLogSeverityException,
                           KOStringFormat::format("Kovantis - Dropping unusable stored batch %@: %@",
                                                  {KOValue(id), KOValue(e.what())}));
    }
  }
}

std::string KOBatchStore::add(const std::vector<std::string>& recordsJSON, std::int64_t nowMilliseconds) {
  std::int64_t id = nowMilliseconds;
  if (!batches_.empty()) {
    const std::int64_t last = std::stoll(batches_.rbegin()->first);
    if (id <= last) id = last + 1;
  }
  Batch batch;
  batch.count = recordsJSON.size();
  std::size_t bytes = 2;
  for (const auto& r : recordsJSON) bytes += r.size() + 1;
  batch.json.reserve(bytes);
  batch.json += '[';
  KOArray records;
  records.reserve(recordsJSON.size());
  for (std::size_t i = 0; i < recordsJSON.size(); ++i) {
    if (i) batch.json += ',';
    batch.json += recordsJSON[i];
    records.push_back(KOJSONSerialization::parse(recordsJSON[i]));
  }
  batch.json += ']';
  batch.xml = valueFragment(KOPropertyListSerialization::writeXML(KOValue(std::move(records))));
  const std::string key = std::to_string(id);
  batches_[key] = std::move(batch);
  return key;
}

void KOBatchStore::put(const std::string& id, const KOArray& records) { batches_[id] = makeBatch(records); }

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

std::string KOBatchStore::reportBody(const std::string& id) const {
  const Batch* batch = find(id);
  if (!batch) return std::string();
  std::string body;
  body.reserve(batch->json.size() + 40);
  body += "{\"viewsInfo\":";
  body += batch->json;
  body += ",\"viewsCount\":";
  body += std::to_string(batch->count);
  body += '}';
  return body;
}

KODictionary KOBatchStore::dictionary() const {
  KODictionary out;
  for (const auto& [id, batch] : batches_) out.set(id, KOJSONSerialization::parse(batch.json));
  return out;
}

std::string KOBatchStore::fileText() const {
  std::size_t bytes = 64;
  for (const auto& [id, batch] : batches_) bytes += batch.xml.size() + id.size() + 16;
  std::string text;
  text.reserve(bytes + 200);
  text += kPrologue;
  text += "<dict>\n";
  for (const auto& [id, batch] : batches_) {
    text += "<key>";
    text += id;  // digits only: nothing to escape
    text += "</key>";
    text += batch.xml;
  }
  text += "</dict>\n</plist>\n";
  return text;
}

bool KOBatchStore::write(KOFileSystem& fs) const {
  if (batches_.empty()) {
    if (!fs.fileExists(path_)) return true;
    KOFileError error;
    return fs.removeItem(path_, &error);
  }
  return KOAtomicFile::write(fs, path_, fileText());
}
