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
  DiskFull,           // a write stores only part of its bytes, then fails with ENOSPC
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
  int faultsFired() const { return fired_; }

  // Only the calls that can fail are overridden; the rest go straight through.
  std::optional<std::string> readFile(const std::string& path, KOFileError* error = nullptr) const override;
  bool writeFile(const std::string& path, std::string_view bytes, KOFileError* error = nullptr,
                 unsigned mode = 0644) override;
  /// A full disk stores half of the first piece, then fails.
  bool writeFileInPieces(const std::string& path, const std::function<bool(const KOPieceWriter&)>& produce,
                         KOFileError* error = nullptr, unsigned mode = 0644) override;
  bool renameFile(const std::string& from, const std::string& to, KOFileError* error = nullptr) override;
  bool removeItem(const std::string& path, KOFileError* error = nullptr) override;
  /// A full disk or an I/O error armed for the path makes the mapping fail.
  std::unique_ptr<KOMappedFile> mapFile(const std::string& path, std::size_t size,
                                        KOFileError* error = nullptr) override;

 private:
  bool fires(KOFileFault kind, const std::string& path) const;

  mutable std::mutex mutex_;
  KOFileFault fault_ = KOFileFault::None;
  std::string pathContains_;
  mutable int remaining_ = 0;
  mutable std::atomic<int> fired_{0};
};
