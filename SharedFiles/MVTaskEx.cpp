#include "MVTaskEx.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <system_error>
#include <thread>

#include "MVCrashLog.h"
#include "MVLog.h"
#include "MVRunLoop.h"

namespace {

using Data = MVTaskEx::Data;
using Task = MVTaskEx::Task;
using HandOut = std::function<void(Task)>;

constexpr std::size_t kReadSize = 64 * 1024;

// Reads once from a readable pipe into `buffer`. False at end of file (or on
// an error, which ends the stream just the same).
bool readChunk(int fd, Data& buffer) {
  std::uint8_t chunk[kReadSize];
  ssize_t got;
  while ((got = ::read(fd, chunk, sizeof chunk)) < 0 && errno == EINTR) {
  }
  if (got <= 0) return false;
  buffer.insert(buffer.end(), chunk, chunk + got);
  return true;
}

// Drains the output and error pipes together until both end, so a program
// that fills one pipe while we wait on the other cannot dead-lock us.
void drainPipes(MVUniqueFd& output, Data& outputBuffer, MVUniqueFd& error, Data& errorBuffer) {
  while (output.valid() || error.valid()) {
    pollfd fds[2];
    nfds_t count = 0;
    MVUniqueFd* owners[2];
    Data* buffers[2];
    if (output.valid()) {
      fds[count] = {output.get(), POLLIN, 0};
      owners[count] = &output;
      buffers[count++] = &outputBuffer;
    }
    if (error.valid()) {
      fds[count] = {error.get(), POLLIN, 0};
      owners[count] = &error;
      buffers[count++] = &errorBuffer;
    }
    if (::poll(fds, count, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (nfds_t i = 0; i < count; ++i) {
      if (fds[i].revents == 0) continue;
      if (!readChunk(fds[i].fd, *buffers[i])) owners[i]->reset();
    }
  }
}

// "Error: %@ is not executable" when the path is no runnable file.
bool checkExecutable(const std::string& path) {
  if (MVTaskEx::isExecutable(path)) return true;
  MVLog::appendLogAndPrint("Error: %@ is not executable", path);
  return false;
}

// Runs the program with its output and error to the null device and waits
// for it. Returns the termination status, or nothing when it did not start
// (after logging the reason with the given entry point).
std::optional<int> runAndWait(const std::string& path, const MVTaskEx::Arguments& arguments, const HandOut& handOut,
                              bool printFailure) {
  Task task = MVTaskProcess::create(path, arguments);
  if (handOut) handOut(task);
  MVTaskProcess::Pipes pipes;
  std::string reason;
  if (!task->launch({}, pipes, reason)) {
    if (printFailure)
      MVLog::appendLogAndPrint("Exception running task %@: %@", path, reason);
    else
      MVLog::appendLog("Exception running task %@: %@", path, reason);
    return std::nullopt;
  }
  return task->waitUntilExit();
}

std::optional<Data> captureOutput(const std::string& path, const MVTaskEx::Arguments& arguments,
                                  const HandOut& handOut, const std::optional<MVTaskEx::Environment>& environment,
                                  bool logOutput, bool logError) {
  if (!checkExecutable(path)) return std::nullopt;
  Task task = MVTaskProcess::create(path, arguments);
  if (handOut) handOut(task);
  MVTaskProcess::Options options;
  options.environment = environment;
  options.output = logOutput ? MVTaskProcess::Stream::kPipe : MVTaskProcess::Stream::kInherit;
  options.error = logError ? MVTaskProcess::Stream::kPipe : MVTaskProcess::Stream::kNullDevice;
  MVTaskProcess::Pipes pipes;
  std::string reason;
  if (!task->launch(options, pipes, reason)) {
    MVLog::appendLogAndPrint("Exception running task %@: %@", path, reason);
    return std::nullopt;
  }
  Data output, error;
  drainPipes(pipes.output, output, pipes.error, error);
  // Releasing the handle reaps the program, in the background if it is
  // still running with its output closed.
  if (!output.empty()) return output;
  if (!error.empty()) return error;
  return output;
}

std::string decodeOutput(const std::string& path, const std::optional<Data>& data, MVStringEncoding encoding) {
  if (!data || data->empty()) return {};
  std::optional<std::string> text = MVDecodeString(*data, encoding);
  if (!text) {
    MVLog::appendLog("Output of %@ cannot be read with encoding %lu", path, static_cast<unsigned long>(encoding));
    return {};
  }
  return *text;
}

}  // namespace

// ---------------------------------------------------------------------------
// Synchronous forms

bool MVTaskEx::isExecutable(const std::string& path) {
  struct stat info;
  if (path.empty() || ::stat(path.c_str(), &info) != 0) return false;
  return S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

bool MVTaskEx::runTask(const std::string& path, const Arguments& arguments) {
  return runTask(path, arguments, static_cast<Task*>(nullptr));
}

bool MVTaskEx::runTask(const std::string& path, const Arguments& arguments, Task* task) {
  // Relative paths skip the test and are refused by the launcher instead.
  if (!path.empty() && path.front() == '/' && !checkExecutable(path)) return false;
  HandOut handOut;
  if (task) handOut = [task](Task process) { *task = std::move(process); };
  std::optional<int> status = runAndWait(path, arguments, handOut, false);
  return status && *status == 0;
}

bool MVTaskEx::runTaskAndReturn(const std::string& path, const Arguments& arguments) {
  if (!checkExecutable(path)) return false;
  Task task = MVTaskProcess::create(path, arguments);
  MVTaskProcess::Pipes pipes;
  std::string reason;
  if (!task->launch({}, pipes, reason)) {
    MVLog::appendLogAndPrint("Exception running task %@: %@", path, reason);
    return false;
  }
  return true;  // the released handle reaps the program when it ends
}

int MVTaskEx::terminationCodeFromTask(const std::string& path, const Arguments& arguments) {
  return terminationCodeFromTask(path, arguments, static_cast<Task*>(nullptr));
}

int MVTaskEx::terminationCodeFromTask(const std::string& path, const Arguments& arguments, Task* task) {
  if (!checkExecutable(path)) return -1;
  HandOut handOut;
  if (task) handOut = [task](Task process) { *task = std::move(process); };
  return runAndWait(path, arguments, handOut, true).value_or(-1);
}

std::optional<MVTaskEx::Data> MVTaskEx::dataFromTask(const std::string& path, const Arguments& arguments,
                                                     Task* task) {
  return dataFromTask(path, arguments, task, std::nullopt, true, true);
}

std::optional<MVTaskEx::Data> MVTaskEx::dataFromTask(const std::string& path, const Arguments& arguments,
                                                     Task* task, const std::optional<Environment>& environment,
                                                     bool logOutput, bool logError) {
  HandOut handOut;
  if (task) handOut = [task](Task process) { *task = std::move(process); };
  return captureOutput(path, arguments, handOut, environment, logOutput, logError);
}

std::string MVTaskEx::stringFromTask(const std::string& path, const Arguments& arguments) {
  return stringFromTask(path, arguments, static_cast<Task*>(nullptr));
}

std::string MVTaskEx::stringFromTask(const std::string& path, const Arguments& arguments, Task* task) {
  return decodeOutput(path, dataFromTask(path, arguments, task), kMVASCIIStringEncoding);
}

// ---------------------------------------------------------------------------
// Time-outs

struct MVTaskEx::TimeoutState {
  std::mutex mutex;
  std::condition_variable wake;
  bool cancelled = false;
  bool finished = false;
};

template <typename Result>
Result MVTaskEx::withTimeout(double timeout, const std::function<Result(const HandOut&)>& body) {
  std::shared_ptr<MVTaskEx> instance = create();
  // Whole seconds, truncated; anything below one second fires at once.
  long seconds = 0;
  if (std::isfinite(timeout) && timeout >= 1) seconds = timeout > 1e9 ? 1000000000L : static_cast<long>(timeout);
  auto state = std::make_shared<TimeoutState>();
  instance->setupTimeout(seconds, state);

  instance->setTheTask(nullptr);
  std::weak_ptr<MVTaskEx> weak = instance;
  Result result = body([weak](Task task) {
    if (auto self = weak.lock()) self->setTheTask(std::move(task));
  });
  instance->setTheTask(nullptr);

  std::lock_guard<std::mutex> lock(state->mutex);
  if (!state->cancelled && !state->finished) {
    state->cancelled = true;
    state->wake.notify_all();
  }
  return result;
}

void MVTaskEx::setupTimeout(long seconds, const std::shared_ptr<TimeoutState>& state) {
  std::shared_ptr<MVTaskEx> self = shared_from_this();
  auto sleeper = [self, state, seconds] {
    {
      std::unique_lock<std::mutex> lock(state->mutex);
      state->wake.wait_for(lock, std::chrono::seconds(seconds), [&] { return state->cancelled; });
      if (state->cancelled) {
        // The call ended first; theTask is already cleared, so there is
        // nothing left to terminate.
        state->finished = true;
        return;
      }
    }
    if (MVRunLoop::hasMain())
      MVRunLoop::main().performOnMainThread([self] { self->timeout(); }, true);
    else
      self->timeout();
    std::lock_guard<std::mutex> lock(state->mutex);
    state->finished = true;
  };
  try {
    std::thread([sleeper] {
      MVCrashLog::prepareThread();
      sleeper();
    }).detach();
  } catch (const std::system_error& error) {
    MVLog::appendLog("Unable to start the time-out thread: %@", error.what());
  }
}

void MVTaskEx::timeout() {
  Task task = theTask();
  if (task && task->isRunning()) {
    MVLog::appendLogAndPrint("Task %@ timed out. Terminating...", task->launchPath());
    task->terminate();
  }
}

void MVTaskEx::setTheTask(Task task) {
  std::lock_guard<std::mutex> lock(mutex_);
  theTask_ = std::move(task);
}

MVTaskEx::Task MVTaskEx::theTask() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return theTask_;
}

bool MVTaskEx::runTask(const std::string& path, const Arguments& arguments, double timeout) {
  // The time-out watches theTask, but the run reports its process to a local
  // handle instead: this form waits for the program however long it takes.
  return withTimeout<bool>(timeout, [&](const HandOut&) {
    Task local;
    return runTask(path, arguments, &local);
  });
}

int MVTaskEx::terminationCodeFromTask(const std::string& path, const Arguments& arguments, double timeout) {
  return withTimeout<int>(timeout, [&](const HandOut& handOut) {
    if (!checkExecutable(path)) return -1;
    return runAndWait(path, arguments, handOut, true).value_or(-1);
  });
}

std::optional<MVTaskEx::Data> MVTaskEx::dataFromTask(const std::string& path, const Arguments& arguments,
                                                     double timeout) {
  return dataFromTask(path, arguments, timeout, true, true);
}

std::optional<MVTaskEx::Data> MVTaskEx::dataFromTask(const std::string& path, const Arguments& arguments,
                                                     double timeout, bool logOutput, bool logError) {
  return withTimeout<std::optional<Data>>(timeout, [&](const HandOut& handOut) {
    return captureOutput(path, arguments, handOut, std::nullopt, logOutput, logError);
  });
}

std::string MVTaskEx::stringFromTask(const std::string& path, const Arguments& arguments, double timeout) {
  return stringFromTask(path, arguments, kMVASCIIStringEncoding, timeout);
}

std::string MVTaskEx::stringFromTask(const std::string& path, const Arguments& arguments,
                                     MVStringEncoding encoding, double timeout) {
  return stringFromTask(path, arguments, encoding, timeout, true, true);
}

std::string MVTaskEx::stringFromTask(const std::string& path, const Arguments& arguments,
                                     MVStringEncoding encoding, double timeout, bool logOutput, bool logError) {
  return decodeOutput(path, dataFromTask(path, arguments, timeout, logOutput, logError), encoding);
}
