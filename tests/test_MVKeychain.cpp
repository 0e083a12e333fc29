// MVKeychain on gnome-keyring on a private bus, secret-tool as the independent writer and reader.
#include <gtest/gtest.h>

#include <string>

#include "KeychainSecretService.h"
#include "MVKeychain.h"
#include "PrivateSessionBus.h"
#include "SecretTool.h"

namespace {

using namespace quillon_test;

class MVKeychainTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    bus_ = new PrivateSessionBus;
    ASSERT_TRUE(bus_->startKeyring()) << "gnome-keyring-daemon did not come up " << bus_->error();
    MVKeychain::setBackend(quillon::createSecretServiceKeychain());
  }
  static void TearDownTestSuite() {
    MVKeychain::setBackend(nullptr);
    delete bus_;
  }
  static inline PrivateSessionBus* bus_ = nullptr;
};

TEST(MVKeychainWithoutBusTest, SaysSoAndFindsNothing) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/quillon-bus", 1);
        MVKeychain::setBackend(quillon::createSecretServiceKeychain());
        bool nothing = !MVKeychain::getPasswordFromKeychainItem("Quillon - a@b.c", "Email password", "a@b.c", "") &&
                       !MVKeychain::addKeychainItem("Quillon - a@b.c", "Email password", "a@b.c", "pw", "");
        std::exit(nothing ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "cannot reach the Secret Service.*\n.*status -25291 from SecKeychainSearch");
}

TEST_F(MVKeychainTest, ReadsTheAgentPasswordThatSecretToolStored) {
  const std::string address = "editor@example.com";
  const std::string name = MVKeychain::agentItemName(address);
  ASSERT_TRUE(secretToolStore(name, "acct " + address + " desc 'Email password' labl " + shellQuote(name), "s3cret pässwörd"));

  // secret-tool stores all the bytes, and they all read back.
  EXPECT_EQ(MVKeychain::getPasswordFromKeychainItem(name, std::string(MVKeychain::kEmailPasswordKind), address, ""),
            "s3cret pässwörd");
  EXPECT_TRUE(MVKeychain::checkForExistenceOfKeychainItem(name, "Email password", address, ""));
  EXPECT_TRUE(MVKeychain::checkForExistenceOfKeychainItem("", "", address, ""));  // fewer attributes still match

  // Any attribute that differs, or one the item lacks, matches nothing.
  EXPECT_EQ(MVKeychain::getPasswordFromKeychainItem(name, "Email password", "other@example.com", ""), std::nullopt);
  EXPECT_EQ(MVKeychain::getPasswordFromKeychainItem(name, "Email password", address, "smtp.example.com"), std::nullopt);
}

TEST_F(MVKeychainTest, AddModifyDeleteAsSecretToolSeesThem) {
  const std::string lookup = "acct ann desc Web labl Site svce www.example.com";
  ASSERT_TRUE(MVKeychain::addKeychainItem("Site", "Web", "ann", "first", "www.example.com"));
  EXPECT_EQ(secretToolLookup(lookup), "first");
  // A second item with the same identity is refused, not stored beside it.
  EXPECT_FALSE(MVKeychain::addKeychainItem("Site", "Web", "ann", "again", "www.example.com"));
  // ...but one without the hostname is another item.
  EXPECT_TRUE(MVKeychain::addKeychainItem("Site", "Web", "ann", "hostless", ""));

  EXPECT_TRUE(MVKeychain::modifyKeychainItem("Site", "Web", "ann", "www.example.com", "second"));
  EXPECT_EQ(secretToolLookup(lookup), "second");
  EXPECT_EQ(MVKeychain::getPasswordFromKeychainItem("Site", "Web", "ann", "www.example.com"), "second");

  EXPECT_TRUE(MVKeychain::deleteKeychainItem("Site", "Web", "ann", "www.example.com"));
  EXPECT_EQ(shell("secret-tool lookup " + lookup + " >/dev/null 2>&1"), 1);
  EXPECT_EQ(MVKeychain::getPasswordFromKeychainItem("Site", "Web", "ann", "www.example.com"), std::nullopt);
  EXPECT_TRUE(MVKeychain::deleteKeychainItem("Site", "Web", "ann", "www.example.com"));  // nothing left: true
  EXPECT_FALSE(MVKeychain::modifyKeychainItem("Site", "Web", "ann", "www.example.com", "third"));
  EXPECT_EQ(MVKeychain::getPasswordFromKeychainItem("Site", "Web", "ann", ""), "hostless");
}

TEST_F(MVKeychainTest, StoresCharacterCountOfBytesAndReadsAtMost1023) {
  // Stored bytes are cut to the length in characters; a character cut in two is dropped when read.
  struct Case { std::string user, password, storedBySecretTool, readBack; };
  const Case cases[] = {
      {"u1", "pässwörd", "pässwö", "pässwö"},
      {"u3", "a\xF0\x9F\x98\x80" "b", "a\xF0\x9F\x98", "a"},  // U+1F600 counts as two characters
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.user);
    ASSERT_TRUE(MVKeychain::addKeychainItem("Length", "Rule", c.user, c.password, ""));
    EXPECT_EQ(secretToolLookup("acct " + c.user + " desc Rule labl Length"), c.storedBySecretTool);
    EXPECT_EQ(MVKeychain::getPasswordFromKeychainItem("Length", "Rule", c.user, ""), c.readBack);
  }

  // Attribute values follow the same rule: "josé" is stored as "jos".
  ASSERT_TRUE(MVKeychain::addKeychainItem("Accent", "Rule", "josé", "pw", ""));
  EXPECT_EQ(secretToolLookup("acct jos desc Rule labl Accent"), "pw");
  EXPECT_EQ(MVKeychain::getPasswordFromKeychainItem("Accent", "Rule", "josé", ""), "pw");

  std::string longPassword;
  for (int i = 0; i < 2000; ++i) longPassword += static_cast<char>('a' + i % 26);
  ASSERT_TRUE(secretToolStore("Long", "acct long desc Rule labl Long", longPassword));
  EXPECT_EQ(MVKeychain::getPasswordFromKeychainItem("Long", "Rule", "long", ""), longPassword.substr(0, 1023));
}

// Locks the login keyring for good (no one can answer the unlock prompt here), so it stays last.
TEST_F(MVKeychainTest, LockedKeyringGivesNoPasswordAndDoesNotHang) {
  ASSERT_TRUE(MVKeychain::addKeychainItem("Locked", "Kind", "zed", "pw", ""));
  ASSERT_EQ(shell("dbus-send --session --print-reply --dest=org.freedesktop.secrets /org/freedesktop/secrets "
                  "org.freedesktop.Secret.Service.Lock array:objpath:/org/freedesktop/secrets/collection/login "
                  ">/dev/null"),
            0);
  // The read must give up, not wait.
  ::testing::internal::CaptureStdout();
  auto password = MVKeychain::getPasswordFromKeychainItem("Locked", "Kind", "zed", "");
  std::string console = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(password, std::nullopt);
  EXPECT_NE(console.find("Error = "), std::string::npos) << console;
}

}  // namespace
