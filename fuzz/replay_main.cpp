// Replays kept inputs through a fuzz target's entry point, without libFuzzer: every file named on
// the command line, or every file in a directory named there. A target aborts on a finding; an
// input that throws or crashes fails the run the same way.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> inputs;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path path(argv[i]);
    if (std::filesystem::is_directory(path)) {
      for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file()) inputs.push_back(entry.path());
      }
    } else {
      inputs.push_back(path);
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "no inputs to replay\n");
    return 1;
  }
  for (const auto& path : inputs) {
    std::ifstream file(path, std::ios::binary);
    std::string bytes(std::filesystem::file_size(path), '\0');
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
