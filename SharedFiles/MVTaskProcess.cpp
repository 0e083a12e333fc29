#include "MVTaskProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

#include "MVCrashLog.h"

extern char** environ;

void MVUniqueFd::reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

namespace {

bool makePipe(MVUniqueFd& readEnd, MVUniqueFd& writeEnd) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  readEnd.reset(fds[0]);
  writeEnd.reset(fds[1]);
  return true;
}

std::string errnoText(int error) { return std::generic_category().message(error); }

// Everything below runs in the forked child, before exec: only
// async-signal-safe calls, no allocation.
[[noreturn]] void failInChild(int statusFd) {
  int error = errno;
  ssize_t ignored = ::write(statusFd, &error, sizeof error);
  (void)ignored;
  _exit(127);
}

// Moves fd to a number of at least 3, so that the dup2 calls onto 0, 1 and 2
// never overwrite one of the other sources (the agent may run with its own
// standard streams closed).
int liftFd(int fd, int statusFd) {
  if (fd < 0) return fd;
  int lifted = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  if (lifted < 0) failInChild(statusFd);
  return lifted;
}

[[noreturn]] void runChild(const char* path, char* const* argv, char* const* envp, int in, int out, int err,
                           int statusFd) {
  // A program inherits ignored signals and the blocked mask across exec;
  // start it with the defaults so that SIGTERM and SIGPIPE work as usual.
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  for (int signo = 1; signo < NSIG; ++signo) sigaction(signo, &defaults, nullptr);

  setpgid(0, 0);

  statusFd = liftFd(statusFd, statusFd);
  in = liftFd(in, statusFd);
  out = liftFd(out, statusFd);
  err = liftFd(err, statusFd);
  if (dup2(in, STDIN_FILENO) < 0) failInChild(statusFd);
  if (out >= 0 && dup2(out, STDOUT_FILENO) < 0) failInChild(statusFd);
  if (err >= 0 && dup2(err, STDERR_FILENO) < 0) failInChild(statusFd);

  // Descriptors that other parts of the agent opened without close-on-exec
  // must not leak into the program: a leaked pipe end would keep someone's
  // reader waiting until the program exits.
  if (statusFd > 3) close_range(3, static_cast<unsigned>(statusFd) - 1, 0);
  close_range(static_cast<unsigned>(statusFd) + 1, ~0U, 0);

  if (envp)
    execve(path, argv, envp);
  else
    execv(path, argv);
  failInChild(statusFd);
}

}  // namespace

std::shared_ptr<MVTaskProcess> MVTaskProcess::create(std::string launchPath, std::vector<std::string> arguments) {
  return std::shared_ptr<MVTaskProcess>(new MVTaskProcess(std::move(launchPath), std::move(arguments)));
}

MVTaskProcess::MVTaskProcess(std::string launchPath, std::vector<std::string> arguments)
    : launchPath_(std::move(launchPath)), arguments_(std::move(arguments)) {}

MVTaskProcess::~MVTaskProcess() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!launched_ || reaped_ || reapLocked(false)) return;
  // Still running (a program started without waiting, or one that closed its
  // output early): someone has to collect it when it ends.
  pid_t pid = pid_;
  try {
    std::thread([pid] {
      MVCrashLog::prepareThread();
      int status;
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
    }).detach();
  } catch (const std::system_error&) {
    // No thread to spare: the child becomes a zombie until the agent exits.
  }
}

bool MVTaskProcess::launch(const Options& options, Pipes& pipes, std::string& reason) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (launched_) {
    reason = "task has already been launched";
    return false;
  }
  if (launchPath_.empty() || launchPath_.front() != '/') {
    reason = "launch path not accessible";
    return false;
  }

  // Everything the child needs is built before fork: it may not allocate.
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(launchPath_.c_str()));
  for (const std::string& argument : arguments_) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::vector<std::string> environmentStrings;
  std::vector<char*> envp;
  if (options.environment) {
    for (const auto& [key, value] : *options.environment) environmentStrings.push_back(key + "=" + value);
    for (std::string& entry : environmentStrings) envp.push_back(entry.data());
    envp.push_back(nullptr);
  }

  MVUniqueFd inRead, inWrite, outRead, outWrite, errRead, errWrite, statusRead, statusWrite, nullDevice;
  bool ok = makePipe(inRead, inWrite) && makePipe(statusRead, statusWrite);
  if (ok && options.output == Stream::kPipe) ok = makePipe(outRead, outWrite);
  if (ok && options.error == Stream::kPipe) ok = makePipe(errRead, errWrite);
  if (ok && (options.output == Stream::kNullDevice || options.error == Stream::kNullDevice)) {
    nullDevice.reset(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    ok = nullDevice.valid();
  }
  if (!ok) {
    reason = errnoText(errno);
    return false;
  }
  auto childEnd = [&](Stream stream, const MVUniqueFd& pipeEnd) {
    switch (stream) {
      case Stream::kPipe: return pipeEnd.get();
      case Stream::kNullDevice: return nullDevice.get();
      case Stream::kInherit: break;
    }
    return -1;
  };
  int childOut = childEnd(options.output, outWrite);
  int childErr = childEnd(options.error, errWrite);

  pid_t pid = fork();
  if (pid < 0) {
    reason = errnoText(errno);
    return false;
  }
  if (pid == 0)
    runChild(launchPath_.c_str(), argv.data(), options.environment ? envp.data() : nullptr, inRead.get(), childOut,
             childErr, statusWrite.get());

  // Also from this side, so that terminate() can signal the group even if
  // it came before the child got to run.
  setpgid(pid, pid);
  statusWrite.reset();
  inRead.reset();
  inWrite.reset();
  outWrite.reset();
  errWrite.reset();

  // The status pipe closes on a successful exec; otherwise it carries errno.
  int childError = 0;
  ssize_t got;
  while ((got = ::read(statusRead.get(), &childError, sizeof childError)) < 0 && errno == EINTR) {
  }
  launched_ = true;
  pid_ = pid;
  if (got == static_cast<ssize_t>(sizeof childError)) {
    reapLocked(true);
    reason = errnoText(childError);
    return false;
  }
  pipes.output = std::move(outRead);
  pipes.error = std::move(errRead);
  return true;
}

bool MVTaskProcess::reapLocked(bool block) {
  int status = 0;
  pid_t result;
  while ((result = waitpid(pid_, &status, block ? 0 : WNOHANG)) < 0 && errno == EINTR) {
  }
  if (result == 0) return false;
  reaped_ = true;
  if (result < 0) {
    // Collected elsewhere (SIGCHLD ignored): the status is lost.
    status_ = -1;
  } else if (WIFSIGNALED(status)) {
    status_ = WTERMSIG(status);
    bySignal_ = true;
  } else {
    status_ = WEXITSTATUS(status);
  }
  return true;
}

bool MVTaskProcess::isLaunched() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return launched_;
}

bool MVTaskProcess::isRunning() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!launched_ || reaped_) return false;
  // Peek without collecting: only waitUntilExit and the destructor reap, so
  // the pid cannot be reused while this handle may still signal it.
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return false;
  return info.si_pid == 0;
}

void MVTaskProcess::terminate() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!launched_ || reaped_) return;
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0) return;
  if (kill(-pid_, SIGTERM) != 0) kill(pid_, SIGTERM);
}

int MVTaskProcess::waitUntilExit() {
  pid_t pid;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!launched_) return -1;
    if (reaped_) return status_;
    pid = pid_;
  }
  for (;;) {
    // Wait without collecting, then collect under the lock, so that
    // terminate() never signals a pid that has been handed to someone else.
    siginfo_t info{};
    int result = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    if (result != 0 && errno == EINTR) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    if (reaped_ || reapLocked(false)) return status_;
    if (result != 0) {
      reaped_ = true;
      status_ = -1;
      return status_;
    }
  }
}

bool MVTaskProcess::terminatedBySignal() {
  std::lock_guard<std::mutex> lock(mutex_);
  return bySignal_;
}

pid_t MVTaskProcess::processIdentifier() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pid_;
}
