#include "MVFileManager.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <memory>

namespace {

// Joins like a path-component append: one "/" between the parts, no
// trailing "/" (except for the root itself).
std::string appendPathComponent(const std::string& base, const std::string& component) {
  if (base.empty()) return component;
  if (component.empty()) return base;
  std::string joined = base;
  while (joined.size() > 1 && joined.back() == '/') joined.pop_back();
  std::size_t start = component.find_first_not_of('/');
  if (start == std::string::npos) return joined;
  if (joined.back() != '/') joined += '/';
  joined.append(component, start, std::string::npos);
  while (joined.size() > 1 && joined.back() == '/') joined.pop_back();
  return joined;
}

// "/a//b/c/" gives "/", "a", "b", "c": the leading root is a component of
// its own, empty components and a trailing "/" are dropped.
std::vector<std::string> pathComponents(const std::string& path) {
  std::vector<std::string> components;
  if (!path.empty() && path.front() == '/') components.emplace_back("/");
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) components.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return components;
}

// Entry names of a folder in listing order, without "." and "..".
// Length of the UTF-8 sequence that starts at `at` (1 for stray bytes).
std::size_t characterLength(const std::string& text, std::size_t at) {
  auto lead = static_cast<unsigned char>(text[at]);
  std::size_t length = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  std::size_t end = at + 1;
  while (end < text.size() && end < at + length && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) ++end;
  return end - at;
}

}  // namespace

bool MVFileManager::fileExistsAtPath(const std::string& path) {
  struct stat info;
  return !path.empty() && ::stat(path.c_str(), &info) == 0;
}

bool MVFileManager::nameMatchesWildcard(const std::string& name, const std::string& pattern) {
  // Greedy matching with one back-tracking point: the last "*" seen.
  std::size_t n = 0, p = 0;
  std::size_t starPattern = std::string::npos, starName = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      starPattern = p++;
      starName = n;
    } else if (p < pattern.size() && pattern[p] == '?') {
      n += characterLength(name, n);
      ++p;
    } else if (p < pattern.size() && pattern[p] == name[n]) {
      ++n;
      ++p;
    } else if (starPattern != std::string::npos) {
      p = starPattern + 1;
      starName += characterLength(name, starName);
      n = starName;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

std::vector<std::string> MVFileManager::filesMatchingWildcardPath(const std::string& pattern,
                                                                  const std::string& basePath, bool) {
  if (pattern.find('*') == std::string::npos) return {appendPathComponent(basePath, pattern)};

  const std::string root = basePath.empty() ? std::string("/") : basePath;
  std::vector<std::string> candidates{root};
  for (const std::string& component : pathComponents(pattern)) {
    std::vector<std::string> next;
    if (component == "/") {
      next.push_back(root);
    } else if (component.find('*') != std::string::npos) {
      for (const std::string& folder : candidates)
        for (const std::string& entry : MVFileManager::folderEntries(folder)) {
          if (!nameMatchesWildcard(entry, component)) continue;
          std::string path = appendPathComponent(folder, entry);
          if (fileExistsAtPath(path)) next.push_back(std::move(path));
        }
    } else {
      for (const std::string& folder : candidates) {
        std::string path = appendPathComponent(folder, component);
        if (fileExistsAtPath(path)) next.push_back(std::move(path));
      }
    }
    candidates = std::move(next);
    if (candidates.empty()) break;
  }
  return candidates;
}

std::vector<std::string> MVFileManager::folderEntries(const std::string& folder, int* error) {
  std::vector<std::string> entries;
  if (error) *error = 0;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(folder.c_str()), closedir);
  if (!dir) {
    if (error) *error = errno;
    return entries;
  }
  while (const dirent* entry = readdir(dir.get())) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") entries.push_back(std::move(name));
  }
  return entries;
}
