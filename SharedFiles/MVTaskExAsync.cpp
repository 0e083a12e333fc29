// The asynchronous side of MVTaskEx: one detached thread per run reads the
// program's output and hands every chunk to the delegate.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

#include "MVCrashLog.h"
#include "MVLog.h"
#include "MVTaskEx.h"

// What the reading thread and the runner share for one run. The thread owns
// the pipes; others only ask it to stop, through the wake pipe, because
// closing a descriptor that another thread polls could close a stranger's
// descriptor that reused the number.
struct MVTaskEx::AsyncRun {
  std::optional<Environment> environment;
  MVUniqueFd wakeRead, wakeWrite;
  std::atomic<bool> stopped{false};

  void stop() {
    if (stopped.exchange(true)) return;
    char byte = 1;
    ssize_t ignored = ::write(wakeWrite.get(), &byte, 1);
    (void)ignored;
  }
};

std::shared_ptr<MVTaskEx> MVTaskEx::create() { return std::shared_ptr<MVTaskEx>(new MVTaskEx()); }

MVTaskEx::~MVTaskEx() {
  // Runs when the last owner lets go: never during a run, whose thread
  // keeps the runner alive.
  if (run_) run_->stop();
  if (theTask_ && theTask_->isRunning()) theTask_->terminate();
}

void MVTaskEx::asyncDataFromTask(const std::string& path, const Arguments& arguments, Delegate delegate,
                                 std::any object) {
  asyncDataFromTask(path, arguments, std::move(delegate), std::move(object), std::nullopt);
}

void MVTaskEx::asyncDataFromTask(const std::string& path, const Arguments& arguments, Delegate delegate,
                                 std::any object, const std::optional<Environment>& environment) {
  auto run = std::make_shared<AsyncRun>();
  run->environment = environment;
  int wake[2];
  if (pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
    MVLog::appendLogAndPrint("Exception: %@", std::generic_category().message(errno));
    return;
  }
  run->wakeRead.reset(wake[0]);
  run->wakeWrite.reset(wake[1]);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (run_) {
      MVLog::appendLog("Unable to launch async task %@ - another task is still running", path);
      return;
    }
    delegate_ = std::move(delegate);
    object_ = std::move(object);
    theTask_ = MVTaskProcess::create(path, arguments);
    run_ = run;
  }
  std::shared_ptr<MVTaskEx> self = shared_from_this();
  try {
    std::thread([self, run] {
      MVCrashLog::prepareThread();
      self->launchAsyncTask(run);
    }).detach();
  } catch (const std::system_error& error) {
    MVLog::appendLogAndPrint("Exception: %@", error.what());
    terminateAsyncTask();
  }
}

void MVTaskEx::launchAsyncTask(std::shared_ptr<AsyncRun> run) {
  // A run that never starts ends here without calling the delegate; the
  // runner may then be used for another run.
  auto abandon = [&] {
    std::lock_guard<std::mutex> lock(mutex_);
    if (run_ == run) run_.reset();
  };
  Task task = theTask();
  if (!task) {
    MVLog::appendLogAndPrint("Unable to launch async task - no task set");
    return abandon();
  }
  if (!isExecutable(task->launchPath())) {
    MVLog::appendLog("Unable to launch async task - task does not exist or is not executable");
    return abandon();
  }
  MVTaskProcess::Options options;
  options.environment = run->environment;
  options.output = MVTaskProcess::Stream::kPipe;
  options.error = MVTaskProcess::Stream::kPipe;
  MVTaskProcess::Pipes pipes;
  std::string reason;
  if (!task->launch(options, pipes, reason)) {
    MVLog::appendLogAndPrint("Exception: %@", reason);
    return abandon();
  }
  // terminateAsyncTask may have come between our look at theTask and the
  // launch, when there was nothing running for it to terminate.
  if (run->stopped) task->terminate();

  // Only the output is delivered; the error pipe is drained and dropped so
  // that a program chatty on standard error cannot stall.
  std::uint8_t buffer[64 * 1024];
  while (pipes.output.valid() && !run->stopped) {
    pollfd fds[3] = {{run->wakeRead.get(), POLLIN, 0}, {pipes.output.get(), POLLIN, 0}, {pipes.error.get(), POLLIN, 0}};
    nfds_t count = pipes.error.valid() ? 3 : 2;
    if (::poll(fds, count, -1) < 0) {
      if (errno == EINTR) continue;
      MVLog::appendLogAndPrint("Exception: %@", std::generic_category().message(errno));
      break;
    }
    if (fds[0].revents) break;
    if (count == 3 && fds[2].revents) {
      ssize_t dropped;
      while ((dropped = ::read(pipes.error.get(), buffer, sizeof buffer)) < 0 && errno == EINTR) {
      }
      if (dropped <= 0) pipes.error.reset();
    }
    if (fds[1].revents) {
      ssize_t got;
      while ((got = ::read(pipes.output.get(), buffer, sizeof buffer)) < 0 && errno == EINTR) {
      }
      if (got <= 0) break;
      asyncTaskReturnData(Data(buffer, buffer + got));
    }
  }
  pipes.output.reset();
  pipes.error.reset();
  asyncTaskReturnData(Data());
}

void MVTaskEx::asyncTaskReturnData(const Data& data) {
  Delegate delegate;
  std::any object;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    delegate = delegate_;
    object = object_;
  }
  if (delegate) delegate(data, shared_from_this(), object);
  if (data.empty()) terminateAsyncTask();
}

void MVTaskEx::terminateAsyncTask() {
  std::shared_ptr<AsyncRun> run;
  Task task;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    run = std::move(run_);
    run_.reset();
    delegate_ = nullptr;
    object_.reset();
    task = std::move(theTask_);
    theTask_.reset();
  }
  // Stop first, then look at the process: the reading thread checks the
  // stop mark after its launch, so one of the two sees the other.
  if (run) run->stop();
  if (task && task->isRunning()) task->terminate();
}
