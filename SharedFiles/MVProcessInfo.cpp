#include "MVProcessInfo.h"

#include <unistd.h>

#include <climits>

std::string MVProcessInfo::executablePath() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "";
  return std::string(buf, static_cast<std::size_t>(n));
}

std::string MVProcessInfo::executableName() {
  std::string path = executablePath();
  std::string name = path.substr(path.rfind('/') + 1);
  auto dot = name.rfind('.');
  if (dot != std::string::npos && dot > 0) name.resize(dot);
  return name;
}

std::string MVProcessInfo::hostName() {
  char host[HOST_NAME_MAX + 1] = {};
  if (gethostname(host, sizeof host - 1) != 0) return "";
  return host;
}
