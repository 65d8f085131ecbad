// The batches waiting for the service, in memory and in the batch file. Each batch keeps its
// records twice, both ready to use: as the JSON array a report body carries, and as the XML
// fragment the batch file holds. Writing the file then joins fragments instead of serialising
// every stored event again, so a cut stays cheap however many batches are waiting.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kovantis/KOValue.h"

class KOFileSystem;

class KOBatchStore {
 public:
  struct Batch {
    std::string json;  // "[record,record,...]"
    std::string xml;   // the array as a property-list fragment
    std::size_t count = 0;
  };

  explicit KOBatchStore(std::string path);

  /// Reads the batch file into memory once; a batch that cannot be used is dropped with a log line.
  void load(const KOFileSystem& fs);
  bool loaded() const { return loaded_; }

  /// Adds a batch of records, each given as its JSON text, under a fresh id from the time in
  /// milliseconds (moved past any id in use, so two cuts in one millisecond never collide).
  /// Returns the id.
  std::string add(const std::vector<std::string>& recordsJSON, std::int64_t nowMilliseconds);
  /// Adds a batch of records under the given id, replacing one stored there.
  void put(const std::string& id, const KOArray& records);
  bool remove(const std::string& id);
  void clear();

  std::vector<std::string> ids() const;
  bool contains(const std::string& id) const { return batches_.count(id) > 0; }
  std::size_t size() const { return batches_.size(); }
  bool empty() const { return batches_.empty(); }
  const Batch* find(const std::string& id) const;
  /// {"viewsInfo": [...], "viewsCount": n} as JSON text.
  std::string reportBody(const std::string& id) const;
  /// Every batch as a dictionary of id to records.
  KODictionary dictionary() const;

  /// Writes the whole file atomically (deletes it when there is nothing to keep).
  bool write(KOFileSystem& fs) const;
  /// The whole file's XML text.
  std::string fileText() const;
  const std::string& path() const { return path_; }

 private:
  static Batch makeBatch(const KOArray& records);

  std::string path_;
  bool loaded_ = false;
  // Ids are decimal milliseconds of equal length for centuries, so the map keeps them in the
  // order they were cut.
  std::map<std::string, Batch> batches_;
};
