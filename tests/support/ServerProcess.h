// A Python helper server under tests/support as a child process: its standard error in a log file, ready once
// it writes its ready file, killed by its id when the object goes.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "TestSupport.h"

extern char** environ;

namespace quillon_test {

// A self-signed certificate for localhost and 127.0.0.1: DIR/cert.pem, DIR/key.pem.
inline bool makeCertificate(const std::string& dir, bool withAddress = true) {
  return shell("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -addext subjectAltName=DNS:localhost" +
               std::string(withAddress ? ",IP:127.0.0.1" : "") + " -keyout " + dir + "/key.pem -out " + dir +
               "/cert.pem >/dev/null 2>&1") == 0;
}

class ServerProcess {
 public:
  // Runs tests/support/`script` with `arguments` and "--ready DIR/ready".
  ServerProcess(const std::string& script, std::vector<std::string> arguments, const std::string& dir)
      : dir_(dir) {
    arguments.insert(arguments.begin(), {"/usr/bin/python3", std::string(QUILLON_SOURCE_DIR) + "/tests/support/" + script});
    arguments.insert(arguments.end(), {"--ready", dir + "/ready"});
    std::vector<char*> argv;
    for (auto& a : arguments) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, (dir + "/server.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (pid_ > 0 && waitUntil([&] { return fileExists(dir + "/ready"); }, 30)) ready_ = readFile(dir + "/ready");
  }
  ~ServerProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // What the server wrote to its ready file; empty while it is not ready.
  const std::string& ready() const { return ready_; }
  std::string log() const { return fileExists(dir_ + "/server.log") ? readFile(dir_ + "/server.log") : ""; }

 private:
  std::string dir_;
  pid_t pid_ = -1;
  std::string ready_;
};

}  // namespace quillon_test
