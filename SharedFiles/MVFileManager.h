// MVFileManager: stateless file-system queries.
//
// fileExistsAtPath tells whether anything (file, folder, bundle) is at a
// path, following symbolic links. filesMatchingWildcardPath expands a path
// pattern whose components may hold "*" (any run of characters) and "?"
// (one character) into the existing files and folders that match:
//
//   "/Users/*/Documents/Adobe/Adobe Media Encoder/*"
//
// Only components that contain "*" are matched as wildcards ("?" alone is
// taken literally there), hidden entries match "*" like any other, and the
// results come in directory-listing order, candidate by candidate. A pattern
// without "*" comes back as the one path it names, whether or not it exists.
// Every operation may be called from any thread.
#pragma once

#include <string>
#include <vector>

class MVFileManager {
 public:
  MVFileManager() = delete;

  static bool fileExistsAtPath(const std::string& path);
  // The names in a folder, in listing order, without "." and "..". Empty
  // when the folder cannot be read; `error` then receives the errno.
  static std::vector<std::string> folderEntries(const std::string& folder, int* error = nullptr);

  // A relative pattern is resolved under `basePath`; an absolute one from
  // "/", or from `basePath` when one is given. An empty base means none.
  // `searchSubdirs` is accepted for callers that pass it and has no effect.
  static std::vector<std::string> filesMatchingWildcardPath(const std::string& pattern,
                                                            const std::string& basePath = {},
                                                            bool searchSubdirs = false);

  // Shell-style match of one name against a pattern of "*" and "?", by
  // character (UTF-8 sequences count as one); no other character is special.
  static bool nameMatchesWildcard(const std::string& name, const std::string& pattern);
};
