// The batches waiting for the service. Each batch is immutable once cut and kept in one form only,
// the report body a request carries; the XML the batch file holds is made from it while the file is
// written, a batch at a time, and dropped (a held event costs its JSON text and no more). A
// snapshot of the store is a list of shared pointers, cheap to take under a lock.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kovantis/KOValue.h"

class KOFileSystem;

class KOBatchStore {
 public:
  class Batch {
   public:
    Batch(std::string body, std::size_t count) : body_(std::move(body)), count_(count) {}
    /// {"viewsInfo": [...], "viewsCount": n} as JSON text.
    const std::string& reportBody() const { return body_; }
    std::size_t count() const { return count_; }
    /// The records, read back from the body.
    KOArray records() const;
    /// The records as a property-list fragment, made on each call.
    std::string fragment() const;

   private:
    std::string body_;
    std::size_t count_;
  };
  using Snapshot = std::vector<std::pair<std::string, std::shared_ptr<const Batch>>>;

  explicit KOBatchStore(std::string path);

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

  /// Adds a batch of records, each given as its JSON text, under a fresh id from the time in
  /// milliseconds, moved past every id issued or loaded before: two cuts in one millisecond never
  /// share an id, even when the first batch was already accepted and removed.
  std::string add(const std::vector<std::string>& recordsJSON, std::int64_t nowMilliseconds);
  /// A fresh batch id from the time in milliseconds, past every id issued or loaded before.
  std::string issueId(std::int64_t nowMilliseconds);
  /// Adds a batch under the given id, replacing one stored there.
  void put(const std::string& id, const KOArray& records);
  /// The same with the records as a JSON array text.
  void putRecordsJSON(const std::string& id, std::string_view recordsJSON, std::size_t count);
  /// Never issues this id or an earlier one again.
  void reserveId(const std::string& id);
  /// The latest id issued, loaded or reserved ("0" when none).
  std::string lastIssuedId() const;
  bool remove(const std::string& id);
  void clear();

  std::vector<std::string> ids() const;
  std::size_t size() const { return batches_.size(); }
  bool empty() const { return batches_.empty(); }
  std::shared_ptr<const Batch> find(const std::string& id) const;
  Snapshot snapshot() const;
  /// Every batch as a dictionary of id to records.
  KODictionary dictionary() const;
  const std::string& path() const { return path_; }

  /// The whole file's XML text for a snapshot.
  static std::string fileText(const Snapshot& snapshot);
  /// The same, handed out in pieces of about `chunkBytes` (the file is written without ever being
  /// whole in memory); `sink` returns false to stop. Returns whether every piece was taken.
  static bool writeFileText(const Snapshot& snapshot, std::size_t chunkBytes,
                            const std::function<bool(std::string_view)>& sink);
  /// The records of a report body, as JSON text, without reading them.
  static std::string_view recordsText(const std::string& reportBody);
  /// Writes a snapshot atomically, or deletes the file when the snapshot is empty.
  static bool write(KOFileSystem& fs, const std::string& path, const Snapshot& snapshot);

 private:
  void setAside(KOFileSystem& fs, const std::string& why);
  /// Adds the usable batches of a parsed file; returns the ids added.
  std::vector<std::string> merge(const KOValue& stored, bool replace);

  std::string path_;
  bool loaded_ = false;
  std::vector<std::string> mergedAside_;  // set-aside files whose batches joined the store
  std::int64_t lastIssued_ = 0;
  // Ids are decimal milliseconds of equal length for centuries, so the map keeps them in the
  // order they were cut.
  std::map<std::string, std::shared_ptr<const Batch>> batches_;
};
