// MVTaskProcess: one external program, from launch to reaping.
//
// The handle is created before the program starts, so that whoever holds it
// (a caller of MVTaskEx, a time-out) can terminate the program as soon as it
// runs. It starts the program with an argument vector (never through a
// shell), with its standard streams as configured, and owns the child until
// it has been reaped: a handle released while its program still runs leaves
// a reaper thread behind, so the agent never collects zombies.
//
// Threads: configure and launch from one thread; isRunning(), terminate(),
// waitUntilExit() and the getters may then be called from any thread.
//
// Platforms: on Linux the program becomes the leader of its own process
// group and terminate() signals the whole group, so that a script's
// children do not keep the output pipes open after a time-out. Launching
// uses fork/exec, which exists on macOS as well.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// An owned file descriptor, closed on destruction.
class MVUniqueFd {
 public:
  MVUniqueFd() = default;
  explicit MVUniqueFd(int fd) : fd_(fd) {}
  MVUniqueFd(MVUniqueFd&& other) noexcept : fd_(other.release()) {}
  MVUniqueFd& operator=(MVUniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  MVUniqueFd(const MVUniqueFd&) = delete;
  MVUniqueFd& operator=(const MVUniqueFd&) = delete;
  ~MVUniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

class MVTaskProcess {
 public:
  // Where a standard stream of the program goes.
  enum class Stream {
    kNullDevice,  // /dev/null
    kInherit,     // the agent's own stream
    kPipe,        // a pipe whose reading end the launcher hands back
  };

  struct Options {
    // Replaces the whole environment when set; otherwise the agent's is inherited.
    std::optional<std::map<std::string, std::string>> environment;
    Stream output = Stream::kNullDevice;
    Stream error = Stream::kNullDevice;
  };

  // Reading ends of the pipes asked for in Options (invalid otherwise).
  struct Pipes {
    MVUniqueFd output;
    MVUniqueFd error;
  };

  static std::shared_ptr<MVTaskProcess> create(std::string launchPath, std::vector<std::string> arguments);

  MVTaskProcess(const MVTaskProcess&) = delete;
  MVTaskProcess& operator=(const MVTaskProcess&) = delete;
  ~MVTaskProcess();

  const std::string& launchPath() const { return launchPath_; }
  const std::vector<std::string>& arguments() const { return arguments_; }

  // Starts the program once. Standard input is a fresh pipe that nobody
  // writes to; its writing end is closed at launch, so a program that reads
  // input sees end of file instead of waiting for ever. The launch path must
  // be absolute. On failure
  // returns false with the reason (for example "No such file or directory"),
  // also when exec itself failed in the child.
  [[nodiscard]] bool launch(const Options& options, Pipes& pipes, std::string& reason);

  bool isLaunched() const;
  // Launched and not yet exited.
  bool isRunning();
  // Sends SIGTERM to the program (and its process group) when it is running;
  // does nothing before launch or after exit.
  void terminate();
  // Blocks until the program has exited and returns its termination status:
  // the exit code, or the signal number when a signal ended it; -1 when it
  // never launched.
  int waitUntilExit();
  // True when a signal ended the program.
  bool terminatedBySignal();
  pid_t processIdentifier() const;

 private:
  MVTaskProcess(std::string launchPath, std::vector<std::string> arguments);
  // Collects the child if it has exited. Caller holds mutex_.
  bool reapLocked(bool block);

  const std::string launchPath_;
  const std::vector<std::string> arguments_;

  mutable std::mutex mutex_;
  pid_t pid_ = -1;
  bool launched_ = false;
  bool reaped_ = false;
  int status_ = -1;
  bool bySignal_ = false;
};
