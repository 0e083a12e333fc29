// The Linux answers for the log's header: the executable's path and the
// name and version of the system. A macOS build answers them from the
// bundle and the system version in a file of its own.
#ifndef __APPLE__

#include <sys/utsname.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "MVLogInternal.h"

std::string mvlog_detail::executablePath() {
  std::error_code ec;
  std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : exe.string();
}

namespace {

// One value of os-release(5): KEY=value, KEY="value" or KEY='value', with
// backslash escapes inside double quotes.
std::string osReleaseValue(const std::string& contents, const std::string& key) {
  std::size_t start = 0;
  while (start < contents.size()) {
    std::size_t end = contents.find('\n', start);
    if (end == std::string::npos) end = contents.size();
    std::string_view line(contents.data() + start, end - start);
    start = end + 1;
    if (line.substr(0, key.size() + 1) != key + "=") continue;
    std::string_view raw = line.substr(key.size() + 1);
    std::string value;
    char quote = !raw.empty() && (raw[0] == '"' || raw[0] == '\'') ? raw[0] : 0;
    for (std::size_t i = quote ? 1 : 0; i < raw.size(); ++i) {
      if (quote && raw[i] == quote) break;
      if (raw[i] == '\\' && i + 1 < raw.size() && quote != '\'') ++i;
      value += raw[i];
    }
    return value;
  }
  return {};
}

}  // namespace

std::string mvlog_detail::operatingSystemDescription() {
  std::string contents;
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    if (!in) continue;
    contents.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    break;
  }
  std::string name = osReleaseValue(contents, "PRETTY_NAME");
  if (name.empty()) {
    name = osReleaseValue(contents, "NAME");
    std::string version = osReleaseValue(contents, "VERSION_ID");
    if (!version.empty()) name = (name.empty() ? "Linux" : name) + " " + version;
  }
  struct utsname system {};
  if (::uname(&system) != 0) return name.empty() ? std::string("Linux") : name;
  if (name.empty()) name = system.sysname;
  return MVFormatString("%@ (kernel %s)", name, system.release);
}


#endif  // __APPLE__
