// kovantis-emulator: serves the SDK's service calls on 127.0.0.1 until SIGINT or SIGTERM.

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "kovantis/emulator/KOEmulator.h"

// KOEmulatorPreview.cpp: a seeded campaign drawn as the simulated phone shows it.
std::string kovantisCampaignPreview(const std::string& campaignJSON);

namespace {

struct Settings {
  KOEmulator::Options emulator;
  int port = -1;
  bool quiet = false;
  bool help = false;
};

// Every option, with what --help says of it: the parser reads this table, so an option cannot be
// accepted without being documented.
struct Option {
  const char* name;
  const char* argument;  // nullptr: a flag
  const char* help;
  // Why the value is unusable; empty when it was taken.
  std::function<std::string(Settings&, const std::string&)> apply;
};

std::string directory(std::string& into, const std::string& value) {
  into = value;
  return value.empty() ? "an empty directory name" : "";
}

const std::vector<Option>& options() {
  static const std::vector<Option> table = {
      {"--port", "N", "port to listen on, on 127.0.0.1 (required); 0 picks a free one",
       [](Settings& s, const std::string& v) -> std::string {
         char* end = nullptr;
         errno = 0;
         const long p = std::strtol(v.c_str(), &end, 10);
         if (v.empty() || *end != '\0' || v.find_first_not_of("0123456789") != std::string::npos) {
           return "not a port number";
         }
         if (errno == ERANGE || p > 65535) return "out of range: a port is 0 to 65535";
         s.port = static_cast<int>(p);
         return "";
       }},
      {"--data", "DIR", "directory of the store, DIR/emulator.sqlite (required); created when missing",
       [](Settings& s, const std::string& v) { return directory(s.emulator.dataDir, v); }},
      {"--seed", "FILE", "JSON seed applied at start: config, in-app campaigns, inbox, geofences, images",
       [](Settings& s, const std::string& v) -> std::string {
         s.emulator.seedFile = v;
         return v.empty() ? "an empty file name" : "";
       }},
      {"--images", "DIR", "serve the files under DIR at /images/<relative path>",
       [](Settings& s, const std::string& v) { return directory(s.emulator.imagesDir, v); }},
      {"--quiet", nullptr, "do not log each service call on stderr",
       [](Settings& s, const std::string&) {
         s.quiet = true;
         return std::string();
       }},
      {"--help", nullptr, "print this help and exit",
       [](Settings& s, const std::string&) {
         s.help = true;
         return std::string();
       }},
  };
  return table;
}

void printHelp(std::ostream& out, const char* self) {
  out << "usage: " << self << " --port N --data DIR [--seed FILE] [--images DIR] [--quiet]\n\n"
      << "A local stand-in for the Kovantis service: answers every call the SDK makes, stores what it\n"
      << "received and fails on demand. Stops cleanly on SIGINT or SIGTERM.\n\n"
      << "options:\n";
  for (const Option& o : options()) {
    std::string left = std::string(o.name) + (o.argument ? std::string(" ") + o.argument : "");
    left.resize(std::max<size_t>(left.size() + 2, 16), ' ');
    out << "  " << left << o.help << '\n';
  }
  out << "\nThe first line printed is \"kovantis-emulator listening on 127.0.0.1:PORT\"; the next ones give\n"
      << "the control API (" << KOEmulator::kControlPath << ": health, requests, events, batches, devices,\n"
      << "logs, categories, duplicates, seed, fault, reset), the dashboard (served at /, its files under\n"
      << KOEmulator::kDashboardPath << ") and the run's token: seed, fault and reset need it in the header\n"
      << KOEmulator::kTokenHeader << ".\n";
}

// A wrong command line: one line that names the argument and says why, as a script's log shows it.
int refuse(const std::string& why) {
  std::cerr << "kovantis-emulator: " << why << " (--help lists the options)" << std::endl;
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const Option* option = nullptr;
    for (const Option& o : options()) {
      if (arg == o.name) option = &o;
    }
    if (!option) return refuse("unknown option " + arg);
    std::string value;
    if (option->argument) {
      if (i + 1 >= argc) return refuse(arg + " needs a value: " + arg + " " + option->argument);
      value = argv[++i];
    }
    if (const std::string why = option->apply(settings, value); !why.empty()) {
      return refuse(arg + " " + value + ": " + why);
    }
  }
  if (settings.help) {
    printHelp(std::cout, argv[0]);
    return 0;
  }
  if (settings.port < 0) return refuse("--port N is required (0 picks a free port)");
  if (settings.emulator.dataDir.empty()) return refuse("--data DIR is required (the directory of its store)");
  settings.emulator.logRequests = !settings.quiet;
  settings.emulator.campaignPicture = kovantisCampaignPreview;

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
    KOEmulator emulator(settings.emulator);
    int bound = emulator.start(settings.port);
    std::cout << "kovantis-emulator listening on " << settings.emulator.bindAddress << ":" << bound << "\n"
              << "  control API  " << emulator.controlURL() << "health (and requests, events, seed, fault, reset)\n"
              << "  dashboard    " << emulator.dashboardURL()
              << "\n"
              // A script outside the browser changes the emulator with this; any reader of this
              // terminal may, as its user may anyway.
              << "  token        " << emulator.controlToken() << " (header " << KOEmulator::kTokenHeader
              << ", needed by seed, fault and reset)" << std::endl;
    int received = 0;
    sigwait(&stopSignals, &received);
    std::cout << "kovantis-emulator stopping (signal " << received << ")" << std::endl;
    emulator.stop();
  } catch (const std::exception& e) {
    std::cerr << "kovantis-emulator: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
