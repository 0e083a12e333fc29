// The HTTPS server of tests/support/push-server.py, standing for every push service:
// started by the test on 127.0.0.1 with a certificate the test makes, and
// stopped by its id. What each request carried is read back as records.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"

extern char** environ;

namespace quillon_test {

struct PushRequest {
  std::string method;
  std::string path;
  std::vector<std::string> headers;  // "name: value", names in lower case
  std::map<std::string, std::string> fields;

  bool hasHeader(const std::string& line) const {
    for (const auto& h : headers)
      if (h == line) return true;
    return false;
  }
  std::string text() const {
    std::string t = method + " " + path + "\n";
    for (const auto& h : headers) t += "  " + h + "\n";
    for (const auto& [k, v] : fields) t += "  " + k + "=" + v + "\n";
    return t;
  }
};

// A self-signed certificate for 127.0.0.1 and localhost: DIR/cert.pem, DIR/key.pem.
inline bool makeCertificate(const std::string& dir) {
  return shell("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost"
               " -addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout " + dir + "/key.pem -out " + dir +
               "/cert.pem >/dev/null 2>&1") == 0;
}

class PushServer {
 public:
  // `script`: the JSON answers by path prefix (see server.py), or empty.
  PushServer(const std::string& certDir, const std::string& script = "{}") {
    dir_ = makeTempDir("push-server");
    writeFile(dir_ + "/script.json", script);
    std::vector<std::string> args{"/usr/bin/python3", std::string(QUILLON_SOURCE_DIR) + "/tests/support/push-server.py",
                                  "--cert", certDir + "/cert.pem", "--key", certDir + "/key.pem",
                                  "--out", dir_ + "/requests", "--ready", dir_ + "/port",
                                  "--script", dir_ + "/script.json"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, (dir_ + "/server.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (pid_ > 0 && waitUntil([&] { return fileExists(dir_ + "/port"); }, 30)) port_ = std::stoi(readFile(dir_ + "/port"));
  }
  ~PushServer() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  PushServer(const PushServer&) = delete;
  PushServer& operator=(const PushServer&) = delete;

  bool isReady() const { return port_ > 0; }
  int port() const { return port_; }
  // "https://127.0.0.1:PORT".
  std::string base() const { return "https://127.0.0.1:" + std::to_string(port_); }
  std::string log() const { return fileExists(dir_ + "/server.log") ? readFile(dir_ + "/server.log") : ""; }
  void setScript(const std::string& script) { writeFile(dir_ + "/script.json", script); }

  std::vector<PushRequest> requests() const {
    std::vector<PushRequest> all;
    if (!fileExists(dir_ + "/requests")) return all;
    std::istringstream lines(readFile(dir_ + "/requests"));
    PushRequest r;
    for (std::string line; std::getline(lines, line);) {
      auto space = line.find(' ');
      std::string key = line.substr(0, space), value = space == std::string::npos ? "" : line.substr(space + 1);
      if (key == "METHOD") r.method = value;
      else if (key == "PATH") r.path = value;
      else if (key == "HEADER") r.headers.push_back(value);
      else if (key == "FIELD") r.fields[value.substr(0, value.find('='))] = value.substr(value.find('=') + 1);
      else if (key == "END") all.push_back(std::exchange(r, PushRequest{}));
    }
    return all;
  }
  std::vector<PushRequest> requestsTo(const std::string& pathPrefix) const {
    std::vector<PushRequest> out;
    for (auto& r : requests())
      if (r.path.rfind(pathPrefix, 0) == 0) out.push_back(r);
    return out;
  }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  std::string dir_;
};

}  // namespace quillon_test
