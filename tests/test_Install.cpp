// An installation lands where the session looks, and the installed tool finds its files.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "TestSupport.h"

namespace {

namespace fs = std::filesystem;
using quillon_test::readFile;
using quillon_test::shell;
using quillon_test::shellOutput;

bool isExecutable(const std::string& path) { return ::access(path.c_str(), X_OK) == 0 && fs::is_regular_file(path); }

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string install(const std::string& prefix, const std::string& destdir = "") {
  return shellOutput((destdir.empty() ? "" : "DESTDIR='" + destdir + "' ") + "cmake --install '" +
                     std::string(QUILLON_BINARY_DIR) + "' --prefix '" + prefix + "' 2>&1; echo status=$?");
}

TEST(InstallTest, PutsEveryFileWhereTheSessionFindsIt) {
  const std::string prefix = quillon_test::makeTempDir("prefix");
  std::string log = install(prefix);
  ASSERT_TRUE(contains(log, "status=0")) << log;

  for (const char* program : {"quillon-helper", "quillon-prefs"})
    EXPECT_TRUE(isExecutable(prefix + "/bin/" + program)) << program;
  // The resources' files, not the README's screenshots folder.
  for (const auto& entry : fs::directory_iterator(std::string(QUILLON_SOURCE_DIR) + "/resources"))
    if (entry.is_regular_file()) {
      EXPECT_TRUE(fs::is_regular_file(prefix + "/share/quillon/" + entry.path().filename().string())) << entry.path();
    }
  EXPECT_FALSE(fs::exists(prefix + "/share/quillon/screenshots"));

  const std::string unit = readFile(prefix + "/lib/systemd/user/quillon.service");
  const std::string lines[] = {"ExecStart=" + prefix + "/bin/quillon-helper\n", "ExecReload=/bin/kill -HUP $MAINPID\n",
                               "Restart=on-failure\n", "WantedBy=graphical-session.target\n"};
  for (const auto& line : lines)
    EXPECT_TRUE(contains(unit, line)) << line << unit;
  if (shell("command -v systemd-analyze >/dev/null") == 0) {
    EXPECT_EQ(shell("systemd-analyze verify '" + prefix + "/lib/systemd/user/quillon.service' 2>&1"), 0);
  }

  const std::string entry = readFile(prefix + "/etc/xdg/autostart/quillon.desktop");
  EXPECT_TRUE(contains(entry, "\nExec=" + prefix + "/bin/quillon-helper\n")) << entry;
  if (shell("command -v desktop-file-validate >/dev/null") == 0) {
    EXPECT_EQ(shell("desktop-file-validate '" + prefix + "/etc/xdg/autostart/quillon.desktop'"), 0);
  }

  // The installed tool reads the installed carrier table, not the source tree's.
  ASSERT_EQ(shell("/usr/bin/python3 -c \"import plistlib\n"
                  "p='" + prefix + "/share/quillon/carriers.plist'\n"
                  "d=plistlib.load(open(p,'rb'))\n"
                  "d['installcheck']={'name':'Install Check','domain':'sms.example.net'}\n"
                  "plistlib.dump(d,open(p,'wb'))\""),
            0);
  const std::string elsewhere = quillon_test::makeTempDir("cwd");
  std::string listed = shellOutput("cd '" + elsewhere + "' && env -u QUILLON_RESOURCES '" + prefix +
                                   "/bin/quillon-prefs' carriers 2>&1");
  EXPECT_TRUE(contains(listed, "installcheck")) << listed;
  EXPECT_TRUE(contains(listed, "txt.att.net")) << listed;
}

TEST(InstallTest, SystemWideInstallKeepsTheAutostartEntryInEtc) {
  const std::string destdir = quillon_test::makeTempDir("destdir");
  std::string log = install("/usr", destdir);
  ASSERT_TRUE(contains(log, "status=0")) << log;
  EXPECT_TRUE(contains(readFile(destdir + "/usr/lib/systemd/user/quillon.service"),
                       "ExecStart=/usr/bin/quillon-helper\n"));
  EXPECT_TRUE(contains(readFile(destdir + "/etc/xdg/autostart/quillon.desktop"), "Exec=/usr/bin/quillon-helper\n"));
}

}  // namespace
