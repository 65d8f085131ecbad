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
#include <initializer_list>
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

  /// A stretch of journal bytes: a record's JSON text, or a batch's records as one JSON array.
  struct Ref {
    std::uint64_t at = 0;  // from the start of the file
    std::uint32_t length = 0;
  };

  /// What a journal says, replayed in order. Texts stay where they are: each is a Ref into `source`
  /// (the bytes replayed), which a generation that goes on maps at the same offsets.
  struct Replay {
    struct Batch {
      std::size_t count = 0;
      std::vector<Ref> records;  // each a record, or (array) one ref to the records as a JSON array
      bool array = false;
    };
    std::map<std::string, Batch> batches;  // cut or carried whole, by id
    std::set<std::string> done;
    std::vector<std::string> issued;
    std::vector<Ref> pending;      // records after the last cut
    std::size_t damaged = 0;       // entries (or stretches) that could not be used
    std::uint64_t generation = 0;  // 0: no journal found
    std::size_t end = 0;           // just past the last entry that could be used
    std::size_t fileSize = 0;
    std::string_view source;

    std::string_view text(const Ref& ref) const { return source.substr(ref.at, ref.length); }
    std::vector<std::string> pendingTexts() const;
    /// A batch's records as one JSON array.
    std::string recordsJSON(const Batch& batch) const;
    std::string recordsJSON(const std::string& id) const { return recordsJSON(batches.at(id)); }
  };

  /// The journal's two files are `<basePath>.0` and `<basePath>.1`.
  explicit KOEventJournal(std::string basePath);
  ~KOEventJournal();

  /// Reads the newer valid generation. A file that cannot be read, even when tried again, is
  /// moved aside so that a new generation never overwrites it. The replay's texts are kept (see
  /// text) until `reopen`, a new generation or `releaseRecovered`.
  Replay recover(KOFileSystem& fs);
  void releaseRecovered();
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
    bool filled = false;
    {
      // While the fill runs, refs still name the previous generation's bytes (see text).
      struct Filling {
        bool& flag;
        explicit Filling(bool& f) : flag(f) { flag = true; }
        ~Filling() { flag = false; }
      } filling(filling_);
      filled = fill(*this);
    }
    if (!filled) {
      abandonNext();
      return false;
    }
    commitNext(fs);
    return true;
  }

  /// Appends one entry; returns where its payload starts, 0 when no generation is open or it is
  /// full.
  std::uint64_t append(Kind kind, std::string_view payload);
  /// A whole batch whose records array is given in pieces (joined as they are); returns where the
  /// array starts, 0 when it does not fit.
  std::uint64_t appendBatch(const std::string& id, std::size_t count, std::initializer_list<std::string_view> pieces);
  std::uint64_t appendBatch(const std::string& id, std::size_t count, const std::vector<std::string_view>& pieces);
  std::uint64_t appendBatch(const std::string& id, std::size_t count, std::string_view recordsJSON) {
    return appendBatch(id, count, {recordsJSON});
  }
  /// The batch `id` replaced by two halves, each (id, count, records as a JSON array). On success
  /// each half's `at` says where its array starts.
  struct Half {
    std::string id;
    std::size_t count = 0;
    std::string_view recordsJSON;
    std::uint64_t at = 0;
  };
  bool appendSplit(const std::string& id, Half& first, Half& second);
  /// The text a ref names: in the current generation, or in the recovered bytes before one is
  /// open; while a new generation is filled, in the one it replaces. Valid until the next append.
  std::string_view text(const Ref& ref) const;
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
  static bool replaySplit(std::string_view payload, std::size_t payloadAt, Replay& out);
  /// Room for an entry of `length` payload bytes: where the payload goes, or nullptr.
  char* beginEntry(std::size_t length);
  /// Seals the entry whose payload was written at beginEntry's place; returns where it starts.
  std::uint64_t endEntry(Kind kind, std::size_t length);
  bool openNext(KOFileSystem& fs, std::size_t contentBytes);
  void abandonNext();
  void commitNext(KOFileSystem& fs);

  std::string basePath_;
  std::unique_ptr<KOMappedFile> current_;
  // The current mapping's address and size, read on every append without a call.
  char* base_ = nullptr;
  std::size_t room_ = 0;
  void noteMapping();
  std::unique_ptr<KOMappedFile> previous_;  // kept while the next generation is filled
  int currentFile_ = 1;                     // so that the first generation goes to file 0
  int previousFile_ = 0;
  std::uint64_t generation_ = 0;
  std::size_t used_ = 0;
  std::size_t previousUsed_ = 0;
  std::size_t recoveredEnd_ = 0;
  std::size_t recoveredSize_ = 0;
  std::string recovered_;  // the bytes `recover` replayed, until a generation is open
  bool filling_ = false;
};
