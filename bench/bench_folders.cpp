// The latest-file search: on every event batch and again at the folder check
// the controller lists the changed folder and examines each entry (name,
// extension, attributes, modification date). A render folder that has
// collected a season of renders holds thousands of entries.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "AppController.h"
#include "bench_support.h"

namespace {

// `count` entries: mostly media files, some sidecar files (which cost an
// extra attribute read for their type code), one fresh render among old ones.
std::string renderFolder(int count) {
  const std::string folder = quillon_bench::benchHome() + "/Renders " + std::to_string(count);
  if (std::filesystem::exists(folder)) return folder;
  static const char* const kExtensions[] = {"mov", "mxf", "mp4", "mov", "xml", "mov", "wav", "m4v", "txt", "mov"};
  const auto now = std::chrono::system_clock::now();
  for (int i = 0; i < count; ++i) {
    std::string path = folder + "/Shot " + std::to_string(i) + "." + kExtensions[i % 10];
    quillon_bench::writeFile(path, "");
    // Old renders are days old; the last one was written a moment ago.
    auto age = i + 1 == count ? std::chrono::seconds(1) : std::chrono::seconds(86400 + 60 * i);
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>((now - age).time_since_epoch()).count();
    struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
  }
  return folder;
}

void BM_LatestFileInFolder(benchmark::State& state) {
  const std::string folder = renderFolder(static_cast<int>(state.range(0)));
  AppController controller;
  for (auto _ : state) {
    auto latest = controller.latestFileInFolder(folder);
    if (!latest) {
      state.SkipWithError("the fresh render was not found");
      break;
    }
    benchmark::DoNotOptimize(latest);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_LatestFileInFolder)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
