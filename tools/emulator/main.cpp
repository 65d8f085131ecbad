// kovantis-emulator: serves the SDK's service calls on 127.0.0.1 until SIGINT or SIGTERM.

#include <pthread.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

#include "kovantis/emulator/KOEmulator.h"

namespace {

int usage(const char *self) {
  std::cerr << "usage: " << self << " --port N --data DIR [--seed FILE] [--images DIR] [--quiet]\n"
            << "  --port 0 picks a free port; the chosen one is printed on the first line.\n"
            << "  --images DIR serves the files under DIR at /images/<relative path>.\n";
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  KOEmulator::Options options;
  int port = -1;
  bool quiet = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
    if (arg == "--port") {
      const char *v = value();
      if (!v) return usage(argv[0]);
      char *end = nullptr;
      long p = std::strtol(v, &end, 10);
      if (*v == '\0' || *end != '\0' || p < 0 || p > 65535) return usage(argv[0]);
      port = static_cast<int>(p);
    } else if (arg == "--data") {
      const char *v = value();
      if (!v) return usage(argv[0]);
      options.dataDir = v;
    } else if (arg == "--seed") {
      const char *v = value();
      if (!v) return usage(argv[0]);
      options.seedFile = v;
    } else if (arg == "--images") {
      const char *v = value();
      if (!v) return usage(argv[0]);
      options.imagesDir = v;
    } else if (arg == "--quiet") {
      quiet = true;
    } else {
      return usage(argv[0]);
    }
  }
  if (port < 0 || options.dataDir.empty()) return usage(argv[0]);
  options.logRequests = !quiet;

  // Block the stop signals before any thread exists, so every thread inherits the mask and
  // only sigwait below receives them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  sigset_t blocked = stopSignals;
  sigaddset(&blocked, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);

  try {
    KOEmulator emulator(options);
    int bound = emulator.start(port);
    std::cout << "kovantis-emulator listening on " << options.bindAddress << ":" << bound << std::endl;
    int received = 0;
    sigwait(&stopSignals, &received);
    std::cout << "kovantis-emulator stopping (signal " << received << ")" << std::endl;
    emulator.stop();
  } catch (const std::exception &e) {
    std::cerr << "kovantis-emulator: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
