// For tests that run the app as a child process and kill it: the child started with its standard
// output on a pipe, and a device directory beside an emulator that outlive every child of a test
// (both removed when the test ends, however it ends).
#pragma once

#include <spawn.h>
#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "kovantis/emulator/KOEmulator.h"

extern char** environ;

struct KOChildProcess {
  pid_t pid = -1;
  int output = -1;  // read end of the child's standard output

  /// Starts args[0] with the arguments; an empty result (pid -1) when it could not start.
  static KOChildProcess spawn(std::vector<std::string> args) {
    int fds[2];
    if (::pipe(fds) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    KOChildProcess child;
    const int rc = posix_spawn(&child.pid, args[0].c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    if (rc != 0) {
      ::close(fds[0]);
      return {};
    }
    child.output = fds[0];
    return child;
  }
};

struct KOChildProcessRig {
  std::string base;
  std::string root;  // the device's directory, handed to each child
  KOEmulator emulator;
  int port;

  explicit KOChildProcessRig(const std::string& name)
      : base((std::filesystem::temp_directory_path() / name).string()),
        root(base + "/device"),
        emulator(options(base)),
        port((std::filesystem::create_directories(root), emulator.start(0))) {}
  ~KOChildProcessRig() {
    emulator.stop();
    std::filesystem::remove_all(base);
  }
  KOChildProcessRig(const KOChildProcessRig&) = delete;
  KOChildProcessRig& operator=(const KOChildProcessRig&) = delete;

 private:
  static KOEmulator::Options options(const std::string& base) {
    KOEmulator::Options o;
    o.dataDir = base + "/emulator";
    return o;
  }
};
