// Facts about the running process that several classes need.
#pragma once

#include <string>

class MVProcessInfo {
 public:
  // The executable's absolute path ("" when it cannot be read).
  static std::string executablePath();
  // The executable's file name without extension.
  static std::string executableName();
  static std::string hostName();
};
