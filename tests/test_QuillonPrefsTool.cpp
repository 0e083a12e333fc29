// quillon-prefs as the user runs it, its results read back by other programs.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "DesktopServices.h"
#include "MVDistributedNotificationCenter.h"
#include "MVEncryption.h"
#include "PrivateSessionBus.h"
#include "QuillonPreferences.h"
#include "SMTPRelay.h"
#include "TestSupport.h"

namespace {

using namespace quillon_test;
const auto quoted = shellQuote;

struct Outcome { int status; std::string out, err; };

// Runs the tool with `arguments` (already shell words), feeding `input`.
Outcome prefs(const std::string& arguments, const std::string& input = "", const std::string& workingFolder = "") {
  static const std::string scratch = makeTempDir("prefs-run");
  writeFile(scratch + "/in", input);
  std::string command = (workingFolder.empty() ? "" : "cd " + quoted(workingFolder) + " && ") +
                        quoted(binPath("quillon-prefs")) + " " + arguments + " <" + scratch +
                        "/in >" + scratch + "/out 2>" + scratch + "/err";
  int status = shell(command);
  return {status, readFile(scratch + "/out"), readFile(scratch + "/err")};
}

// The format, then every key as "key type value" lines, as Python sees it.
std::string plistlibDump(const std::string& path) {
  return shellOutput(
      "/usr/bin/python3 -c \"import plistlib,sys\n"
      "b=open(sys.argv[1],'rb').read()\n"
      "print('binary' if b.startswith(b'bplist00') else 'xml')\n"
      "d=plistlib.loads(b)\n"
      "[print(k, type(d[k]).__name__, repr(d[k])) for k in sorted(d)]\" " +
      quoted(path) + " 2>&1");
}

// Writes a settings file with plistlib from a Python dictionary literal.
void writeSettingsWithPlistlib(const std::string& dictionary, const std::string& format) {
  const std::string path = QuillonPreferences::settingsPath();
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  ASSERT_EQ(python3("import plistlib, datetime\nplistlib.dump(" + dictionary + ", open('" + path +
                    "', 'wb'), fmt=plistlib." + format + ")\n"),
            0);
}

class QuillonPrefsToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("QUILLON_RESOURCES", (std::string(QUILLON_SOURCE_DIR) + "/resources").c_str(), 1);
    // Never tell a real session's agent about test settings.
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/quillon-test-bus", 1);
  }
  void SetUp() override {
    std::error_code ec;
    std::filesystem::remove_all(QuillonPreferences::settingsPath(), ec);
  }
  static std::string settings() { return readFile(QuillonPreferences::settingsPath()); }
};

TEST_F(QuillonPrefsToolTest, EditsKeepTheFileFormatAndUnknownKeys) {
  const std::string folderA = makeTempDir("watchA");
  const std::string folderB = makeTempDir("watchB");
  const std::string scripts = makeTempDir("scripts");
  writeFile(scripts + "/done.sh", "#!/bin/sh\n");

  for (const std::string& format : std::vector<std::string>{"FMT_XML", "FMT_BINARY"}) {
    SCOPED_TRACE(format);
    writeSettingsWithPlistlib(
        "{'watchQmaster': 0, 'emailUseTLS': 1, 'futureOption': {'nested': [1, 2.5, True]}, "
        "'lastSeen': datetime.datetime(2024, 5, 1, 13, 45, 10), 'blob': b'\\x00\\x01'}",
        format);

    const std::vector<std::string> edits = {
        "set watchQmaster on", "set logoutAction sleep", "set emailPort 587",
        "set emailToAddress 'a@example.com; b@example.org'", "unset emailUseTLS", "watch-folders add " + quoted(folderA) + " " + quoted(folderB),
        "watch-folders remove " + quoted(folderA),
    };
    for (const auto& edit : edits) {
      Outcome outcome = prefs(edit);
      EXPECT_EQ(outcome.status, 0) << edit << "\n" << outcome.err;
      // Saved, and said so, though no session bus carries the reload notice.
      EXPECT_NE(outcome.err.find("saved, but no session bus at unix:path=/nonexistent/quillon-test-bus"),
                std::string::npos) << edit << "\n" << outcome.err;
    }
    // A relative script path is stored absolute.
    EXPECT_EQ(prefs("set scriptPath done.sh", "", scripts).status, 0);

    const std::string expected = std::string(format == "FMT_XML" ? "xml" : "binary") +
                                 "\n"
                                 "blob bytes b'\\x00\\x01'\n"
                                 "emailPort int 587\n"
                                 "emailToAddress str 'a@example.com; b@example.org'\n"
                                 "futureOption dict {'nested': [1, 2.5, True]}\n"
                                 "lastSeen datetime datetime.datetime(2024, 5, 1, 13, 45, 10)\n"
                                 "logoutAction int 1\n"
                                 "scriptPath str '" + scripts + "/done.sh'\n"
                                 "watchFolders list ['" + folderB + "']\n"
                                 "watchQmaster int 1\n";
    EXPECT_EQ(plistlibDump(QuillonPreferences::settingsPath()), expected);
    EXPECT_EQ(prefs("get emailPort").out, "587\n");
    EXPECT_EQ(prefs("watch-folders list").out, folderB + "\n");
  }
}

TEST_F(QuillonPrefsToolTest, BadInputIsRefusedAndChangesNothing) {
  const std::string folder = makeTempDir("watched");
  const std::string file = folder + "/plain.txt";
  writeFile(file, "x");
  writeSettingsWithPlistlib("{'watchQmaster': 1, 'emailFromAddress': 'me@example.com', 'watchFolders': ['" + folder +
                                "'], 'customKey': 'kept'}",
                            "FMT_BINARY");
  const std::string before = settings();
  struct Case { std::string arguments; int status; std::string error; };
  const Case cases[] = {
      {"set noSuchKey 1", 1, "unknown key 'noSuchKey'"},
      {"set watchQmaster 2", 1, "watchQmaster is a switch"},
      {"set emailPort 70000", 1, "emailPort takes a port number"},
      {"set emailFromAddress 'not an address'", 1, "emailFromAddress takes one e-mail address"},
      {"set emailToAddress 'a@example.com, oops'", 1, "'oops' is not one"},
      {"set emailServer 'smtp://x'", 1, "emailServer takes a host name"},
      {"set scriptPath /nonexistent/run.sh", 1, "no such file: /nonexistent/run.sh"},
      {"carrier nosuch", 1, "unknown carrier 'nosuch'"},
      {"watch-folders add " + quoted(folder) + " " + quoted(file), 1, "not a folder: " + file},
      {"phone 12", 1, "is not a phone number"},
      {"password hunter2", 2, "never given on the command line"},
      {"frobnicate", 2, "unknown command 'frobnicate'"},
      {"test email", 1, "emailServer is not set; nothing was sent"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    Outcome outcome = prefs(c.arguments);
    EXPECT_EQ(outcome.status, c.status) << outcome.err;
    EXPECT_NE(outcome.err.find(c.error), std::string::npos) << outcome.err;
    EXPECT_EQ(settings(), before);
  }
}

TEST_F(QuillonPrefsToolTest, UnreadableSettingsFileIsNamedAndLeftAlone) {
  const std::string path = QuillonPreferences::settingsPath();
  writeFile(path, "<?xml version=\"1.0\"?><plist><dict><key>a</key>");
  const std::string before = settings();
  for (const char* command : {"show", "set watchQmaster 1", "phone 5550100"}) {
    SCOPED_TRACE(command);
    Outcome outcome = prefs(command);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find(path + " is not a property list"), std::string::npos) << outcome.err;
    EXPECT_EQ(settings(), before);
  }
}

TEST_F(QuillonPrefsToolTest, PhoneNumberIsStoredEncryptedUnderBothKeys) {
  ASSERT_EQ(prefs("phone '+1 (555) 010-0000'").status, 0);
  MVPlistValue success = QuillonPreferences::objectForPreferenceDictionaryKey("txtMessagePhoneNumber");
  MVPlistValue failure = QuillonPreferences::objectForPreferenceDictionaryKey("txtMessageNumber");
  ASSERT_TRUE(success.isData());
  EXPECT_EQ(success, failure);

  auto plain = MVEncryption::AESDecryptData(*success.data(), MVEncryption::kTextMessagePassphrase);
  EXPECT_EQ(std::string(plain.begin(), plain.end()), "+1 (555) 010-0000               ");

  // Without a chosen carrier the agent texts through "att".
  EXPECT_NE(prefs("phone").out.find("Texted at: 15550100000@txt.att.net"), std::string::npos);
  ASSERT_EQ(prefs("carrier verizon").status, 0);
  EXPECT_EQ(QuillonPreferences::objectForPreferenceDictionaryKey("selectedTextCarrier"), MVPlistValue("verizon"));
  EXPECT_NE(prefs("phone").out.find("Texted at: 15550100000@vtext.com (Verizon)"), std::string::npos);

  ASSERT_EQ(prefs("phone --clear").status, 0);
  EXPECT_TRUE(QuillonPreferences::objectForPreferenceDictionaryKey("txtMessagePhoneNumber").isNil());
  EXPECT_TRUE(QuillonPreferences::objectForPreferenceDictionaryKey("txtMessageNumber").isNil());
  EXPECT_EQ(prefs("phone").status, 1);
}

TEST_F(QuillonPrefsToolTest, TestEmailIsTheAgentsMessageThroughTheConfiguredRelay) {
  SMTPRelay relay;
  ASSERT_TRUE(relay.isReady()) << relay.log();
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/quillon-test-bus", 1);

  for (const std::string& edit : std::vector<std::string>{"set emailServer 127.0.0.1",
                                                          "set emailPort " + std::to_string(relay.port()),
                                                          "set emailFromAddress editor@example.com",
                                                          "set emailToAddress producer@example.com"})
    ASSERT_EQ(prefs(edit).status, 0) << edit;
  Outcome sent = prefs("test email");
  EXPECT_EQ(sent.status, 0) << sent.err;
  EXPECT_EQ(sent.out, "Sent a test e-mail to producer@example.com through 127.0.0.1\n");
  std::vector<RelayMessage> received = relay.messages();
  ASSERT_EQ(received.size(), 1u) << relay.log();
  EXPECT_EQ(received[0].from, "editor@example.com");
  EXPECT_EQ(received[0].to, std::vector<std::string>{"producer@example.com"});
  EXPECT_NE(received[0].raw.find("Quillon test.mov Finished"), std::string::npos);

  // A server that refuses is reported with the client's reason.
  ASSERT_EQ(prefs("set emailPort 1").status, 0);
  Outcome refused = prefs("test email");
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("the test e-mail to producer@example.com failed: error(-3)"), std::string::npos)
      << refused.err;
}

class QuillonPrefsToolBusTest : public QuillonPrefsToolTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.isRunning()) << bus_.error();
    QuillonPrefsToolTest::SetUp();
  }
  PrivateSessionBus bus_;  // the tool's session bus until the test ends
};

TEST_F(QuillonPrefsToolBusTest, EveryChangeAndOnlyAChangeAsksTheAgentToReload) {
  MVDistributedNotificationCenter::setBackend(quillon::desktop::createDistributedNotificationBackend());
  int reloads = 0;
  MVObserverToken token = MVDistributedNotificationCenter::defaultCenter().addObserver(
      "MVQuillonConfigUpdate", [&](const std::string&, const MVPlistValue&, const MVPlistValue&) { ++reloads; });
  // Let the subscription reach the bus before the first notice.
  waitUntil([] { return false; }, 0.3);

  struct Case { std::string arguments; int reloads; };
  const Case cases[] = {
      {"set watchAvidRenders 1", 1},
      {"set watchAvidRenders 1", 1},  // unchanged: nothing to reload
      {"set emailPort nope", 1},      // refused
      {"unset watchAvidRenders", 2},
      {"phone 5550100", 3},
      {"show", 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    Outcome outcome = prefs(c.arguments);
    EXPECT_EQ(outcome.err.find("no session bus"), std::string::npos) << outcome.err;
    // The expected notice, then a little time for a stray second one.
    waitUntil([&] { return reloads >= c.reloads; }, 5);
    waitUntil([] { return false; }, 0.3);
    EXPECT_EQ(reloads, c.reloads);
  }
}

TEST_F(QuillonPrefsToolBusTest, PasswordGoesToTheSecretStoreWhereTheAgentReadsIt) {
  ASSERT_TRUE(bus_.startKeyring());
  const std::string sender = "editor@example.com";
  const std::string lookup = "secret-tool lookup acct " + sender + " desc 'Email password' labl 'Quillon - " + sender + "'";

  ASSERT_EQ(prefs("set emailFromAddress " + sender).status, 0);
  Outcome stored = prefs("password", "s3cret pass\n");
  ASSERT_EQ(stored.status, 0) << stored.err;
  EXPECT_EQ(shellOutput(lookup + " 2>/dev/null"), "s3cret pass");

  // Replacing keeps one item; refused input leaves the stored one.
  ASSERT_EQ(prefs("password set", "second\r\n").status, 0);
  EXPECT_EQ(shellOutput(lookup + " 2>/dev/null"), "second");
  EXPECT_EQ(shellOutput("secret-tool search --all acct " + sender + " 2>&1 | grep -c '^secret = '"), "1\n");
  EXPECT_EQ(prefs("password", "pässword").status, 1);
  EXPECT_EQ(shellOutput(lookup + " 2>/dev/null"), "second");

  ASSERT_EQ(prefs("password delete").status, 0);
  EXPECT_EQ(shell(lookup + " >/dev/null 2>&1"), 1);
  EXPECT_EQ(prefs("password status").status, 1);
}

TEST_F(QuillonPrefsToolBusTest, TestNotificationReachesTheNotificationServer) {
  Outcome none = prefs("test notification");
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("no notification server"), std::string::npos) << none.err;

  Mock server = bus_.startMock("org.freedesktop.Notifications", "notification_daemon");
  ASSERT_TRUE(server.started());
  Outcome sent = prefs("test notification");
  EXPECT_EQ(sent.status, 0) << sent.err;
  EXPECT_NE(sent.out.find("Sent a test notification to mock-notify 1.0 (test vendor)"), std::string::npos)
      << sent.out;
  EXPECT_TRUE(waitUntil([&] { return linesWith(server.log(), "Notify \"Quillon\"", "\"Quillon test\"") == 1; }, 5))
      << server.log();
}

}  // namespace
