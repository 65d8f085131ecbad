#pragma once

// The faults the emulator has been told to inject, one per path, consumed by incoming requests.

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kovantis/emulator/KOEmulatorRecords.h"

class KOEmulatorFaults {
 public:
  // Throws std::invalid_argument when the fault could never do anything or is out of range.
  static void validate(const KOEmulatorFault& fault);
  static bool matches(const std::string& faultPath, const std::string& path);
  // A fault as POST /__emulator/fault takes it; throws std::invalid_argument when unusable.
  static KOEmulatorFault fromJSON(const std::string& text);

  void add(const KOEmulatorFault& fault);  // replaces a fault on the same path
  void clear(const std::string& path);     // empty clears all
  std::vector<KOEmulatorFault> list() const;

  // Decides whether this request is hit; counts it against the fault's budget and share.
  std::optional<KOEmulatorFault> take(const std::string& path, const std::string& body = {});

 private:
  struct Entry {
    KOEmulatorFault fault;
    double credit = 0;  // accumulated share; a request is hit each time it reaches 1
  };
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};
