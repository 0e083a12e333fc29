// Entry of the micro-benchmarks: a temporary HOME (so nothing of the user's
// is read or written), the log kept inside it, and the platform main loop
// installed on this thread, as the agent has it.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "MVLog.h"
#include "MVRunLoop.h"
#include "PlatformLinux.h"
#include "bench_support.h"

namespace quillon_bench {
namespace {
std::string gHome;
}

const std::string& benchHome() { return gHome; }

void writeFile(const std::string& path, const std::string& contents) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
}

}  // namespace quillon_bench

int main(int argc, char** argv) {
  std::string templ = std::filesystem::temp_directory_path().string() + "/quillon-bench-home.XXXXXX";
  if (!mkdtemp(templ.data())) return 2;
  quillon_bench::gHome = templ;
  setenv("HOME", templ.c_str(), 1);
  for (const char* var : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME"}) unsetenv(var);
  // Run as root, the log would go to /var/log; keep it in the temporary home.
  MVLog::overrideRunningAsRoot(false);
  MVLog::createNewLog("quillon-microbench", true);
  MVRunLoop::setMain(quillon::createPlatformRunLoop());

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  MVLog::finishWriting();
  std::error_code ec;
  std::filesystem::remove_all(templ, ec);
  return 0;
}
