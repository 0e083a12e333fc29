// Shared fixtures for the tests: a temporary home, file helpers, waiting.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace quillon_test {

// The temporary HOME of this test process (created by the test main, with
// the XDG_* variables cleared so every folder lies inside it).
const std::string& testHome();

// A fresh empty folder inside the test home.
std::string makeTempDir(const std::string& prefix = "dir");

void writeFile(const std::string& path, const std::string& contents);
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);

// Turns the main loop until `condition` is true or `timeoutSeconds` pass.
bool waitUntil(const std::function<bool()>& condition, double timeoutSeconds);

// Runs a command through /bin/sh and returns its exit status (test-side only).
int shell(const std::string& command);
std::string shellOutput(const std::string& command);
// `text` as one shell word.
std::string shellQuote(const std::string& text);
// Runs a Python script with Debian's modules (plistlib, dbusmock...); its exit status.
int python3(const std::string& script);

// Moves this process into network (and, asked, host-name) namespaces of its
// own with only the loopback up, so nothing a test starts reaches a real
// network; "" or why it failed.
std::string enterPrivateNetwork(bool ownHostName = false);

// The path of a built program in build/bin.
std::string binPath(const std::string& name);

// How often `part` occurs in `text`.
std::size_t timesIn(const std::string& text, const std::string& part);
// Lines of `text` that hold `part` and, when given, `also`.
std::size_t linesWith(const std::string& text, const std::string& part, const std::string& also = "");

// Sets (or, with nullopt, unsets) an environment variable for one scope.
class EnvOverride {
 public:
  EnvOverride(const char* name, std::optional<std::string> value);
  ~EnvOverride();
  EnvOverride(const EnvOverride&) = delete;
  EnvOverride& operator=(const EnvOverride&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// This process's log (MVLog) from the moment the reader was made on.
class LogSince {
 public:
  LogSince();
  std::string text() const;
  std::size_t count(const std::string& part) const { return timesIn(text(), part); }

 private:
  std::size_t offset_ = 0;
};

}  // namespace quillon_test
