// Shared set-up of the micro-benchmarks.
#pragma once

#include <string>

namespace quillon_bench {

// The temporary HOME of this benchmark process, with the XDG variables
// cleared so that settings, caches and the log all lie inside it.
const std::string& benchHome();

// Writes `contents` to `path`, creating its folder.
void writeFile(const std::string& path, const std::string& contents);

}  // namespace quillon_bench
