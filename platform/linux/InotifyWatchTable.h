// The inotify stream's bookkeeping: which watch descriptor stands for which
// folder. One table, owned and used by the main thread only.
//
// A render tree can hold a hundred thousand folders, so a folder costs a few
// dozen bytes here: each watch keeps only its parent and its own name, and a
// full path is put together when an event asks for it. Watches that have no
// watched parent (watched paths, anchors, folders whose parent went away)
// are "tops" and keep their whole path, as the caller spelled it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {

struct InotifyWatch {
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
  bool contains(int wd) const { return slotOf(wd) >= 0; }
  std::optional<InotifyWatch> find(int wd) const;
  void markUnmounted(int wd);

  // The folder (or watched file) without a trailing "/" (except for "/"
  // itself); "" for an unknown descriptor.
  std::string pathOf(int wd) const;
  // The descriptor currently standing for `path`, or -1.
  int descriptorFor(const std::string& path) const;
  // The watch of the folder `name` inside the watch `parentWd`, or -1.
  int childDescriptor(int parentWd, std::string_view name) const;
  // The watch of the folder that holds `wd`'s folder, or -1.
  int parentDescriptor(int wd) const;

  // Adds or updates the watch `wd` for a path given whole. When inotify
  // answers an existing descriptor (the folder was already watched), the
  // entry is reused.
  void insert(int wd, const std::string& path, const InotifyWatch& watch);
  // Adds or updates the watch `wd` for the folder `name` inside the watch
  // `parentWd`; `path` is the whole path, which the caller has at hand.
  void insertChild(int wd, int parentWd, std::string_view name, std::string_view path, const InotifyWatch& watch);
  // The folder `wd` was renamed to `name` inside `newParentWd`: it and
  // everything below it now report paths from there. False when that would
  // put a folder inside itself.
  bool move(int wd, int newParentWd, std::string_view name);
  // Forgets `wd`. Folders below it keep their paths (they become tops);
  // their own removal notices follow.
  void erase(int wd);

  // Descriptors of `path` and of everything below it, deepest first, so
  // that erasing them in this order touches nothing twice.
  std::vector<int> subtree(const std::string& path) const;
  std::vector<int> allDescriptors() const;
  // Descriptors of the watches with anchorOnly set (few: one per missing
  // watched path at most).
  const std::set<int>& anchorDescriptors() const { return anchors_; }

  bool empty() const { return count_ == 0; }
  std::size_t size() const { return count_; }
  void clear();

  // True when `path` is `folder` or lies below it.
  static bool isWithin(const std::string& path, const std::string& folder);
  // `folder` joined with `name`.
  static std::string join(const std::string& folder, const std::string& name);
  static std::string parentOf(const std::string& path);

 private:
  static constexpr std::int32_t kNone = -1;
  enum Flag : std::uint8_t { kAnchorOnly = 1, kIsFile = 2, kUnmounted = 4 };

  // 40 bytes. Slots, not descriptors, link the nodes: inotify never hands
  // out a descriptor twice per instance, so over weeks descriptors grow
  // while the tree stays the same size.
  struct Node {
    ino_t inode = 0;
    std::int32_t wd = kNone;  // kNone: a free slot, listed through nextSibling
    std::int32_t parent = kNone;
    std::int32_t firstChild = kNone;
    std::int32_t nextSibling = kNone;
    std::int32_t previousSibling = kNone;
    std::uint32_t nameOffset = 0;
    std::uint16_t nameLength = 0;
    std::uint16_t device = 0;  // index into devices_
    std::uint8_t flags = 0;
  };

  // Open addressing over slot numbers, with the key held by the node: four
  // bytes a cell instead of a node allocation per entry.
  class SlotIndex {
   public:
    template <typename Matches>
    std::int32_t find(std::size_t hash, Matches matches) const;
    template <typename HashOf>
    void insert(std::size_t hash, std::int32_t slot, HashOf hashOf);
    template <typename HashOf>
    void erase(std::size_t hash, std::int32_t slot, HashOf hashOf);
    void clear();

   private:
    std::vector<std::int32_t> cells_;
    std::size_t used_ = 0;
  };

  std::int32_t slotOf(int wd) const;
  std::int32_t childSlot(std::int32_t parent, std::string_view name) const;
  std::string_view nameOf(const Node& node) const {
    return {names_.data() + node.nameOffset, node.nameLength};
  }
  std::string pathOfSlot(std::int32_t slot) const;
  bool isTop(const Node& node) const { return node.parent == kNone; }

  static std::size_t hashDescriptor(int wd);
  static std::size_t hashChild(std::int32_t parent, std::string_view name);
  std::size_t hashOfSlotForDescriptor(std::int32_t slot) const { return hashDescriptor(nodes_[slot].wd); }
  std::size_t hashOfSlotForChild(std::int32_t slot) const {
    return hashChild(nodes_[slot].parent, nameOf(nodes_[slot]));
  }

  std::int32_t allocate(int wd, const InotifyWatch& watch);
  void setAttributes(Node& node, const InotifyWatch& watch);
  void setName(std::int32_t slot, std::string_view name);
  void link(std::int32_t slot, std::int32_t parent, std::string_view name);
  void linkTop(std::int32_t slot, const std::string& path);
  void unlink(std::int32_t slot);
  void appendSubtree(std::int32_t slot, std::vector<int>& out) const;
  void compactNames();
  void forgetCachedPath() const { cachedWd_ = kNone; }

  std::vector<Node> nodes_;
  std::int32_t freeSlots_ = kNone;
  std::size_t count_ = 0;
  // Every name (and every top's whole path) in one buffer; space of
  // removed names is given back by compacting once it is the larger part.
  std::vector<char> names_;
  std::size_t deadNameBytes_ = 0;
  std::vector<dev_t> devices_;
  SlotIndex byDescriptor_;
  SlotIndex byParentAndName_;
  std::map<std::string, std::int32_t, std::less<>> tops_;
  std::set<int> anchors_;
  // A burst reports the same folder many times in a row.
  mutable int cachedWd_ = kNone;
  mutable std::string cachedPath_;
};

}  // namespace quillon
