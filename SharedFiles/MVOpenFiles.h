// Which program still holds a file open for writing.
//
// A render is not finished while its writer keeps the file open, however
// long it pauses between writes. Linux answers this from /proc: the fd links
// of every process of this user and the access mode in their fdinfo. Processes
// that may not be read (other users, gone while being read) are skipped
// silently. Files that the kernel says nobody holds for writing (a refused
// lease) are not looked for at all. A writer on another machine (a network share) cannot be seen, so
// "no writer" means "none that this machine knows of". A macOS build would
// answer from its own process table in a file of its own.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct MVOpenWriter {
  int pid = 0;
  std::string command;  // the short program name, as the kernel keeps it ("ffmpeg")
  std::string path;     // the file it holds, as it was asked for
};

class MVOpenFiles {
 public:
  // The first process found that holds one of `paths` open for writing
  // (write-only or read-write), or nullopt. Paths that do not exist are
  // never held.
  [[nodiscard]] static std::optional<MVOpenWriter> writerOfAnyOf(const std::vector<std::string>& paths);
  [[nodiscard]] static std::optional<MVOpenWriter> writerOf(const std::string& path) {
    return writerOfAnyOf({path});
  }
};
