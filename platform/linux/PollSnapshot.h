// What a polled tree looked like at its last scan, and the scan that finds
// which of its folders changed since.
//
// Shares (NFS, SMB, FUSE) tell nothing about changes made by other
// machines, so the tree is read again each round. A render tree holds many
// thousands of files, so an entry costs 16 bytes: a hash of its name and a
// hash of its size, modification time and inode. The size matters on its
// own: NFS and SMB leave a folder's time alone while a file in it grows.
// Folders are nodes that know their parent and their own name, as in the
// inotify watch table; a whole path is put together only for a report.
//
// One snapshot belongs to one scanning thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace quillon {

class PollSnapshot {
 public:
  // What one scan found, as paths ending in "/".
  struct Changes {
    std::vector<std::string> changedFolders;
    // The polled path itself appeared or went away.
    bool rootChanged = false;
    // The polled path now stands on another file system than before: a share
    // mounted there went away (unmounted is true) or one was mounted.
    bool deviceChanged = false;
    bool unmounted = false;
    // False while the path does not exist or cannot be read.
    bool present = false;
  };

  explicit PollSnapshot(std::string root);

  // Reads the tree again and compares it with the last reading. The first
  // scan only records the tree. `stop` is checked between folders.
  Changes scan(const std::atomic<bool>& stop);

  const std::string& root() const { return root_; }
  std::size_t entryCount() const { return entryCount_; }
  // Heap bytes the snapshot holds (entries, folder nodes, names).
  std::size_t memoryBytes() const;

 private:
  struct Entry {
    std::uint64_t name;
    std::uint64_t state;
    bool operator<(const Entry& other) const { return name < other.name; }
  };
  struct Folder {
    std::uint32_t parent = kNone;
    std::string name;  // the whole root path for the top folder
    std::vector<Entry> entries;  // sorted by name hash
    std::vector<std::pair<std::uint64_t, std::uint32_t>> subfolders;  // name hash, node
    bool used = false;
  };
  static constexpr std::uint32_t kNone = 0xffffffff;

  void scanFolder(int fd, std::uint32_t node, std::string& path, bool report, Changes& changes,
                  const std::atomic<bool>& stop, int depth);
  std::uint32_t allocate(std::uint32_t parent, std::string name);
  void release(std::uint32_t node);

  std::string root_;
  bool scanned_ = false;
  bool present_ = false;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::vector<Folder> folders_;
  std::vector<std::uint32_t> free_;
  std::size_t entryCount_ = 0;
};

}  // namespace quillon
