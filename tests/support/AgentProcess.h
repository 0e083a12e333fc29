// The built agent as its own process in a temporary home, in its own mount
// namespace (run-agent.sh), so the machine's /var/log is never touched.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "MVRunLoop.h"
#include "PrivateSessionBus.h"
#include "TestSupport.h"

extern char** environ;

namespace quillon_test {

inline std::string agentSettingsPath(const std::string& home) { return home + "/.config/com.morvane.Quillon.plist"; }

// Writes the agent's settings as the preferences application does; `json`: the root dictionary.
inline bool writeAgentSettings(const std::string& home, const std::string& json) {
  return shell("/usr/bin/python3 " + std::string(QUILLON_SOURCE_DIR) + "/tests/support/write-settings.py '" +
               agentSettingsPath(home) + "' '" + json + "'") == 0;
}

// A movie big enough to be announced, written in one go.
inline void writeMovie(const std::string& path) { writeFile(path, std::string(300000, 'f')); }

// A private session bus with a notification server that records each call.
struct NotifyingBus {
  PrivateSessionBus bus;
  Mock server = bus.startMock("org.freedesktop.Notifications", "notification_daemon");
  bool ready() const { return server.started(); }
  // The agent's notifications whose text holds `part`.
  std::size_t notified(const std::string& part) const { return linesWith(server.log(), "Notify \"Quillon\" ", part); }
};

// One run of the agent with HOME set to `home`; `logDir` stands for /var/log/Morvane (new when empty).
class Agent {
 public:
  explicit Agent(const std::string& home, const std::vector<std::string>& arguments = {},
                 const std::string& logDir = "")
      : logDir_(logDir.empty() ? makeTempDir("agent-log") : logDir), output_(logDir_ + "/output.txt") {
    // env and the wrapper exec all the way down, so the pid is the agent's.
    std::vector<std::string> args = {"/usr/bin/env", "HOME=" + home, "/bin/sh",
                                     std::string(QUILLON_SOURCE_DIR) + "/tests/support/run-agent.sh", logDir_,
                                     binPath("quillon-helper")};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    // What the agent prints goes to a file beside the log.
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 1, output_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&files, 1, 2);
    if (posix_spawn(&pid_, argv[0], &files, nullptr, argv.data(), environ) != 0) pid_ = 0;
    posix_spawn_file_actions_destroy(&files);
  }
  ~Agent() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  void signal(int signo) const {
    if (pid_ > 0) kill(pid_, signo);
  }

  // Sends `signo` and waits for the end; the raw wait status, or -1.
  int stop(int signo = SIGTERM) {
    if (pid_ <= 0) return -1;
    kill(pid_, signo);
    int status = -1;
    bool ended = waitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, 20);
    if (!ended) return -1;
    pid_ = 0;
    return status;
  }
  bool running() {
    int status = 0;
    return pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0;
  }

  std::string log() const { return readFile(logDir_ + "/quillon-helper.1.log"); }
  std::string output() const { return readFile(output_); }
  std::size_t logCount(const std::string& part) const { return timesIn(log(), part); }
  // A folder's watch is live once an event for it shows in the log: a probe
  // (no media file, never announced) is written until the agent logs one.
  bool waitUntilWatching(const std::string& folder, double seconds) {
    const std::string event = "path = " + folder + "/;";
    std::size_t before = logCount(event);
    int n = 0;
    return waitUntil([&] {
      writeFile(folder + "/probe.txt", std::to_string(++n));
      MVRunLoop::main().runFor(0.2);
      return logCount(event) > before || !running();
    }, seconds) && logCount(event) > before;
  }
  bool waitForLog(const std::string& part, std::size_t count, double seconds) {
    return waitUntil([&] { return logCount(part) >= count || !running(); }, seconds) && logCount(part) >= count;
  }

 private:
  std::string logDir_;
  std::string output_;
  pid_t pid_ = 0;
};

}  // namespace quillon_test
