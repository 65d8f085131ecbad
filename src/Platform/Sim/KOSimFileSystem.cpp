#include "KOSimFileSystem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

bool fail(KOFileError* error, int code, const std::string& what) {
  if (error) {
    error->code = code;
    error->message = what + ": " + std::strerror(code);
  }
  return false;
}

}  // namespace

KOSimFileSystem::KOSimFileSystem(std::string sandboxDirectory) : sandbox_(std::move(sandboxDirectory)) {
  prepareSandbox();
}

void KOSimFileSystem::prepareSandbox() {
  std::error_code ec;
  for (const char* dir : {"/Documents", "/Library/Preferences", "/Library/Caches", "/tmp"}) {
    fs::create_directories(sandbox_ + dir, ec);
  }
}

std::string KOSimFileSystem::documentsDirectory() const { return sandbox_ + "/Documents"; }
std::string KOSimFileSystem::cachesDirectory() const { return sandbox_ + "/Library/Caches"; }
std::string KOSimFileSystem::temporaryDirectory() const { return sandbox_ + "/tmp"; }

std::optional<std::string> KOSimFileSystem::readFile(const std::string& path, KOFileError* error) const {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    fail(error, errno, "open " + path);
    return std::nullopt;
  }
  std::string out;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      fail(error, errno, "read " + path);
      ::close(fd);
      return std::nullopt;
    }
    out.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return out;
}

std::optional<std::string> KOSimFileSystem::readFileRange(const std::string& path, std::uint64_t offset,
                                                          std::size_t length, KOFileError* error) const {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    fail(error, errno, "open " + path);
    return std::nullopt;
  }
  std::string out(length, '\0');
  std::size_t got = 0;
  while (got < length) {
    const ssize_t n = ::pread(fd, out.data() + got, length - got, static_cast<off_t>(offset + got));
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      fail(error, errno, "read " + path);
      ::close(fd);
      return std::nullopt;
    }
    got += static_cast<std::size_t>(n);
  }
  ::close(fd);
  out.resize(got);
  return out;
}

namespace {

bool writeAll(int fd, std::string_view bytes) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    written += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

bool KOSimFileSystem::writeFileInPieces(const std::string& path,
                                        const std::function<bool(const KOPieceWriter&)>& produce, KOFileError* error,
                                        unsigned mode) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, static_cast<mode_t>(mode));
  if (fd < 0) return fail(error, errno, "open " + path);
  ::fchmod(fd, static_cast<mode_t>(mode));  // the umask must not widen or narrow what was asked
  int code = 0;
  const bool produced = produce([&](std::string_view piece) {
    if (writeAll(fd, piece)) return true;
    code = errno;
    return false;
  });
  if (!produced) {
    ::close(fd);
    return fail(error, code ? code : ECANCELED, "write " + path);
  }
  if (::fsync(fd) != 0) {
    code = errno;
    ::close(fd);
    return fail(error, code, "fsync " + path);
  }
  if (::close(fd) != 0) return fail(error, errno, "close " + path);
  return true;
}

bool KOSimFileSystem::writeFile(const std::string& path, std::string_view bytes, KOFileError* error, unsigned mode) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, static_cast<mode_t>(mode));
  if (fd < 0) return fail(error, errno, "open " + path);
  ::fchmod(fd, static_cast<mode_t>(mode));  // the umask must not widen or narrow what was asked
  if (!writeAll(fd, bytes)) {
    const int code = errno;
    ::close(fd);
    return fail(error, code, "write " + path);
  }
  if (::fsync(fd) != 0) {
    const int code = errno;
    ::close(fd);
    return fail(error, code, "fsync " + path);
  }
  if (::close(fd) != 0) return fail(error, errno, "close " + path);
  return true;
}

bool KOSimFileSystem::renameFile(const std::string& from, const std::string& to, KOFileError* error) {
  if (::rename(from.c_str(), to.c_str()) != 0) return fail(error, errno, "rename " + from);
  return true;
}

bool KOSimFileSystem::removeItem(const std::string& path, KOFileError* error) {
  std::error_code ec;
  fs::remove_all(path, ec);
  if (ec) return fail(error, ec.value(), "remove " + path);
  return true;
}

bool KOSimFileSystem::createDirectories(const std::string& path, KOFileError* error) {
  std::error_code ec;
  fs::create_directories(path, ec);
  if (ec) return fail(error, ec.value(), "mkdir " + path);
  return true;
}

bool KOSimFileSystem::fileExists(const std::string& path) const {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> KOSimFileSystem::listDirectory(const std::string& path) const {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec)) {
    names.push_back(it->path().filename().string());
  }
  return names;
}

namespace {

// Gives [from, to) real blocks. A page of a shared mapping that the file system cannot back is a
// SIGBUS at the store that touches it, not an error: a sparse file (ftruncate alone) turns a full
// disk into a crash. On failure the file goes back to `had` bytes and errno says why.
bool reserve(int fd, std::size_t from, std::size_t to, std::size_t had) {
  const int code = ::posix_fallocate(fd, static_cast<off_t>(from), static_cast<off_t>(to - from));
  if (code == 0) return true;
  // What was allocated before the space ran out is given back.
  const bool restored = ::ftruncate(fd, static_cast<off_t>(had)) == 0;
  (void)restored;
  errno = code;
  return false;
}

class KOSimMappedFile : public KOMappedFile {
 public:
  KOSimMappedFile(int fd, char* data, std::size_t size) : fd_(fd), data_(data), size_(size) {}
  ~KOSimMappedFile() override {
    ::munmap(data_, size_);
    ::close(fd_);
  }
  char* data() override { return data_; }
  std::size_t size() const override { return size_; }
  bool resize(std::size_t size) override {
    if (size < size_ || !reserve(fd_, size_, size, size_)) return false;
    void* moved = ::mremap(data_, size_, size, MREMAP_MAYMOVE);  // the pages move, no byte is copied
    if (moved == MAP_FAILED) return false;
    data_ = static_cast<char*>(moved);
    size_ = size;
    return true;
  }

 private:
  int fd_;
  char* data_;
  std::size_t size_;
};

}  // namespace

std::unique_ptr<KOMappedFile> KOSimFileSystem::mapFile(const std::string& path, std::size_t size, KOFileError* error) {
  if (size == 0) {
    fail(error, EINVAL, "map " + path);
    return nullptr;
  }
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    fail(error, errno, "open " + path);
    return nullptr;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    const int code = errno;
    ::close(fd);
    fail(error, code, "stat " + path);
    return nullptr;
  }
  const auto had = static_cast<std::size_t>(st.st_size);
  // From the start: a file left sparse by an older writer is backed too before anything touches it.
  if ((had > size && ::ftruncate(fd, static_cast<off_t>(size)) != 0) || !reserve(fd, 0, size, std::min(had, size))) {
    const int code = errno;
    ::close(fd);
    fail(error, code, "reserve " + path);
    return nullptr;
  }
  void* data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (data == MAP_FAILED) {
    const int code = errno;
    ::close(fd);
    fail(error, code, "map " + path);
    return nullptr;
  }
  return std::make_unique<KOSimMappedFile>(fd, static_cast<char*>(data), size);  // kept open to grow
}
