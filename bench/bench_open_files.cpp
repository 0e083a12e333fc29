// The open-for-writing guard: before a render is announced the folder check
// asks whether any process of the user holds the file open for writing.
// Measured with 500 extra sleeping processes, each holding 24 descriptors (a
// desktop session's worth): once with the render held by none of them (the
// ordinary case, answered by the kernel without a walk), once held by a
// process started after them, so that the walk of /proc/*/fd reads nearly the
// whole table before it finds the writer.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "MVOpenFiles.h"
#include "bench_support.h"

extern char** environ;

namespace {

class SleepingProcesses {
 public:
  SleepingProcesses(int count, int descriptorsEach) {
    std::vector<int> fds;
    // Inherited by every child: no close-on-exec.
    for (int i = 3; i < descriptorsEach; ++i) fds.push_back(open("/dev/null", O_RDONLY));
    char sleepPath[] = "/bin/sleep", seconds[] = "600";
    char* argv[] = {sleepPath, seconds, nullptr};
    for (int i = 0; i < count; ++i) {
      pid_t pid = 0;
      if (posix_spawn(&pid, sleepPath, nullptr, nullptr, argv, environ) == 0) pids_.push_back(pid);
    }
    for (int fd : fds) close(fd);
  }
  ~SleepingProcesses() {
    for (pid_t pid : pids_) kill(pid, SIGKILL);
    for (pid_t pid : pids_) waitpid(pid, nullptr, 0);
  }
  std::size_t size() const { return pids_.size(); }

 private:
  std::vector<pid_t> pids_;
};

void BM_WriterOfRender(benchmark::State& state) {
  SleepingProcesses sleepers(static_cast<int>(state.range(0)), 24);
  const bool held = state.range(1) != 0;
  const std::string render = quillon_bench::benchHome() + "/Renders/render" + std::to_string(state.range(1)) + ".mov";
  quillon_bench::writeFile(render, "render");
  pid_t writerPid = 0;
  if (held) {
    std::string script = "exec 3>>'" + render + "'; exec sleep 600";
    char shell[] = "/bin/sh", dashC[] = "-c";
    char* argv[] = {shell, dashC, script.data(), nullptr};
    posix_spawn(&writerPid, shell, nullptr, nullptr, argv, environ);
    usleep(200000);
  }
  for (auto _ : state) {
    auto writer = MVOpenFiles::writerOf(render);
    if (writer.has_value() != held) {
      state.SkipWithError("wrong answer");
      break;
    }
    benchmark::DoNotOptimize(writer);
  }
  if (writerPid) {
    kill(writerPid, SIGKILL);
    waitpid(writerPid, nullptr, 0);
  }
  state.counters["processes"] = static_cast<double>(sleepers.size());
}
BENCHMARK(BM_WriterOfRender)
    ->ArgNames({"processes", "held"})
    ->Args({0, 0})
    ->Args({500, 0})
    ->Args({0, 1})
    ->Args({500, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
