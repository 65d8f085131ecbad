// The simulated device's files: real POSIX files under a sandbox directory.
#pragma once

#include <string>

#include "kovantis/KOPlatform.h"

class KOSimFileSystem : public KOFileSystem {
 public:
  explicit KOSimFileSystem(std::string sandboxDirectory);

  /// Creates the sandbox's standard directories when they are missing.
  void prepareSandbox();
  const std::string& sandboxDirectory() const { return sandbox_; }

  std::string documentsDirectory() const override;
  std::string cachesDirectory() const override;
  std::string temporaryDirectory() const override;
  std::optional<std::string> readFile(const std::string& path, KOFileError* error = nullptr) const override;
  std::optional<std::string> readFileRange(const std::string& path, std::uint64_t offset, std::size_t length,
                                           KOFileError* error = nullptr) const override;
  bool writeFileInPieces(const std::string& path, const std::function<bool(const KOPieceWriter&)>& produce,
                         KOFileError* error = nullptr, unsigned mode = 0644) override;
  bool writeFile(const std::string& path, std::string_view bytes, KOFileError* error = nullptr,
                 unsigned mode = 0644) override;
  bool renameFile(const std::string& from, const std::string& to, KOFileError* error = nullptr) override;
  bool removeItem(const std::string& path, KOFileError* error = nullptr) override;
  bool createDirectories(const std::string& path, KOFileError* error = nullptr) override;
  bool fileExists(const std::string& path) const override;
  std::vector<std::string> listDirectory(const std::string& path) const override;
  std::unique_ptr<KOMappedFile> mapFile(const std::string& path, std::size_t size,
                                        KOFileError* error = nullptr) override;

 private:
  std::string sandbox_;
};
