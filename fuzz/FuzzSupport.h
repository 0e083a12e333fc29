// Set-up shared by the fuzz targets.
//
// Each target runs with a throw-away home folder, so that nothing it reads
// or writes (caches, logs, preferences) touches the files of the user who
// runs it, and with the log switched off: bad input is logged line by line,
// and a fuzzer running for hours would otherwise spend its time, and the
// disk, on the log writer.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "MVLog.h"
#include "MVPropertyList.h"

namespace quillon_fuzz {

inline std::string& scratchHome() {
  static std::string home;
  return home;
}

// Call once from LLVMFuzzerInitialize, before any agent code runs: the
// standard locations and the log switch are read on first use.
inline void useScratchHome() {
  // A memory-backed folder when there is one: some targets write a file on
  // every input, and a disk would make them crawl.
  const std::filesystem::path base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
  // A run that crashes never reaches the clean-up at exit, so each run
  // first removes the folders of runs whose process is gone.
  const std::string prefix = "quillon-fuzz-";
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(base, ignored)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(prefix) && !std::filesystem::exists("/proc/" + name.substr(prefix.size()), ignored))
      std::filesystem::remove_all(entry.path(), ignored);
  }
  const std::string folder = (base / (prefix + std::to_string(getpid()))).string();
  std::filesystem::remove_all(folder, ignored);
  if (!std::filesystem::create_directory(folder, ignored)) {
    std::fprintf(stderr, "quillon fuzz: cannot create %s\n", folder.c_str());
    std::abort();
  }
  scratchHome() = folder;
  setenv("HOME", folder.c_str(), 1);
  setenv("XDG_CONFIG_HOME", (folder + "/.config").c_str(), 1);
  setenv("XDG_CACHE_HOME", (folder + "/.cache").c_str(), 1);
  setenv("XDG_STATE_HOME", (folder + "/.local/state").c_str(), 1);
  setenv("XDG_DATA_HOME", (folder + "/.local/share").c_str(), 1);
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(scratchHome(), ignored);
  });

  MVPlistValue switches;
  switches.set(MVGlobalPreferences::kDisableLoggingKey, "1");
  switches.set(MVGlobalPreferences::kDisableCrashReporterKey, "1");
  if (!MVPropertyList::write(MVGlobalPreferences::path(), switches)) {
    std::fprintf(stderr, "quillon fuzz: cannot write %s\n", MVGlobalPreferences::path().c_str());
    std::abort();
  }
  // The switch is read when a log is started.
  MVLog::createNewLog("quillon-fuzz", true);
  if (!MVLog::sharedController().loggingDisabled()) {
    std::fprintf(stderr, "quillon fuzz: the log did not switch off\n");
    std::abort();
  }
}

// Every target's LLVMFuzzerInitialize: a scratch home and the log off.
#define QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()         \
  extern "C" int LLVMFuzzerInitialize(int*, char***) { \
    quillon_fuzz::useScratchHome();                     \
    return 0;                                           \
  }

inline std::string_view asText(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Reads every value below `value` the ways the agent's settings readers do:
// as the switch integers, reals, booleans and descriptions that reach the log.
inline void touchEveryValue(const MVPlistValue& value, int depth = 0) {
  // Deep nesting is legal input, but a walk as deep as the file is long
  // only measures the stack.
  if (depth > 64) return;
  // Unsigned, so that the sum of extreme values wraps instead of overflowing.
  volatile unsigned long long sink = static_cast<unsigned long long>(value.integerValue());
  sink = sink + value.boolValue() + (value.doubleValue() > 0) + value.count();
  (void)sink;
  if (const MVPlistValue::Array* array = value.array()) {
    for (const MVPlistValue& element : *array) touchEveryValue(element, depth + 1);
  } else if (const MVPlistValue::Dictionary* dictionary = value.dictionary()) {
    for (const auto& [key, element] : *dictionary) {
      (void)key;
      touchEveryValue(element, depth + 1);
    }
  }
}

}  // namespace quillon_fuzz
