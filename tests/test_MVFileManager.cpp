#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "MVFileManager.h"
#include "TestSupport.h"

using namespace quillon_test;
using Paths = std::vector<std::string>;

namespace {

// The entries of a folder in the order the system lists them.
Paths listing(const std::string& folder) {
  Paths paths;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) paths.push_back(entry.path().string());
  return paths;
}

class MVFileManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    base = makeTempDir("wild");
    for (const char* file : {"a/.hidden", "a/one.txt", "a/two.txt", "a/sub/deep.txt", "b/one.txt", "b/caf\xC3\xA9", "c"})
      writeFile(base + "/" + file, "");
    ASSERT_EQ(symlink((base + "/nowhere").c_str(), (base + "/a/dangling").c_str()), 0);
  }
  std::string base;
};

}  // namespace

TEST_F(MVFileManagerTest, WildcardsExpandOverARealTreeWhereOnlyWhatExistsCounts) {
  for (const char* path : {"/a/one.txt", "/a"}) EXPECT_TRUE(MVFileManager::fileExistsAtPath(base + path)) << path;
  for (const char* path : {"/a/missing", "/a/dangling"}) EXPECT_FALSE(MVFileManager::fileExistsAtPath(base + path));
  EXPECT_FALSE(MVFileManager::fileExistsAtPath(""));

  // Every entry of a folder, hidden ones included, in listing order; the
  // dangling link is listed but does not exist.
  Paths everyA = listing(base + "/a");
  std::erase(everyA, base + "/a/dangling");
  EXPECT_EQ(MVFileManager::filesMatchingWildcardPath("a/*", base), everyA);
  EXPECT_EQ(everyA.size(), 4u);

  // A wildcard in the middle: candidates in the listing order of the base.
  Paths expected;
  for (const std::string& folder : listing(base))
    if (fileExists(folder + "/one.txt")) expected.push_back(folder + "/one.txt");
  EXPECT_EQ(MVFileManager::filesMatchingWildcardPath("*/one.txt", base), expected);
  EXPECT_EQ(expected.size(), 2u);

  struct Case {
    std::string pattern, basePath;
    Paths expected;
  } cases[] = {
      {"b/caf?", base, {base + "/b/caf?"}},  // no "*": taken literally, as is
      {"b/caf?*", base, {base + "/b/caf\xC3\xA9"}},
      {base.substr(1) + "/a/sub/*", "", {"/" + base.substr(1) + "/a/sub/deep.txt"}},
      {"/a/sub/*", base, {base + "/a/sub/deep.txt"}},  // absolute, resolved from the base
      {"a/sub/*.txt/", base, {base + "/a/sub/deep.txt"}},
      {"*/nothing/*", base, {}},
      {"c/*", base, {}},  // a file has no entries
      {"does/not/exist", base, {base + "/does/not/exist"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pattern + " from " + c.basePath);
    EXPECT_EQ(MVFileManager::filesMatchingWildcardPath(c.pattern, c.basePath), c.expected);
    EXPECT_EQ(MVFileManager::filesMatchingWildcardPath(c.pattern, c.basePath, true), c.expected);
  }

  // Names match "*" and "?" (one character, not one byte) only, case and all.
  const struct {
    const char *name, *pattern;
    bool matches;
  } names[] = {
      {".hidden", "*", true},    {"abcbd", "a*b?", true},  {"abc", "*b", false},  {"ab", "?", false},
      {"\xC3\xA9", "?", true},   {"[x]", "[x]", true},     {"x", "[x]", false},   {"mixed", "MIXED", false},
  };
  for (const auto& n : names) EXPECT_EQ(MVFileManager::nameMatchesWildcard(n.name, n.pattern), n.matches) << n.name;
}
