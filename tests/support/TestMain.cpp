// Test entry: every test process runs in a temporary HOME with the XDG
// variables cleared, and with the platform main loop installed on this thread.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "MVLog.h"
#include "MVRunLoop.h"
#include "PlatformLinux.h"

namespace quillon_test {
void setTestHome(const std::string& home);
}

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);

  std::string templ = std::filesystem::temp_directory_path().string() + "/quillon-test-home.XXXXXX";
  if (!mkdtemp(templ.data())) return 2;
  setenv("HOME", templ.c_str(), 1);
  for (const char* var : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME",
                          "XDG_RUNTIME_DIR_OVERRIDE"})
    unsetenv(var);
  quillon_test::setTestHome(templ);
  // Tests run as root; keep the log in the temporary home, not /var/log.
  MVLog::overrideRunningAsRoot(false);

  MVRunLoop::setMain(quillon::createPlatformRunLoop());
  int rc = RUN_ALL_TESTS();

  if (!getenv("QUILLON_KEEP_TEST_HOME")) {
    std::error_code ec;
    std::filesystem::remove_all(templ, ec);
  }
  return rc;
}
