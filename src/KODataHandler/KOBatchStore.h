// The batches waiting for the service, as an index: each batch names where its records' JSON text
// is, and holds none of it. A record is held once, in the event journal's mapping (each record
// where it was tracked, or a batch's records as one array); only while the journal cannot take
// them (a full disk) does a batch keep its records on the heap. The report body a request carries
// and the XML the batch file holds are made from that text when they are needed, and the XML of a
// batch is made once: a rewrite of the file copies what the file already holds.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "KOEventJournal.h"
#include "kovantis/KOValue.h"

class KOFileSystem;

class KOBatchStore {
 public:
  struct Batch {
    std::size_t count = 0;
    /// In the journal: each record, or (array) one ref to the records as a JSON array.
    std::vector<KOEventJournal::Ref> records;
    bool array = false;
    bool inJournal = false;
    std::string heapJSON;  // the records array, while not in the journal
  };

  /// Where each batch's XML is in the batch file as last written: [begin, end) of its key and
  /// value, by id.
  using FileIndex = std::map<std::string, std::pair<std::uint64_t, std::uint64_t>>;

  /// `journal` resolves the refs of batches held there; without one every batch is on the heap.
  explicit KOBatchStore(std::string path, const KOEventJournal* journal = nullptr);

  /// Reads the batch file into memory once; a batch that cannot be used is dropped with a log line.
  /// A read error is tried again before the file is given up; a file that cannot be read at all is
  /// moved aside (".unreadable"), never overwritten, and read again at the next start, when its
  /// batches join the store under their ids. Temporary files a crash left behind are removed.
  /// `inFile` receives the ids the batch file itself holds.
  void load(KOFileSystem& fs, std::set<std::string>* inFile = nullptr);
  bool loaded() const { return loaded_; }
  /// Once the batch file holds what a set-aside file held, that file goes.
  void removeMergedAside(KOFileSystem& fs);
  bool mergedAside() const { return !mergedAside_.empty(); }
  /// Whether an id can be a batch id (decimal milliseconds).
  static bool usableId(const std::string& id);

  /// A batch of records tracked into the journal, under a fresh id from the time in milliseconds,
  /// moved past every id issued or loaded before: two cuts in one millisecond never share an id,
  /// even when the first batch was already accepted and removed.
  std::string addJournaled(std::vector<KOEventJournal::Ref> records, std::int64_t nowMilliseconds);
  /// The same with records given as JSON texts, kept on the heap.
  std::string add(const std::vector<std::string>& recordsJSON, std::int64_t nowMilliseconds);
  /// A fresh batch id from the time in milliseconds, past every id issued or loaded before.
  std::string issueId(std::int64_t nowMilliseconds);
  /// Adds a batch under the given id, replacing one stored there, its records on the heap.
  void put(const std::string& id, const KOArray& records);
  /// The same with the records as a JSON array text.
  void putRecordsJSON(const std::string& id, std::string recordsJSON, std::size_t count);
  /// The batch's records now live in the journal, as one array there.
  void moveToJournal(const std::string& id, KOEventJournal::Ref array);
  /// A batch whose records the journal holds, under the given id (replacing one stored there).
  void putInJournal(const std::string& id, std::size_t count, std::vector<KOEventJournal::Ref> records, bool array);
  /// Never issues this id or an earlier one again.
  void reserveId(const std::string& id);
  /// The latest id issued, loaded or reserved ("0" when none).
  std::string lastIssuedId() const;
  bool remove(const std::string& id);
  void clear();

  std::vector<std::string> ids() const;
  /// Visits every batch in id order, without copying the ids.
  template <typename Visit>
  void forEachBatch(Visit&& visit) const {
    for (const auto& [id, batch] : batches_) visit(id, batch);
  }
  std::size_t size() const { return batches_.size(); }
  bool empty() const { return batches_.empty(); }
  const Batch* find(const std::string& id) const;
  /// Bytes of the batch's records as one JSON array.
  std::size_t recordsBytes(const Batch& batch) const;
  /// The batch's records as one JSON array, appended to `out`.
  void appendRecordsJSON(const Batch& batch, std::string& out) const;
  /// The pieces that joined make that array (views valid until the journal's next append).
  void recordsPieces(const Batch& batch, std::vector<std::string_view>& out) const;
  std::string recordsJSON(const std::string& id) const;
  /// {"viewsInfo": [...], "viewsCount": n} as JSON text, or nothing when the batch is gone.
  std::optional<std::string> reportBody(const std::string& id) const;
  KOArray records(const std::string& id) const;
  /// Every batch as a dictionary of id to records.
  KODictionary dictionary() const;
  const std::string& path() const { return path_; }

  /// Writes the batches of `ids` to the file at `path` atomically (the file is deleted when there
  /// are none), a piece at a time: a file of a million held events is never whole in memory. A
  /// batch in `previous` is copied from the file as it is; any other is made from the JSON its
  /// source gives (nothing: it is gone, left out). `written` receives the new file's index.
  using RecordsSource = std::function<std::optional<std::string>(const std::string& id)>;
  static bool write(KOFileSystem& fs, const std::string& path, const std::vector<std::string>& ids,
                    const FileIndex& previous, const RecordsSource& source, FileIndex* written);
  /// The whole store written to a file, every batch made from its JSON.
  bool write(KOFileSystem& fs, const std::string& filePath) const;
  /// The text `write` would put in the file for this store.
  std::string fileText() const;

 private:
  void setAside(KOFileSystem& fs, const std::string& why);
  /// Adds the usable batches of a parsed file; returns the ids added.
  std::vector<std::string> merge(const KOValue& stored, bool replace);
  std::string_view text(const KOEventJournal::Ref& ref) const { return journal_->text(ref); }

  std::string path_;
  const KOEventJournal* journal_;
  bool loaded_ = false;
  std::vector<std::string> mergedAside_;  // set-aside files whose batches joined the store
  std::int64_t lastIssued_ = 0;
  // Ids are decimal milliseconds of equal length for centuries, so the map keeps them in the
  // order they were cut.
  std::map<std::string, Batch> batches_;
};
