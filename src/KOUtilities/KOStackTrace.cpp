#include "KOStackTrace.h"

#include <execinfo.h>

#include <cstdlib>
#include <memory>
#include <vector>

std::string KOStackTrace::current(int maxFrames) {
  std::vector<void*> frames(static_cast<std::size_t>(maxFrames > 0 ? maxFrames + 1 : 2));
  const int n = ::backtrace(frames.data(), static_cast<int>(frames.size()));
  std::unique_ptr<char*, decltype(&std::free)> symbols(::backtrace_symbols(frames.data(), n), &std::free);
  std::string out;
  for (int i = 1; i < n; ++i) {
    out += symbols ? symbols.get()[i] : "?";
    out += '\n';
  }
  return out;
}
