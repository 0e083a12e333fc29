// The agent's settings store: where it lives, its readers, and writes that keep other keys.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "MVLocalPaths.h"
#include "MVPropertyList.h"
#include "QuillonPreferences.h"
#include "TestSupport.h"

using namespace quillon_test;
using namespace QuillonSettingsKeys;
namespace fs = std::filesystem;

namespace {

int python(const std::string& script) {
  return python3("import plistlib\npath = '" + QuillonPreferences::settingsPath() + "'\n" + script);
}

class QuillonPreferencesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(fs::path(QuillonPreferences::settingsPath()).parent_path());
    fs::remove(QuillonPreferences::settingsPath());
  }
  void TearDown() override { fs::remove(QuillonPreferences::settingsPath()); }
};

}  // namespace

TEST_F(QuillonPreferencesTest, ReaderTestsOverATableOfValues) {
  struct Case { const char* name; MVPlistValue value; bool equalToOne, presentOrOne, nonEmpty; };
  const Case cases[] = {
      {"one", 1, true, true, false},          {"two", 2, false, false, false},
      {"string1abc", "1abc", true, true, true},  // leading digits count
      {"true", true, true, true, false},       {"array", MVPlistValue::Array{"/a"}, false, false, true},
      {"emptyArray", MVPlistValue::Array{}, false, false, false}, {"emptyString", "", false, false, false},
  };
  MVPlistValue doc;
  for (const Case& c : cases) doc.set(c.name, c.value);
  ASSERT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), doc));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.equalToOne, QuillonPreferences::isEqualToOne(c.name));
    EXPECT_EQ(c.presentOrOne, QuillonPreferences::isPresentOrOne(c.name));
    EXPECT_EQ(c.nonEmpty, QuillonPreferences::isNonEmpty(c.name));
  }
  // Absent: only "present or 1" is on.
  EXPECT_FALSE(QuillonPreferences::isEqualToOne("absent"));
  EXPECT_TRUE(QuillonPreferences::isPresentOrOne("absent"));
  EXPECT_FALSE(QuillonPreferences::isNonEmpty("absent"));
}

TEST_F(QuillonPreferencesTest, SetObjectMakesAnXmlFileOrKeepsTheFormatAndUnknownKeys) {
  const std::string path = QuillonPreferences::settingsPath();
  EXPECT_EQ(testHome() + "/.config/com.morvane.Quillon.plist", path);
  fs::remove_all(MVLocalPaths::prefsDirectory(true));
  QuillonPreferences::setObject("smtp.example.com", kEmailServerKey);
  EXPECT_EQ(0, python("data = open(path, 'rb').read()\n"
                      "assert data.startswith(b'<?xml'), data[:8]\n"
                      "assert plistlib.loads(data) == {'emailServer': 'smtp.example.com'}\n"));

  ASSERT_EQ(0, python("plistlib.dump({'futureKey': {'x': [1, 2]}, 'watchAvidRenders': 0}, open(path, 'wb'), "
                      "fmt=plistlib.FMT_BINARY)\n"));
  EXPECT_FALSE(QuillonPreferences::isEqualToOne(kWatchAvidRendersKey));
  QuillonPreferences::setObject(1, kWatchAvidRendersKey);
  EXPECT_TRUE(QuillonPreferences::isEqualToOne(kWatchAvidRendersKey));
  EXPECT_EQ(0, python("data = open(path, 'rb').read()\n"
                      "assert data.startswith(b'bplist00'), data[:8]\n"
                      "assert plistlib.loads(data) == {'futureKey': {'x': [1, 2]}, 'watchAvidRenders': 1}\n"));

  // A nil value or an empty key changes nothing.
  std::string before = readFile(path);
  QuillonPreferences::setObject(MVPlistValue(), kWatchAvidRendersKey);
  QuillonPreferences::setObject(1, "");
  EXPECT_EQ(before, readFile(path));
}

TEST_F(QuillonPreferencesTest, ReadersOnOtherThreadsSeeTheOldOrTheNewFileNeverAHalfWrittenOne) {
  QuillonPreferences::setObject("keep", kEmailServerKey);
  QuillonPreferences::setObject(1, kLogoutActionKey);
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::atomic<int> reads{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i)
    readers.emplace_back([&] {
      while (!done.load()) {
        long long action = QuillonPreferences::objectForPreferenceDictionaryKey(kLogoutActionKey).integerValue();
        bool server = QuillonPreferences::isNonEmpty(kEmailServerKey);
        if ((action != 1 && action != 2) || !server) ++torn;
        ++reads;
      }
    });
  for (int i = 0; i < 200; ++i) QuillonPreferences::setObject(i % 2 + 1, kLogoutActionKey);
  waitUntil([&] { return reads.load() > 100; }, 10);
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(0, torn.load());
  EXPECT_EQ(2, QuillonPreferences::objectForPreferenceDictionaryKey(kLogoutActionKey).integerValue());
}
