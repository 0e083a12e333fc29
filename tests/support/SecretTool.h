// secret-tool as the independent writer and reader of the Secret Service.
#pragma once

#include <string>

#include "TestSupport.h"

namespace quillon_test {

// `attributes`: "name value ..." as secret-tool takes them; the password goes on standard input.
inline bool secretToolStore(const std::string& label, const std::string& attributes, const std::string& password) {
  std::string file = makeTempDir("secret") + "/password";
  writeFile(file, password);
  return shell("secret-tool store --label=" + shellQuote(label) + " " + attributes + " < " + file) == 0;
}

inline std::string secretToolLookup(const std::string& attributes) {
  return shellOutput("secret-tool lookup " + attributes + " 2>/dev/null");
}

}  // namespace quillon_test
