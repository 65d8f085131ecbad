#include "KOEventJournal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "kovantis/KOPlatform.h"

namespace {

constexpr char kFileMagic[8] = {'K', 'O', 'V', 'J', 'R', 'N', 'L', '2'};
// The first journals had one header copy; their files are still read.
constexpr char kSingleHeaderMagic[8] = {'K', 'O', 'V', 'J', 'R', 'N', 'L', '1'};
// A header copy: magic, generation, checksum, 8 spare bytes. There are two, so that one damaged
// byte cannot cost the whole generation.
constexpr std::size_t kHeaderCopy = 32;
static_assert(KOEventJournal::kFileHeader == 2 * kHeaderCopy);
// Two bytes that never occur in UTF-8 text, so that a marker is never taken from a payload.
constexpr char kEntryMarker[4] = {'\xFF', '\xFE', 'K', 'J'};

std::uint64_t checksum(std::uint64_t seed, const char* data, std::size_t size) {
  // A word at a time: a handful of instructions per 8 bytes on the tracking path.
  std::uint64_t h = seed ^ (size * 0x9E3779B97F4A7C15ull);
  std::size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    std::uint64_t w;
    std::memcpy(&w, data + i, 8);
    h = (h ^ w) * 0xFF51AFD7ED558CCDull;
    h ^= h >> 29;
  }
  std::uint64_t tail = 0;
  std::memcpy(&tail, data + i, size - i);
  h = (h ^ tail) * 0xC4CEB9FE1A85EC53ull;
  return h ^ (h >> 32);
}

template <typename T>
T load(const char* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <typename T>
void store(char* p, T v) {
  std::memcpy(p, &v, sizeof v);
}

std::uint64_t headerChecksum(std::uint64_t generation) { return checksum(generation, kFileMagic, sizeof kFileMagic); }

// The generation one header copy names, or 0 when it is damaged or not there.
std::uint64_t generationInCopy(const char* copy, const char* magic) {
  if (std::memcmp(copy, magic, 8) != 0) return 0;
  const auto generation = load<std::uint64_t>(copy + 8);
  if (generation == 0 || load<std::uint64_t>(copy + 16) != checksum(generation, magic, 8)) return 0;
  return generation;
}

struct Header {
  std::uint64_t generation = 0;  // 0: not a journal (or both copies damaged)
  std::size_t entries = 0;       // where the first entry starts
  bool whole = false;            // both copies are intact
};

Header headerOf(std::string_view bytes) {
  Header h;
  if (bytes.size() >= kHeaderCopy) {
    if (const std::uint64_t old = generationInCopy(bytes.data(), kSingleHeaderMagic)) return {old, kHeaderCopy, true};
  }
  if (bytes.size() < KOEventJournal::kFileHeader) return h;
  const std::uint64_t first = generationInCopy(bytes.data(), kFileMagic);
  const std::uint64_t second = generationInCopy(bytes.data() + kHeaderCopy, kFileMagic);
  h.generation = first ? first : second;
  if (h.generation) h.entries = KOEventJournal::kFileHeader;
  h.whole = first && first == second;
  return h;
}

void writeHeaderCopy(char* copy, std::uint64_t generation) {
  store(copy + 8, generation);
  store(copy + 16, headerChecksum(generation));
  std::memcpy(copy, kFileMagic, sizeof kFileMagic);  // the magic last: a torn copy is no copy
}

void logJournal(const std::string& line) { KOLogger::logLocated(KO_HERE, nullptr, KOLogSeverityException, line); }

}  // namespace

KOEventJournal::KOEventJournal(std::string basePath) : basePath_(std::move(basePath)) {}

KOEventJournal::~KOEventJournal() = default;

std::size_t KOEventJournal::capacity() const { return room_; }

void KOEventJournal::noteMapping() {
  base_ = current_ ? current_->data() : nullptr;
  room_ = current_ ? current_->size() : 0;
}

KOEventJournal::Replay KOEventJournal::replay(std::string_view bytes) {
  Replay out;
  out.source = bytes;
  const Header header = headerOf(bytes);
  out.generation = header.generation;
  out.fileSize = bytes.size();
  if (out.generation == 0) return out;
  std::size_t pos = header.entries;
  out.end = pos;
  const std::string_view marker(kEntryMarker, sizeof kEntryMarker);
  bool inDamage = false;
  while (pos + kEntryHeader <= bytes.size()) {
    if (bytes.compare(pos, marker.size(), marker) != 0) {
      // Zeros after the last entry are the unused rest; anything else is damage.
      const std::size_t next = bytes.find(marker, pos);
      const std::string_view skipped = bytes.substr(pos, (next == std::string_view::npos ? bytes.size() : next) - pos);
      if (!inDamage && skipped.find_first_not_of('\0') != std::string_view::npos) {
        ++out.damaged;
        inDamage = true;
      }
      if (next == std::string_view::npos) break;
      pos = next;
      continue;
    }
    const auto length = load<std::uint32_t>(bytes.data() + pos + 4);
    const auto sum = load<std::uint64_t>(bytes.data() + pos + 8);
    const char* kindAndPayload = bytes.data() + pos + 16;
    if (length > bytes.size() - pos - kEntryHeader || checksum(length, kindAndPayload, length + 1u) != sum) {
      if (!inDamage) ++out.damaged;
      inDamage = true;
      pos += 1;  // look for the next marker
      continue;
    }
    inDamage = false;
    const auto kind = static_cast<Kind>(*kindAndPayload);
    const std::string_view payload(kindAndPayload + 1, length);
    pos += kEntryHeader + length;
    out.end = pos;
    const std::size_t payloadAt = pos - length;
    switch (kind) {
      case Kind::Record:
        out.pending.push_back({payloadAt, length});
        break;
      case Kind::Cut: {
        Replay::Batch& batch = out.batches[std::string(payload)];
        batch.count = out.pending.size();
        batch.records = std::move(out.pending);
        batch.array = false;
        out.pending.clear();
        break;
      }
      case Kind::Batch: {
        const std::size_t idEnd = payload.find('\n');
        const std::size_t countEnd = idEnd == std::string_view::npos ? idEnd : payload.find('\n', idEnd + 1);
        if (countEnd == std::string_view::npos) {
          ++out.damaged;
          break;
        }
        Replay::Batch& batch = out.batches[std::string(payload.substr(0, idEnd))];
        batch.count = std::strtoull(std::string(payload.substr(idEnd + 1, countEnd - idEnd - 1)).c_str(), nullptr, 10);
        batch.records = {{payloadAt + countEnd + 1, static_cast<std::uint32_t>(length - countEnd - 1)}};
        batch.array = true;
        break;
      }
      case Kind::Split:
        if (!replaySplit(payload, payloadAt, out)) ++out.damaged;
        break;
      case Kind::Done:
        out.done.emplace(payload);
        break;
      case Kind::Issued:
        out.issued.emplace_back(payload);
        break;
      default:
        ++out.damaged;
        break;
    }
  }
  return out;
}

KOEventJournal::Replay KOEventJournal::recover(KOFileSystem& fs) {
  Replay best;
  int bestFile = -1;
  for (int file = 0; file < 2; ++file) {
    const std::string path = pathOf(file);
    std::optional<std::string> bytes;
    KOFileError error;
    // A read error may pass: tried again before the file is given up.
    for (int attempt = 0; attempt < 3 && !bytes; ++attempt) {
      bytes = fs.readFile(path, &error);
      if (!bytes && error.code == ENOENT) break;
    }
    if (!bytes) {
      if (error.code != ENOENT) {
        const bool moved = fs.renameFile(path, path + ".unreadable");
        logJournal(KOStringFormat::format("Kovantis - The event journal %@ could not be read (%@); %@",
                                          {KOValue(path), KOValue(error.message),
                                           KOValue(moved ? "kept it as " + path + ".unreadable" : "left it")}));
      }
      continue;
    }
    Replay replayed = replay(*bytes);
    if (replayed.generation > best.generation) {
      best = std::move(replayed);
      bestFile = file;
      recovered_ = std::move(*bytes);  // a string's move keeps its buffer: the refs stay valid
      best.source = recovered_;
    }
  }
  if (best.damaged) {
    logJournal(KOStringFormat::format("Kovantis - The event journal had %d damaged entries; the rest is kept",
                                      {KOValue(static_cast<std::int64_t>(best.damaged))}));
  }
  if (bestFile >= 0) {
    currentFile_ = bestFile;
    generation_ = best.generation;
    recoveredEnd_ = best.end;
    recoveredSize_ = best.fileSize;
  }
  return best;
}

void KOEventJournal::releaseRecovered() { std::string().swap(recovered_); }

std::string_view KOEventJournal::text(const Ref& ref) const {
  if (KOMappedFile* from = filling_ ? previous_.get() : current_.get()) {
    return std::string_view(from->data() + ref.at, ref.length);
  }
  return std::string_view(recovered_).substr(ref.at, ref.length);
}

std::vector<std::string> KOEventJournal::Replay::pendingTexts() const {
  std::vector<std::string> out;
  for (const Ref& ref : pending) out.emplace_back(text(ref));
  return out;
}

std::string KOEventJournal::Replay::recordsJSON(const Batch& batch) const {
  if (batch.array) return batch.records.empty() ? std::string("[]") : std::string(text(batch.records.front()));
  std::string out = "[";
  for (std::size_t i = 0; i < batch.records.size(); ++i) {
    if (i) out += ',';
    out += text(batch.records[i]);
  }
  out += ']';
  return out;
}

bool KOEventJournal::reopen(KOFileSystem& fs) {
  if (current_ || generation_ == 0 || recoveredEnd_ < kFileHeader || recoveredSize_ < recoveredEnd_) return false;
  std::unique_ptr<KOMappedFile> mapped = fs.mapFile(pathOf(currentFile_), recoveredSize_);
  if (!mapped || mapped->size() != recoveredSize_) return false;
  const Header header = headerOf(std::string_view(mapped->data(), kFileHeader));
  // A file of the single-header kind gets a new generation rather than appends.
  if (header.generation != generation_ || header.entries != kFileHeader) return false;
  if (!header.whole) {
    // Both copies again: the next damaged byte must not find the last one.
    writeHeaderCopy(mapped->data() + kHeaderCopy, generation_);
    writeHeaderCopy(mapped->data(), generation_);
  }
  // What an append cut short by the kill left is cleared, so that new entries are not followed by
  // its remains (they would only count as damage).
  const std::size_t rest = std::min<std::size_t>(recoveredSize_ - recoveredEnd_, 1 << 20);
  std::memset(mapped->data() + recoveredEnd_, 0, rest);
  current_ = std::move(mapped);
  noteMapping();
  used_ = recoveredEnd_;
  releaseRecovered();  // the mapping holds the same bytes at the same offsets
  return true;
}

bool KOEventJournal::openNext(KOFileSystem& fs, std::size_t contentBytes) {
  const int next = 1 - currentFile_;
  const std::string path = pathOf(next);
  std::size_t size = kMinimumCapacity;
  while (size < 2 * (contentBytes + kFileHeader)) size *= 2;
  // A fresh file reads as zeros: no entry of an older generation shows through.
  fs.removeItem(path);
  KOFileError error;
  std::unique_ptr<KOMappedFile> mapped = fs.mapFile(path, size, &error);
  if (!mapped) {
    fs.removeItem(path);  // whatever the allocation got before the space ran out
    return false;         // the owner says so, once
  }
  previous_ = std::move(current_);
  previousUsed_ = used_;
  previousFile_ = currentFile_;
  current_ = std::move(mapped);
  noteMapping();
  currentFile_ = next;
  used_ = kFileHeader;
  return true;
}

void KOEventJournal::abandonNext() {
  current_ = std::move(previous_);
  noteMapping();
  used_ = previousUsed_;
  currentFile_ = previousFile_;
}

void KOEventJournal::commitNext(KOFileSystem& fs) {
  // The header last: until one copy is stored, a restart reads the previous generation.
  const std::uint64_t generation = generation_ + 1;
  writeHeaderCopy(current_->data() + kHeaderCopy, generation);
  writeHeaderCopy(current_->data(), generation);
  generation_ = generation;
  previous_.reset();
  // Everything the previous generation said is in this one or in the batch file: its file goes, so
  // that its disk space comes back and a restart can never replay what is out of date.
  fs.removeItem(pathOf(previousFile_));
}

char* KOEventJournal::beginEntry(std::size_t length) {
  if (!base_ || length > UINT32_MAX) return nullptr;
  if (kEntryHeader + length > room_ - used_) return nullptr;
  return base_ + used_ + kEntryHeader;
}

std::uint64_t KOEventJournal::endEntry(Kind kind, std::size_t length) {
  char* entry = base_ + used_;
  entry[16] = static_cast<char>(kind);
  const auto stored = static_cast<std::uint32_t>(length);
  store(entry + 4, stored);
  store(entry + 8, checksum(stored, entry + 16, length + 1));
  std::memcpy(entry, kEntryMarker, sizeof kEntryMarker);  // the marker last: a torn entry has none
  const std::uint64_t at = used_ + kEntryHeader;
  used_ += kEntryHeader + length;
  return at;
}

std::uint64_t KOEventJournal::append(Kind kind, std::string_view payload) {
  char* to = beginEntry(payload.size());
  if (!to) return 0;
  std::memcpy(to, payload.data(), payload.size());
  return endEntry(kind, payload.size());
}

bool KOEventJournal::grow() {
  if (!current_ || !current_->resize(current_->size() * 2)) return false;
  noteMapping();
  return true;
}

bool KOEventJournal::appendSplit(const std::string& id, Half& first, Half& second) {
  std::string payload = id + '\n';
  std::size_t arrayAt[2] = {0, 0};
  int i = 0;
  for (const Half* half : {&first, &second}) {
    // Each half: its batch payload's length, then the payload ("<id>\n<count>\n<records>").
    const std::string head = half->id + '\n' + std::to_string(half->count) + '\n';
    payload += std::to_string(head.size() + half->recordsJSON.size());
    payload += '\n';
    payload += head;
    arrayAt[i++] = payload.size();
    payload += half->recordsJSON;
  }
  const std::uint64_t at = append(Kind::Split, payload);
  if (!at) return false;
  first.at = at + arrayAt[0];
  second.at = at + arrayAt[1];
  return true;
}

bool KOEventJournal::replaySplit(std::string_view payload, std::size_t payloadAt, Replay& out) {
  const std::size_t idEnd = payload.find('\n');
  if (idEnd == std::string_view::npos) return false;
  const std::string parent(payload.substr(0, idEnd));
  std::vector<std::pair<std::string, Replay::Batch>> halves;
  std::size_t pos = idEnd + 1;
  for (int i = 0; i < 2; ++i) {
    const std::size_t lengthEnd = payload.find('\n', pos);
    if (lengthEnd == std::string_view::npos) return false;
    const std::size_t length = std::strtoull(std::string(payload.substr(pos, lengthEnd - pos)).c_str(), nullptr, 10);
    if (length > payload.size() - lengthEnd - 1) return false;
    const std::string_view half = payload.substr(lengthEnd + 1, length);
    const std::size_t halfId = half.find('\n');
    const std::size_t countEnd = halfId == std::string_view::npos ? halfId : half.find('\n', halfId + 1);
    if (countEnd == std::string_view::npos) return false;
    Replay::Batch batch;
    batch.count = std::strtoull(std::string(half.substr(halfId + 1, countEnd - halfId - 1)).c_str(), nullptr, 10);
    const std::size_t arrayAt = payloadAt + (lengthEnd + 1) + countEnd + 1;
    batch.records = {{arrayAt, static_cast<std::uint32_t>(length - countEnd - 1)}};
    batch.array = true;
    halves.emplace_back(std::string(half.substr(0, halfId)), std::move(batch));
    pos = lengthEnd + 1 + length;
  }
  for (auto& [id, batch] : halves) out.batches[id] = std::move(batch);
  out.done.insert(parent);
  return true;
}

std::uint64_t KOEventJournal::appendBatch(const std::string& id, std::size_t count,
                                          std::initializer_list<std::string_view> pieces) {
  return appendBatch(id, count, std::vector<std::string_view>(pieces));
}

std::uint64_t KOEventJournal::appendBatch(const std::string& id, std::size_t count,
                                          const std::vector<std::string_view>& pieces) {
  // "<id>\n<count>\n" then the records array, written straight into the mapping.
  char head[64];
  const int headLength = std::snprintf(head, sizeof head, "%s\n%zu\n", id.c_str(), count);
  if (headLength <= 0 || static_cast<std::size_t>(headLength) >= sizeof head) return 0;
  std::size_t length = static_cast<std::size_t>(headLength);
  for (const std::string_view piece : pieces) length += piece.size();
  char* to = beginEntry(length);
  if (!to) return 0;
  std::memcpy(to, head, static_cast<std::size_t>(headLength));
  char* p = to + headLength;
  for (const std::string_view piece : pieces) {
    std::memcpy(p, piece.data(), piece.size());
    p += piece.size();
  }
  return endEntry(Kind::Batch, length) + static_cast<std::uint64_t>(headLength);
}
