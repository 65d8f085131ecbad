// A file-system wrapper that injects faults, the way a storage engine's test environment does: a
// full disk, an I/O error, a crash between writing the temporary file and renaming it.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "Sim/KOForwardingPlatform.h"

enum class KOFileFault {
  None,
  DiskFull,           // a write stores only part of its bytes, then fails with ENOSPC; a mapping
                      // or its growth runs out of space part-way through the allocation
  IOError,            // a write fails with EIO before storing anything
  ReadError,          // a read fails with EIO
  CrashBeforeRename,  // the rename never happens; the temporary file stays behind
};

class KOSimFaultyFileSystem : public KOForwardingFileSystem {
 public:
  explicit KOSimFaultyFileSystem(std::shared_ptr<KOFileSystem> inner);

  /// Arms a fault for the next `times` matching operations (-1: until cleared) on paths that
  /// contain `pathContains` (every path when empty).
  void inject(KOFileFault fault, std::string pathContains = "", int times = 1);
  void clear();
  /// How many faults fired so far.
  int faultsFired() const { return faults_->fired; }

  // Only the calls that can fail are overridden; the rest go straight through.
  std::optional<std::string> readFile(const std::string& path, KOFileError* error = nullptr) const override;
  std::optional<std::string> readFileRange(const std::string& path, std::uint64_t offset, std::size_t length,
                                           KOFileError* error = nullptr) const override;
  bool writeFile(const std::string& path, std::string_view bytes, KOFileError* error = nullptr,
                 unsigned mode = 0644) override;
  /// A full disk stores half of the first piece, then fails.
  bool writeFileInPieces(const std::string& path, const std::function<bool(const KOPieceWriter&)>& produce,
                         KOFileError* error = nullptr, unsigned mode = 0644) override;
  bool renameFile(const std::string& from, const std::string& to, KOFileError* error = nullptr) override;
  bool removeItem(const std::string& path, KOFileError* error = nullptr) override;
  /// A full disk fails where a real one does, at the allocation: mapping a file, or growing a
  /// mapping later (the file may be left longer, never the mapping). An I/O error fails the mapping.
  std::unique_ptr<KOMappedFile> mapFile(const std::string& path, std::size_t size,
                                        KOFileError* error = nullptr) override;

 private:
  // Shared with the mappings handed out, which may outlive this wrapper.
  struct Faults {
    bool fires(KOFileFault kind, const std::string& path);
    std::mutex mutex;
    KOFileFault fault = KOFileFault::None;
    std::string pathContains;
    int remaining = 0;
    std::atomic<int> fired{0};
  };
  class FaultyMappedFile;
  bool fires(KOFileFault kind, const std::string& path) const { return faults_->fires(kind, path); }

  std::shared_ptr<Faults> faults_ = std::make_shared<Faults>();
};
