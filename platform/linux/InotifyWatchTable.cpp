#include "InotifyWatchTable.h"

namespace quillon {

InotifyWatch* InotifyWatchTable::find(int wd) {
  auto it = byDescriptor_.find(wd);
  return it == byDescriptor_.end() ? nullptr : &it->second;
}

int InotifyWatchTable::descriptorFor(const std::string& path) const {
  auto it = byPath_.find(path);
  return it == byPath_.end() ? -1 : it->second;
}

InotifyWatch& InotifyWatchTable::insert(int wd, InotifyWatch watch) {
  auto previous = byDescriptor_.find(wd);
  if (previous != byDescriptor_.end() && previous->second.path != watch.path) {
    // The same folder reached under a second spelling (a nested watched path
    // through a symbolic link): keep the first, which its subtree is filed under.
    if (!previous->second.anchorOnly) {
      previous->second.unmounted = false;
      return previous->second;
    }
    erase(wd);
  }
  auto other = byPath_.find(watch.path);
  if (other != byPath_.end() && other->second != wd) {
    // The path now names another folder (deleted and created again); the old
    // descriptor's own removal notice will come and find nothing to do.
    byDescriptor_.erase(other->second);
    anchors_.erase(other->second);
  }
  byPath_[watch.path] = wd;
  if (watch.anchorOnly)
    anchors_.insert(wd);
  else
    anchors_.erase(wd);
  InotifyWatch& entry = byDescriptor_[wd];
  entry = std::move(watch);
  return entry;
}

void InotifyWatchTable::erase(int wd) {
  auto it = byDescriptor_.find(wd);
  if (it == byDescriptor_.end()) return;
  auto byPath = byPath_.find(it->second.path);
  if (byPath != byPath_.end() && byPath->second == wd) byPath_.erase(byPath);
  byDescriptor_.erase(it);
  anchors_.erase(wd);
}

std::vector<int> InotifyWatchTable::subtree(const std::string& path) const {
  std::vector<int> result;
  if (int self = descriptorFor(path); self >= 0) result.push_back(self);
  const std::string prefix = path == "/" ? "/" : path + "/";
  // Every path below `prefix` sorts between "prefix" and "prefix" with its
  // final '/' raised to '0', the next character.
  std::string end = prefix;
  end.back() = '0';
  for (auto it = byPath_.lower_bound(prefix); it != byPath_.end() && it->first < end; ++it)
    if (it->first != path) result.push_back(it->second);
  return result;
}

std::vector<int> InotifyWatchTable::allDescriptors() const {
  std::vector<int> result;
  result.reserve(byDescriptor_.size());
  for (const auto& [wd, watch] : byDescriptor_) result.push_back(wd);
  return result;
}

void InotifyWatchTable::clear() {
  byDescriptor_.clear();
  byPath_.clear();
  anchors_.clear();
}

bool InotifyWatchTable::isWithin(const std::string& path, const std::string& folder) {
  if (folder == "/") return !path.empty() && path[0] == '/';
  return path.size() >= folder.size() && path.compare(0, folder.size(), folder) == 0 &&
         (path.size() == folder.size() || path[folder.size()] == '/');
}

std::string InotifyWatchTable::join(const std::string& folder, const std::string& name) {
  return folder == "/" ? "/" + name : folder + "/" + name;
}

std::string InotifyWatchTable::parentOf(const std::string& path) {
  auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace quillon
