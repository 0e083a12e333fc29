// The inotify stream's watch table: paths put together from parents and
// names, kept right through renames, removals and descriptor reuse.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "InotifyWatchTable.h"

using quillon::InotifyWatch;
using quillon::InotifyWatchTable;

namespace {

const InotifyWatch kFolder{1, 0, false, false, false};
const InotifyWatch kAnchor{1, 0, true, false, false};

}  // namespace

// What the random work below does not reach.
TEST(InotifyWatchTable, LooksUpFoldersByAnySpellingAndListsSubtreesDeepestFirst) {
  InotifyWatchTable table;  // 1 = /r, 2 = /r/a, 3 = /r/a/b, 4 = /r/c
  table.insert(1, "/r", kFolder);
  table.insertChild(2, 1, "a", "/r/a", kFolder);
  table.insertChild(3, 2, "b", "/r/a/b", kFolder);
  table.insertChild(4, 1, "c", "/r/c", kFolder);
  EXPECT_EQ(table.descriptorFor("/r/a/"), 2);
  EXPECT_EQ(table.childDescriptor(2, "b"), 3);
  EXPECT_EQ(table.parentDescriptor(3), 2);
  std::vector<int> below = table.subtree("/r");
  EXPECT_EQ(std::set<int>(below.begin(), below.end()), (std::set<int>{1, 2, 3, 4}));
  EXPECT_EQ(below.back(), 1);
  // After a removal the folders below stay part of the tree.
  table.erase(2);
  EXPECT_EQ(table.subtree("/r/a"), std::vector<int>{3});
  EXPECT_EQ(table.subtree("/r").size(), 3u);

  // The same folder under a second spelling keeps the first.
  table.insert(1, "/elsewhere/link", kFolder);
  EXPECT_EQ(table.pathOf(1), "/r");
  EXPECT_EQ(table.descriptorFor("/elsewhere/link"), -1);
  // An anchor that the walk of its parent reaches becomes an ordinary folder.
  table.insert(20, "/r/c/new", kAnchor);
  EXPECT_EQ(table.anchorDescriptors(), std::set<int>{20});
  table.insertChild(20, 4, "new", "/r/c/new", kFolder);
  EXPECT_TRUE(table.anchorDescriptors().empty());
  ASSERT_TRUE(table.move(4, 1, "renamed"));
  EXPECT_EQ(table.pathOf(20), "/r/renamed/new");

  // A watched path nested in another, added first, is found either way.
  InotifyWatchTable nested;
  nested.insert(2, "/r/a", kFolder);
  nested.insertChild(3, 2, "b", "/r/a/b", kFolder);
  nested.insert(1, "/r", kFolder);
  EXPECT_EQ(nested.descriptorFor("/r/a/b"), 3);
  EXPECT_EQ(nested.subtree("/r").size(), 3u);
}

// Random work against a plain model of parents and names: catches an index
// that loses or misplaces entries as it grows, shrinks and compacts.
TEST(InotifyWatchTable, StaysRightThroughLongRandomWork) {
  struct Entry {
    int parent;        // -1: a top
    std::string name;  // a top's whole path
  };
  std::map<int, Entry> model;
  auto pathOf = [&](int wd) {
    std::string path;
    for (int at = wd; at >= 0; at = model.at(at).parent) path = model.at(at).name + (path.empty() ? "" : "/") + path;
    return path;
  };
  // Forgets `wd`; the folders below keep their paths as tops.
  auto forget = [&](int wd) {
    for (auto& [other, entry] : model)
      if (entry.parent == wd) entry = Entry{-1, pathOf(other)};
    model.erase(wd);
  };
  // A folder put at `name` in `parent` replaces the one that was there.
  auto displace = [&](int parent, const std::string& name, int except) {
    const std::string path = pathOf(parent) + "/" + name;
    for (auto& [wd, entry] : std::map<int, Entry>(model))
      if (model.count(wd) && wd != except &&
          ((entry.parent == parent && entry.name == name) || (entry.parent < 0 && entry.name == path)))
        forget(wd);
  };
  std::mt19937 random(20261123);
  auto randomLive = [&] {
    return std::next(model.begin(), std::uniform_int_distribution<std::size_t>(0, model.size() - 1)(random))->first;
  };

  InotifyWatchTable table;
  table.insert(1, "/root", kFolder);
  model[1] = Entry{-1, "/root"};
  for (int step = 0, nextWd = 2; step < 6000; ++step) {
    const int action = std::uniform_int_distribution<int>(0, 9)(random);
    const std::string name = "f" + std::to_string(std::uniform_int_distribution<int>(0, 30)(random));
    if (action < 6 || model.size() < 3) {
      const int parent = randomLive();
      displace(parent, name, -1);
      table.insertChild(nextWd, parent, name, pathOf(parent) + "/" + name, kFolder);
      model[nextWd++] = Entry{parent, name};
    } else if (const int wd = randomLive(); action < 8) {
      if (wd == 1) continue;
      table.erase(wd);
      forget(wd);
    } else {
      const int parent = randomLive();
      bool intoItself = false;
      for (int at = parent; at >= 0 && !intoItself; at = model.at(at).parent) intoItself = at == wd;
      ASSERT_EQ(table.move(wd, parent, name), !intoItself);
      if (intoItself) continue;
      displace(parent, name, wd);
      model[wd] = Entry{parent, name};
    }
    if (step % 250 != 0) continue;
    ASSERT_EQ(table.size(), model.size()) << "step " << step;
    std::map<std::string, int> uses;
    for (const auto& [wd, entry] : model) ++uses[pathOf(wd)];
    for (const auto& [wd, entry] : model) {
      ASSERT_EQ(table.pathOf(wd), pathOf(wd)) << "step " << step;
      if (uses[pathOf(wd)] == 1) {
        ASSERT_EQ(table.descriptorFor(pathOf(wd)), wd) << "step " << step;
      }
    }
  }
}
