#include "KOSimFaultyFileSystem.h"

#include <cerrno>

KOSimFaultyFileSystem::KOSimFaultyFileSystem(std::shared_ptr<KOFileSystem> inner)
    : KOForwardingFileSystem(std::move(inner)) {}

void KOSimFaultyFileSystem::inject(KOFileFault fault, std::string pathContains, int times) {
  std::lock_guard<std::mutex> lock(mutex_);
  fault_ = fault;
  pathContains_ = std::move(pathContains);
  remaining_ = times;
}

void KOSimFaultyFileSystem::clear() { inject(KOFileFault::None, "", 0); }

bool KOSimFaultyFileSystem::fires(KOFileFault kind, const std::string& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (fault_ != kind || remaining_ == 0) return false;
  if (!pathContains_.empty() && path.find(pathContains_) == std::string::npos) return false;
  if (remaining_ > 0) --remaining_;
  ++fired_;
  return true;
}

std::optional<std::string> KOSimFaultyFileSystem::readFile(const std::string& path, KOFileError* error) const {
  if (fires(KOFileFault::ReadError, path)) {
    if (error) *error = KOFileError{EIO, "injected read error"};
    return std::nullopt;
  }
  return target().readFile(path, error);
}

bool KOSimFaultyFileSystem::writeFile(const std::string& path, std::string_view bytes, KOFileError* error,
                                      unsigned mode) {
  if (fires(KOFileFault::DiskFull, path)) {
    target().writeFile(path, bytes.substr(0, bytes.size() / 2), nullptr, mode);
    if (error) *error = KOFileError{ENOSPC, "injected full disk"};
    return false;
  }
  if (fires(KOFileFault::IOError, path)) {
    if (error) *error = KOFileError{EIO, "injected I/O error"};
    return false;
  }
  return target().writeFile(path, bytes, error, mode);
}

bool KOSimFaultyFileSystem::writeFileInPieces(const std::string& path,
                                              const std::function<bool(const KOPieceWriter&)>& produce,
                                              KOFileError* error, unsigned mode) {
  if (fires(KOFileFault::DiskFull, path)) {
    target().writeFileInPieces(
        path,
        [&](const KOPieceWriter& sink) {
          return produce([&](std::string_view piece) {
            sink(piece.substr(0, piece.size() / 2));
            return false;
          });
        },
        nullptr, mode);
    if (error) *error = KOFileError{ENOSPC, "injected full disk"};
    return false;
  }
  if (fires(KOFileFault::IOError, path)) {
    if (error) *error = KOFileError{EIO, "injected I/O error"};
    return false;
  }
  return target().writeFileInPieces(path, produce, error, mode);
}

bool KOSimFaultyFileSystem::renameFile(const std::string& from, const std::string& to, KOFileError* error) {
  if (fires(KOFileFault::CrashBeforeRename, to)) {
    if (error) *error = KOFileError{EINTR, "injected crash before rename"};
    return false;
  }
  return target().renameFile(from, to, error);
}

bool KOSimFaultyFileSystem::removeItem(const std::string& path, KOFileError* error) {
  // After an injected crash nothing of the writer runs any more, so its clean-up must not either.
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (fault_ == KOFileFault::CrashBeforeRename && fired_ > 0 && path.find(".tmp-") != std::string::npos) {
      return true;
    }
  }
  return target().removeItem(path, error);
}

std::unique_ptr<KOMappedFile> KOSimFaultyFileSystem::mapFile(const std::string& path, std::size_t size,
                                                             KOFileError* error) {
  if (fires(KOFileFault::DiskFull, path)) {
    if (error) *error = KOFileError{ENOSPC, "injected full disk"};
    return nullptr;
  }
  if (fires(KOFileFault::IOError, path)) {
    if (error) *error = KOFileError{EIO, "injected I/O error"};
    return nullptr;
  }
  return target().mapFile(path, size, error);
}
