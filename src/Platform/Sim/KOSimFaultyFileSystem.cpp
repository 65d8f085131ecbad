#include "KOSimFaultyFileSystem.h"

#include <cerrno>

KOSimFaultyFileSystem::KOSimFaultyFileSystem(std::shared_ptr<KOFileSystem> inner)
    : KOForwardingFileSystem(std::move(inner)) {}

void KOSimFaultyFileSystem::inject(KOFileFault fault, std::string pathContains, int times) {
  std::lock_guard<std::mutex> lock(faults_->mutex);
  faults_->fault = fault;
  faults_->pathContains = std::move(pathContains);
  faults_->remaining = times;
}

void KOSimFaultyFileSystem::clear() { inject(KOFileFault::None, "", 0); }

bool KOSimFaultyFileSystem::Faults::fires(KOFileFault kind, const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex);
  if (fault != kind || remaining == 0) return false;
  if (!pathContains.empty() && path.find(pathContains) == std::string::npos) return false;
  if (remaining > 0) --remaining;
  ++fired;
  return true;
}

class KOSimFaultyFileSystem::FaultyMappedFile : public KOMappedFile {
 public:
  FaultyMappedFile(std::unique_ptr<KOMappedFile> inner, std::string path, std::shared_ptr<Faults> faults)
      : inner_(std::move(inner)), path_(std::move(path)), faults_(std::move(faults)) {}
  char* data() override { return inner_->data(); }
  std::size_t size() const override { return inner_->size(); }
  bool resize(std::size_t size) override {
    if (faults_->fires(KOFileFault::DiskFull, path_) || faults_->fires(KOFileFault::IOError, path_)) return false;
    return inner_->resize(size);
  }

 private:
  std::unique_ptr<KOMappedFile> inner_;
  std::string path_;
  std::shared_ptr<Faults> faults_;
};

std::optional<std::string> KOSimFaultyFileSystem::readFile(const std::string& path, KOFileError* error) const {
  if (fires(KOFileFault::ReadError, path)) {
    if (error) *error = KOFileError{EIO, "injected read error"};
    return std::nullopt;
  }
  return target().readFile(path, error);
}

std::optional<std::string> KOSimFaultyFileSystem::readFileRange(const std::string& path, std::uint64_t offset,
                                                                std::size_t length, KOFileError* error) const {
  if (fires(KOFileFault::ReadError, path)) {
    if (error) *error = KOFileError{EIO, "injected read error"};
    return std::nullopt;
  }
  return target().readFileRange(path, offset, length, error);
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
    std::lock_guard<std::mutex> lock(faults_->mutex);
    if (faults_->fault == KOFileFault::CrashBeforeRename && faults_->fired > 0 &&
        path.find(".tmp-") != std::string::npos) {
      return true;
    }
  }
  return target().removeItem(path, error);
}

std::unique_ptr<KOMappedFile> KOSimFaultyFileSystem::mapFile(const std::string& path, std::size_t size,
                                                             KOFileError* error) {
  if (fires(KOFileFault::DiskFull, path)) {
    // The space runs out part-way: the file exists, with what could be allocated (never less than
    // it held), and nothing is mapped.
    if (size > 1) {
      const std::optional<std::string> held = target().readFile(path);
      const std::size_t had = held ? held->size() : 0;
      if (had < size / 2) target().mapFile(path, size / 2);
    }
    if (error) *error = KOFileError{ENOSPC, "injected full disk"};
    return nullptr;
  }
  if (fires(KOFileFault::IOError, path)) {
    if (error) *error = KOFileError{EIO, "injected I/O error"};
    return nullptr;
  }
  std::unique_ptr<KOMappedFile> mapped = target().mapFile(path, size, error);
  if (!mapped) return nullptr;
  return std::make_unique<FaultyMappedFile>(std::move(mapped), path, faults_);
}
