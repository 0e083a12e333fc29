#include "FileAttributes.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cctype>

namespace quillon {

std::optional<MVPlistValue::Date> fileModificationDate(const std::string& path) {
  struct stat st {};
  if (path.empty() || stat(path.c_str(), &st) != 0) return std::nullopt;
  auto since = std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec);
  return MVPlistValue::Date(std::chrono::duration_cast<MVPlistValue::Date::duration>(since));
}

std::optional<std::uint64_t> fileSize(const std::string& path) {
  struct stat st {};
  if (path.empty() || stat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(st.st_size);
}

bool isDirectory(const std::string& path) {
  struct stat st {};
  return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool pathExists(const std::string& path) {
  struct stat st {};
  return !path.empty() && stat(path.c_str(), &st) == 0;
}

std::uint32_t fileTypeCode(const std::string& path) {
  unsigned char info[32];
  ssize_t n = getxattr(path.c_str(), "user.com.apple.FinderInfo", info, sizeof info);
  if (n < 4) return 0;
  return (std::uint32_t(info[0]) << 24) | (std::uint32_t(info[1]) << 16) | (std::uint32_t(info[2]) << 8) | info[3];
}

std::string lastPathComponent(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  auto slash = p.rfind('/');
  if (slash == std::string::npos || p == "/") return p;
  return p.substr(slash + 1);
}

std::string deletingLastPathComponent(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  auto slash = p.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return p.substr(0, slash);
}

std::string pathExtension(const std::string& path) {
  std::string name = lastPathComponent(path);
  auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return "";
  return name.substr(dot + 1);
}

std::string deletingPathExtension(const std::string& name) {
  std::string ext = pathExtension(name);
  if (ext.empty()) return name;
  std::string p = name;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p.substr(0, p.size() - ext.size() - 1);
}

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

bool hasPrefix(const std::string& text, const std::string& prefix) {
  return !prefix.empty() && text.compare(0, prefix.size(), prefix) == 0;
}

bool hasSuffix(const std::string& text, const std::string& suffix) {
  return !suffix.empty() && text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool contains(const std::string& text, const std::string& part) {
  return !part.empty() && text.find(part) != std::string::npos;
}

std::string trimWhitespace(const std::string& text) {
  const char* ws = " \t\r\n\v\f";
  auto b = text.find_first_not_of(ws);
  if (b == std::string::npos) return "";
  auto e = text.find_last_not_of(ws);
  return text.substr(b, e - b + 1);
}

std::optional<std::string> removingPercentEncoding(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    auto hex = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    int hi = hex(text[i + 1]), lo = hex(text[i + 2]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  // Reject invalid UTF-8.
  for (std::size_t i = 0; i < out.size();) {
    unsigned char c = static_cast<unsigned char>(out[i]);
    std::size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (len == 0 || i + len > out.size()) return std::nullopt;
    for (std::size_t k = 1; k < len; ++k)
      if ((static_cast<unsigned char>(out[i + k]) & 0xC0) != 0x80) return std::nullopt;
    i += len;
  }
  return out;
}

}  // namespace quillon
