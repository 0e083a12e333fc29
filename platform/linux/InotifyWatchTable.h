// The inotify stream's bookkeeping: which watch descriptor stands for which
// folder. One table, owned and used by the main thread only.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace quillon {

struct InotifyWatch {
  // The folder (or watched file) as the caller spelled its watched path,
  // without a trailing "/" (except for "/" itself).
  std::string path;
  dev_t device = 0;
  ino_t inode = 0;
  // Watched only to notice a missing watched path appear below it; its own
  // changes are not reported.
  bool anchorOnly = false;
  // A watched path that is a file rather than a folder.
  bool isFile = false;
  // Its file system went away; the watch is about to be dropped.
  bool unmounted = false;
};

class InotifyWatchTable {
 public:
  // Callers may change `unmounted` through the answer; `anchorOnly` and the
  // path change only through insert().
  InotifyWatch* find(int wd);
  // The descriptor currently standing for `path`, or -1.
  int descriptorFor(const std::string& path) const;

  // Adds or updates the watch `wd`. When inotify answers an existing
  // descriptor (the folder was already watched), the entry is reused.
  InotifyWatch& insert(int wd, InotifyWatch watch);
  void erase(int wd);

  // Descriptors of `path` and of everything below it.
  std::vector<int> subtree(const std::string& path) const;
  std::vector<int> allDescriptors() const;
  // Descriptors of the watches with anchorOnly set (few: one per missing
  // watched path at most).
  const std::set<int>& anchorDescriptors() const { return anchors_; }

  bool empty() const { return byDescriptor_.empty(); }
  std::size_t size() const { return byDescriptor_.size(); }
  void clear();

  // True when `path` is `folder` or lies below it.
  static bool isWithin(const std::string& path, const std::string& folder);
  // `folder` joined with `name`.
  static std::string join(const std::string& folder, const std::string& name);
  static std::string parentOf(const std::string& path);

 private:
  std::unordered_map<int, InotifyWatch> byDescriptor_;
  // Ordered, so that a folder's subtree is one range of keys.
  std::map<std::string, int> byPath_;
  std::set<int> anchors_;
};

}  // namespace quillon
