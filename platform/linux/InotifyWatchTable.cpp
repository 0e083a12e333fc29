#include "InotifyWatchTable.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace quillon {

// ---------------------------------------------------------------------------
// SlotIndex: linear probing, at most half full, removal by shifting back so
// that no tombstones pile up in a long-running agent.

template <typename Matches>
std::int32_t InotifyWatchTable::SlotIndex::find(std::size_t hash, Matches matches) const {
  if (cells_.empty()) return kNone;
  const std::size_t mask = cells_.size() - 1;
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    std::int32_t slot = cells_[i];
    if (slot == kNone) return kNone;
    if (matches(slot)) return slot;
  }
}

template <typename HashOf>
void InotifyWatchTable::SlotIndex::insert(std::size_t hash, std::int32_t slot, HashOf hashOf) {
  if ((used_ + 1) * 2 > cells_.size()) {
    const std::size_t grown = std::max<std::size_t>(16, cells_.size() * 2);
    std::vector<std::int32_t> old = std::exchange(cells_, std::vector<std::int32_t>(grown, kNone));
    used_ = 0;
    for (std::int32_t existing : old)
      if (existing != kNone) insert(hashOf(existing), existing, hashOf);
  }
  const std::size_t mask = cells_.size() - 1;
  std::size_t i = hash & mask;
  while (cells_[i] != kNone) i = (i + 1) & mask;
  cells_[i] = slot;
  ++used_;
}

template <typename HashOf>
void InotifyWatchTable::SlotIndex::erase(std::size_t hash, std::int32_t slot, HashOf hashOf) {
  if (cells_.empty()) return;
  const std::size_t mask = cells_.size() - 1;
  std::size_t i = hash & mask;
  while (cells_[i] != slot) {
    if (cells_[i] == kNone) return;
    i = (i + 1) & mask;
  }
  // Move later cells of the same run back into the hole when their home
  // lies at or before it, so every cell stays reachable from its home.
  for (std::size_t j = (i + 1) & mask; cells_[j] != kNone; j = (j + 1) & mask) {
    std::size_t home = hashOf(cells_[j]) & mask;
    bool reachable = i <= j ? (home > i && home <= j) : (home > i || home <= j);
    if (!reachable) {
      cells_[i] = cells_[j];
      i = j;
    }
  }
  cells_[i] = kNone;
  --used_;
}

void InotifyWatchTable::SlotIndex::clear() {
  cells_.clear();
  cells_.shrink_to_fit();
  used_ = 0;
}

// ---------------------------------------------------------------------------
// Lookups

std::size_t InotifyWatchTable::hashDescriptor(int wd) {
  return static_cast<std::size_t>(static_cast<std::uint32_t>(wd)) * 0x9E3779B97F4A7C15ull >> 20;
}

std::size_t InotifyWatchTable::hashChild(std::int32_t parent, std::string_view name) {
  std::size_t h = std::hash<std::string_view>{}(name);
  return h ^ (static_cast<std::size_t>(static_cast<std::uint32_t>(parent)) * 0x9E3779B97F4A7C15ull);
}

std::int32_t InotifyWatchTable::slotOf(int wd) const {
  return byDescriptor_.find(hashDescriptor(wd), [&](std::int32_t slot) { return nodes_[slot].wd == wd; });
}

std::int32_t InotifyWatchTable::childSlot(std::int32_t parent, std::string_view name) const {
  return byParentAndName_.find(hashChild(parent, name), [&](std::int32_t slot) {
    return nodes_[slot].parent == parent && nameOf(nodes_[slot]) == name;
  });
}

std::optional<InotifyWatch> InotifyWatchTable::find(int wd) const {
  std::int32_t slot = slotOf(wd);
  if (slot == kNone) return std::nullopt;
  const Node& node = nodes_[slot];
  return InotifyWatch{devices_[node.device], node.inode, (node.flags & kAnchorOnly) != 0, (node.flags & kIsFile) != 0,
                      (node.flags & kUnmounted) != 0};
}

void InotifyWatchTable::markUnmounted(int wd) {
  if (std::int32_t slot = slotOf(wd); slot != kNone) nodes_[slot].flags |= kUnmounted;
}

std::string InotifyWatchTable::pathOfSlot(std::int32_t slot) const {
  std::int32_t chain[64];
  std::vector<std::int32_t> deep;
  std::size_t depth = 0, length = 0;
  for (std::int32_t s = slot; s != kNone; s = nodes_[s].parent) {
    if (depth < std::size(chain))
      chain[depth] = s;
    else
      deep.push_back(s);
    ++depth;
    length += nodes_[s].nameLength + 1;
  }
  auto at = [&](std::size_t i) { return i < std::size(chain) ? chain[i] : deep[i - std::size(chain)]; };
  std::string path;
  path.reserve(length);
  for (std::size_t i = depth; i-- > 0;) {
    const Node& node = nodes_[at(i)];
    if (!isTop(node) && !(path.size() == 1 && path[0] == '/')) path += '/';
    path.append(nameOf(node));
  }
  return path;
}

std::string InotifyWatchTable::pathOf(int wd) const {
  if (wd == cachedWd_ && wd != kNone) return cachedPath_;
  std::int32_t slot = slotOf(wd);
  if (slot == kNone) return {};
  cachedPath_ = pathOfSlot(slot);
  cachedWd_ = wd;
  return cachedPath_;
}

int InotifyWatchTable::descriptorFor(const std::string& path) const {
  if (auto top = tops_.find(path); top != tops_.end()) return nodes_[top->second].wd;
  // Below a top that holds it, one name at a time; the deepest top first,
  // though a folder whose watch went away can leave a top that holds
  // nothing of the path.
  std::vector<std::pair<std::size_t, std::int32_t>> holders;
  for (const auto& [topPath, topSlot] : tops_)
    if (isWithin(path, topPath)) holders.emplace_back(topPath.size(), topSlot);
  std::sort(holders.begin(), holders.end(), std::greater<>());
  for (const auto& [used, top] : holders) {
    std::int32_t slot = top;
    std::string_view rest(path);
    rest.remove_prefix(used);
    while (slot != kNone) {
      while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
      if (rest.empty()) return nodes_[slot].wd;
      std::size_t end = std::min(rest.find('/'), rest.size());
      slot = childSlot(slot, rest.substr(0, end));
      rest.remove_prefix(end);
    }
  }
  return kNone;
}

int InotifyWatchTable::childDescriptor(int parentWd, std::string_view name) const {
  std::int32_t parent = slotOf(parentWd);
  std::int32_t slot = parent == kNone ? kNone : childSlot(parent, name);
  return slot == kNone ? kNone : nodes_[slot].wd;
}

int InotifyWatchTable::parentDescriptor(int wd) const {
  std::int32_t slot = slotOf(wd);
  if (slot == kNone) return kNone;
  if (!isTop(nodes_[slot])) return nodes_[nodes_[slot].parent].wd;
  return descriptorFor(parentOf(std::string(nameOf(nodes_[slot]))));
}

// ---------------------------------------------------------------------------
// Changes

std::int32_t InotifyWatchTable::allocate(int wd, const InotifyWatch& watch) {
  std::int32_t slot;
  if (freeSlots_ != kNone) {
    slot = freeSlots_;
    freeSlots_ = nodes_[slot].nextSibling;
    nodes_[slot] = Node{};
  } else {
    slot = static_cast<std::int32_t>(nodes_.size());
    nodes_.emplace_back();
  }
  nodes_[slot].wd = wd;
  setAttributes(nodes_[slot], watch);
  byDescriptor_.insert(hashDescriptor(wd), slot, [this](std::int32_t s) { return hashOfSlotForDescriptor(s); });
  ++count_;
  return slot;
}

void InotifyWatchTable::setAttributes(Node& node, const InotifyWatch& watch) {
  auto device = std::find(devices_.begin(), devices_.end(), watch.device);
  if (device == devices_.end()) device = devices_.insert(devices_.end(), watch.device);
  node.device = static_cast<std::uint16_t>(device - devices_.begin());
  node.inode = watch.inode;
  node.flags = (watch.anchorOnly ? kAnchorOnly : 0) | (watch.isFile ? kIsFile : 0) | (watch.unmounted ? kUnmounted : 0);
  if (watch.anchorOnly)
    anchors_.insert(node.wd);
  else
    anchors_.erase(node.wd);
}

void InotifyWatchTable::setName(std::int32_t slot, std::string_view name) {
  Node& node = nodes_[slot];
  deadNameBytes_ += node.nameLength;
  node.nameOffset = static_cast<std::uint32_t>(names_.size());
  node.nameLength = static_cast<std::uint16_t>(name.size());
  names_.insert(names_.end(), name.begin(), name.end());
}

void InotifyWatchTable::link(std::int32_t slot, std::int32_t parent, std::string_view name) {
  setName(slot, name);
  Node& node = nodes_[slot];
  node.parent = parent;
  node.previousSibling = kNone;
  node.nextSibling = nodes_[parent].firstChild;
  if (node.nextSibling != kNone) nodes_[node.nextSibling].previousSibling = slot;
  nodes_[parent].firstChild = slot;
  byParentAndName_.insert(hashChild(parent, name), slot, [this](std::int32_t s) { return hashOfSlotForChild(s); });
}

void InotifyWatchTable::linkTop(std::int32_t slot, const std::string& path) {
  setName(slot, path);
  Node& node = nodes_[slot];
  node.parent = node.nextSibling = node.previousSibling = kNone;
  tops_[path] = slot;
}

void InotifyWatchTable::unlink(std::int32_t slot) {
  Node& node = nodes_[slot];
  if (isTop(node)) {
    auto top = tops_.find(nameOf(node));
    if (top != tops_.end() && top->second == slot) tops_.erase(top);
  } else {
    byParentAndName_.erase(hashOfSlotForChild(slot), slot, [this](std::int32_t s) { return hashOfSlotForChild(s); });
    if (node.previousSibling != kNone)
      nodes_[node.previousSibling].nextSibling = node.nextSibling;
    else
      nodes_[node.parent].firstChild = node.nextSibling;
    if (node.nextSibling != kNone) nodes_[node.nextSibling].previousSibling = node.previousSibling;
  }
  deadNameBytes_ += node.nameLength;
  node.nameLength = 0;
  node.parent = node.nextSibling = node.previousSibling = kNone;
}

void InotifyWatchTable::insert(int wd, const std::string& path, const InotifyWatch& watch) {
  forgetCachedPath();
  if (std::int32_t slot = slotOf(wd); slot != kNone) {
    if (pathOfSlot(slot) == path) {
      setAttributes(nodes_[slot], watch);
      return;
    }
    // The same folder reached under a second spelling (a nested watched path
    // through a symbolic link): keep the first, which its subtree is filed under.
    if (!(nodes_[slot].flags & kAnchorOnly)) {
      nodes_[slot].flags &= ~kUnmounted;
      return;
    }
    erase(wd);
  }
  // The path now names another folder (deleted and created again); the old
  // descriptor's own removal notice will come and find nothing to do.
  if (int other = descriptorFor(path); other != kNone) erase(other);
  linkTop(allocate(wd, watch), path);
}

void InotifyWatchTable::insertChild(int wd, int parentWd, std::string_view name, std::string_view path,
                                    const InotifyWatch& watch) {
  const std::int32_t parent = slotOf(parentWd);
  if (parent == kNone) {
    insert(wd, std::string(path), watch);
    return;
  }
  forgetCachedPath();
  if (std::int32_t slot = slotOf(wd); slot != kNone) {
    Node& node = nodes_[slot];
    if (node.parent == parent && nameOf(node) == name) {
      setAttributes(node, watch);
      return;
    }
    std::string newPath = join(pathOfSlot(parent), std::string(name));
    if (isTop(node) && nameOf(node) == newPath) {
      // A watched path (or an anchor) that the walk of a folder above it
      // has reached: filed under that folder from now on.
      unlink(slot);
      if (std::int32_t other = childSlot(parent, name); other != kNone) erase(nodes_[other].wd);
      link(slot, parent, name);
      setAttributes(nodes_[slot], watch);
      return;
    }
    if (!(node.flags & kAnchorOnly)) {
      node.flags &= ~kUnmounted;
      return;
    }
    erase(wd);
  }
  if (std::int32_t other = childSlot(parent, name); other != kNone) erase(nodes_[other].wd);
  if (tops_.size() > 1)
    if (auto top = tops_.find(path); top != tops_.end()) erase(nodes_[top->second].wd);
  const std::int32_t slot = allocate(wd, watch);
  link(slot, slotOf(parentWd), name);
}

bool InotifyWatchTable::move(int wd, int newParentWd, std::string_view name) {
  const std::int32_t slot = slotOf(wd), parent = slotOf(newParentWd);
  if (slot == kNone || parent == kNone) return false;
  for (std::int32_t s = parent; s != kNone; s = nodes_[s].parent)
    if (s == slot) return false;
  forgetCachedPath();
  unlink(slot);
  // A folder renamed over an empty one replaces it; the replaced folder's
  // own removal notice will find nothing to do.
  if (std::int32_t other = childSlot(parent, name); other != kNone) erase(nodes_[other].wd);
  if (!tops_.empty())
    if (auto top = tops_.find(join(pathOfSlot(parent), std::string(name))); top != tops_.end()) erase(nodes_[top->second].wd);
  link(slot, parent, name);
  if (deadNameBytes_ > 65536 && deadNameBytes_ > names_.size() / 2) compactNames();
  return true;
}

void InotifyWatchTable::erase(int wd) {
  const std::int32_t slot = slotOf(wd);
  if (slot == kNone) return;
  forgetCachedPath();
  if (nodes_[slot].firstChild != kNone) {
    const std::string path = pathOfSlot(slot);
    while (nodes_[slot].firstChild != kNone) {
      std::int32_t child = nodes_[slot].firstChild;
      std::string childPath = join(path, std::string(nameOf(nodes_[child])));
      unlink(child);
      linkTop(child, childPath);
    }
  }
  unlink(slot);
  byDescriptor_.erase(hashDescriptor(wd), slot, [this](std::int32_t s) { return hashOfSlotForDescriptor(s); });
  anchors_.erase(wd);
  nodes_[slot] = Node{};
  nodes_[slot].nextSibling = freeSlots_;
  freeSlots_ = slot;
  --count_;
  if (count_ == 0) {
    clear();
  } else if (deadNameBytes_ > 65536 && deadNameBytes_ > names_.size() / 2) {
    compactNames();
  }
}

void InotifyWatchTable::compactNames() {
  std::vector<char> compacted;
  compacted.reserve(names_.size() - deadNameBytes_);
  for (Node& node : nodes_) {
    if (node.wd == kNone) continue;
    const std::uint32_t offset = static_cast<std::uint32_t>(compacted.size());
    compacted.insert(compacted.end(), names_.begin() + node.nameOffset,
                     names_.begin() + node.nameOffset + node.nameLength);
    node.nameOffset = offset;
  }
  names_ = std::move(compacted);
  deadNameBytes_ = 0;
}

void InotifyWatchTable::clear() {
  nodes_ = {};
  freeSlots_ = kNone;
  count_ = 0;
  names_ = {};
  deadNameBytes_ = 0;
  devices_.clear();
  byDescriptor_.clear();
  byParentAndName_.clear();
  tops_.clear();
  anchors_.clear();
  forgetCachedPath();
}

// ---------------------------------------------------------------------------
// Walks

void InotifyWatchTable::appendSubtree(std::int32_t slot, std::vector<int>& out) const {
  // Without recursion: trees can be deeper than the stack allows.
  std::vector<std::pair<std::int32_t, std::int32_t>> stack{{slot, nodes_[slot].firstChild}};
  while (!stack.empty()) {
    auto& [current, next] = stack.back();
    if (next == kNone) {
      out.push_back(nodes_[current].wd);
      stack.pop_back();
      continue;
    }
    std::int32_t child = next;
    next = nodes_[child].nextSibling;
    stack.emplace_back(child, nodes_[child].firstChild);
  }
}

std::vector<int> InotifyWatchTable::subtree(const std::string& path) const {
  std::vector<int> result;
  // Tops below the path: watched paths nested in it, and folders whose
  // parent's watch went away before their own. Each top heads a tree of its
  // own, so nothing is listed twice; all lie below the path's own folder.
  const std::string prefix = path == "/" ? "/" : path + "/";
  for (auto it = tops_.lower_bound(prefix); it != tops_.end() && it->first.compare(0, prefix.size(), prefix) == 0;
       ++it)
    appendSubtree(it->second, result);
  if (int self = descriptorFor(path); self != kNone) appendSubtree(slotOf(self), result);
  return result;
}

std::vector<int> InotifyWatchTable::allDescriptors() const {
  std::vector<int> result;
  result.reserve(count_);
  // Later slots first: folders are mostly added after the folder above them.
  for (auto node = nodes_.rbegin(); node != nodes_.rend(); ++node)
    if (node->wd != kNone) result.push_back(node->wd);
  return result;
}

// ---------------------------------------------------------------------------
// Paths

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
