// quillon-watch-bench: the agent's file-system event stream on its own, so
// that it can be measured the way inotifywait and fswatch are.
//
// It starts the shared MVFSEvents stream on the given folders (each with
// everything below it) on the platform's main loop, says "Watches
// established." on standard error once the stream is set up, and prints one
// line per delivered record on standard output, "FLAG PATH", flushed after
// each batch. It runs until SIGTERM or SIGINT, and then tells how much
// memory the snapshots of polled trees (shares) take.
//
// Usage: quillon-watch-bench [--latency SECONDS] FOLDER...
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FSEventsInotify.h"
#include "FSEventsPoll.h"
#include "MVFSEvents.h"
#include "MVRunLoop.h"
#include "PlatformLinux.h"

namespace {

class RecordPrinter final : public MVFSEventsDelegate {
 public:
  void fileSystemEventsReceived(const MVPlistValue::Array& events) override {
    for (const MVPlistValue& event : events) {
      const std::string* flag = event["flag"].string();
      const std::string* path = event["path"].string();
      std::fprintf(stdout, "%s %s\n", flag ? flag->c_str() : "-", path ? path->c_str() : "-");
    }
    // One flush per batch: a reader sees each batch as soon as it is delivered.
    std::fflush(stdout);
  }
};

void printUsage() { std::fprintf(stderr, "usage: quillon-watch-bench [--latency SECONDS] FOLDER...\n"); }

}  // namespace

int main(int argc, char** argv) {
  double latency = 1.0;
  std::vector<std::string> folders;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--latency") && i + 1 < argc) {
      latency = std::strtod(argv[++i], nullptr);
    } else if (argv[i][0] == '-') {
      printUsage();
      return 2;
    } else {
      folders.emplace_back(argv[i]);
    }
  }
  if (folders.empty()) {
    printUsage();
    return 2;
  }

  auto loop = quillon::createPlatformRunLoop();
  MVRunLoop::setMain(loop);
  MVFSEvents::setBackendFactory(quillon::createInotifyBackend);
  loop->onSignal(SIGTERM, [&] { loop->stop(); });
  loop->onSignal(SIGINT, [&] { loop->stop(); });

  // Static storage: the stream is never destroyed and may still name its
  // delegate while the process exits.
  static RecordPrinter printer;
  MVFSEvents& stream = MVFSEvents::sharedController();
  stream.setDelegate(&printer);

  const auto start = std::chrono::steady_clock::now();
  stream.startWatchingPaths(folders, latency);
  const double setupMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  std::fprintf(stderr, "Watches established.\nquillon-watch-bench: stream set up in %.1f ms\n", setupMs);

  loop->run();
  // Trees on shares are polled; what their snapshots hold is the figure
  // that grows with the tree.
  if (const quillon::PollStatistics polled = quillon::pollStatistics(); polled.entries > 0)
    std::fprintf(stderr, "quillon-watch-bench: %zu polled entries in %zu bytes (%.1f bytes each)\n", polled.entries,
                 polled.bytes, static_cast<double>(polled.bytes) / static_cast<double>(polled.entries));
  stream.stopWatching();
  return 0;
}
