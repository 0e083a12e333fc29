// Shared fixtures for the tests: a temporary home, file helpers, waiting.
#pragma once

#include <chrono>
#include <functional>
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

// The path of a built program in build/bin.
std::string binPath(const std::string& name);

}  // namespace quillon_test
