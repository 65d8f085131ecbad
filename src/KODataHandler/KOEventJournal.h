// The journal under the batches: every tracked record, every cut and every batch that left the
// store, appended to a memory-mapped file in the documents directory. A store into the mapping is
// no system call and survives the death of the process (the kernel holds the pages), so a record
// is safe from the moment trackEvent returns; a power loss is not covered (nothing is fsynced per
// event). The batch file stays what it was: the journal only carries what the file does not hold
// yet, and starts over (a new generation in the other of its two files, the old file then removed)
// once the file caught up. Every byte of a file is allocated before it is mapped: a full disk is a
// failed call, never a signal at a store.
//
// A file starts with two copies of its header (the generation), so one damaged byte there costs
// nothing.
// An entry is a marker, its length, a checksum and its kind, then the payload. The marker is
// stored last, so an entry cut short by a kill is no entry at all; a damaged entry is skipped up
// to the next marker, losing that entry alone.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

class KOFileSystem;
class KOMappedFile;

class KOEventJournal {
 public:
  enum class Kind : std::uint8_t {
    Record = 1,  // a tracked record's JSON text
    Cut = 2,     // the records since the previous cut became the batch of this id
    Batch = 3,   // a whole batch: "<id>\n<count>\n<records as a JSON array>"
    Done = 4,    // the batch of this id left the store (accepted, or dropped by a reset)
    Issued = 5,  // ids up to this one were issued: ids run ahead of the clock when cuts come fast,
                 // and the service drops a batch whose id it has seen as a resend
    Split = 6,   // a refused batch left the store for its two halves, in one entry so that a kill
                 // never leaves both: "<id>\n" then each half as a Batch payload with its length

  };

  /// What a journal says, replayed in order.
  struct Replay {
    struct Batch {
      std::string recordsJSON;  // a JSON array
      std::size_t count = 0;
    };
    std::map<std::string, Batch> batches;  // cut or carried whole, by id
    std::set<std::string> done;
    std::vector<std::string> issued;
    std::vector<std::string> pending;  // records after the last cut
    std::size_t damaged = 0;           // entries (or stretches) that could not be used
    std::uint64_t generation = 0;      // 0: no journal found
    std::size_t end = 0;               // just past the last entry that could be used
    std::size_t fileSize = 0;
  };

  /// The journal's two files are `<basePath>.0` and `<basePath>.1`.
  explicit KOEventJournal(std::string basePath);
  ~KOEventJournal();

  /// Reads the newer valid generation. A file that cannot be read, even when tried again, is
  /// moved aside so that a new generation never overwrites it.
  Replay recover(KOFileSystem& fs);
  /// Goes on appending to the generation `recover` read, after its last usable entry: a start does
  /// not copy what the journal already says. False when there is none or it cannot be mapped.
  bool reopen(KOFileSystem& fs);
  /// Replays journal bytes (one file's content); never reads past their end.
  static Replay replay(std::string_view bytes);

  /// Starts a new generation in the other file, with room for `contentBytes` written by the caller
  /// through `append` before the call returns and as much again to grow; the previous generation's
  /// file is removed once it is complete. Returns false (keeping the current generation) when the
  /// file cannot be mapped.
  template <typename Fill>
  bool startGeneration(KOFileSystem& fs, std::size_t contentBytes, Fill&& fill) {
    if (!openNext(fs, contentBytes)) return false;
    if (!fill(*this)) {
      abandonNext();
      return false;
    }
    commitNext(fs);
    return true;
  }

  /// Appends one entry; false when no generation is open or it is full.
  bool append(Kind kind, std::string_view payload);
  bool appendBatch(const std::string& id, std::size_t count, std::string_view recordsJSON);
  /// The batch `id` replaced by two halves, each (id, count, records as a JSON array).
  struct Half {
    std::string id;
    std::size_t count = 0;
    std::string_view recordsJSON;
  };
  bool appendSplit(const std::string& id, const Half& first, const Half& second);
  /// Bytes an entry with this payload takes.
  static std::size_t entrySize(std::size_t payloadBytes) { return kEntryHeader + payloadBytes; }

  bool isOpen() const { return current_ != nullptr; }
  /// Doubles the current generation's room in place, keeping its entries; false when it cannot.
  bool grow();
  std::size_t used() const { return used_; }
  std::size_t capacity() const;
  std::uint64_t generation() const { return generation_; }
  std::string pathOf(int file) const { return basePath_ + "." + std::to_string(file); }

  static constexpr std::size_t kFileHeader = 64;  // two copies of the header
  static constexpr std::size_t kEntryHeader = 4 + 4 + 8 + 1;
  static constexpr std::size_t kMinimumCapacity = 256 * 1024;

 private:
  /// Adds a split's halves and marks the batch they replace as gone; false when it does not parse.
  static bool replaySplit(std::string_view payload, Replay& out);
  bool openNext(KOFileSystem& fs, std::size_t contentBytes);
  void abandonNext();
  void commitNext(KOFileSystem& fs);

  std::string basePath_;
  std::unique_ptr<KOMappedFile> current_;
  std::unique_ptr<KOMappedFile> previous_;  // kept while the next generation is filled
  int currentFile_ = 1;                     // so that the first generation goes to file 0
  int previousFile_ = 0;
  std::uint64_t generation_ = 0;
  std::size_t used_ = 0;
  std::size_t previousUsed_ = 0;
  std::size_t recoveredEnd_ = 0;
  std::size_t recoveredSize_ = 0;
};
