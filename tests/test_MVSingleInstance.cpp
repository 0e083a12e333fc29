// The single-instance lock between real processes.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "MVLocalPaths.h"
#include "MVSingleInstance.h"
#include "TestSupport.h"

namespace {

// A child process that takes the lock `name`, optionally starts a program
// that outlives it, reports on a pipe and then waits to be killed (or exits).
struct LockHolder {
  pid_t pid = -1;
  pid_t grandchild = -1;
  bool acquired = false;
};

LockHolder holdInChild(const std::string& name, bool startProgramAndExit) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  LockHolder holder;
  holder.pid = fork();
  if (holder.pid == 0) {
    close(fds[0]);
    int report[2] = {MVSingleInstance::acquire(name) ? 1 : 0, -1};
    if (startProgramAndExit) {
      pid_t program = fork();
      if (program == 0) {
        execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
        _exit(127);
      }
      report[1] = program;
    }
    (void)!write(fds[1], report, sizeof report);
    if (startProgramAndExit) _exit(0);
    pause();
    _exit(0);
  }
  close(fds[1]);
  int report[2] = {0, -1};
  holder.acquired = read(fds[0], report, sizeof report) == sizeof report && report[0] == 1;
  holder.grandchild = report[1];
  close(fds[0]);
  return holder;
}

void stop(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

class MVSingleInstanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    runtime_ = quillon_test::makeTempDir("runtime");
    chmod(runtime_.c_str(), 0700);
    setenv("XDG_RUNTIME_DIR", runtime_.c_str(), 1);
  }
  void TearDown() override { unsetenv("XDG_RUNTIME_DIR"); }
  std::string runtime_;
};

TEST_F(MVSingleInstanceTest, SecondHolderIsRefusedUntilTheFirstEnds) {
  LockHolder first = holdInChild("agent-a", false);
  ASSERT_TRUE(first.acquired);
  EXPECT_EQ(MVSingleInstance::lockPath("agent-a"), runtime_ + "/agent-a.lock");

  EXPECT_FALSE(MVSingleInstance::acquire("agent-a"));
  EXPECT_EQ(MVSingleInstance::holderProcessID("agent-a"), first.pid);

  // A lock of another name is independent.
  EXPECT_TRUE(MVSingleInstance::acquire("agent-b"));

  // The kernel releases the lock with the process, whatever way it ends.
  stop(first.pid);
  EXPECT_TRUE(MVSingleInstance::acquire("agent-a"));
  EXPECT_TRUE(MVSingleInstance::acquire("agent-a"));  // held already: still ours
  EXPECT_EQ(MVSingleInstance::holderProcessID("agent-a"), getpid());
  EXPECT_EQ(quillon_test::shell("flock -n " + runtime_ + "/agent-a.lock true"), 1);
}

TEST_F(MVSingleInstanceTest, ProgramsStartedByTheHolderDoNotKeepTheLock) {
  LockHolder holder = holdInChild("agent-c", true);
  ASSERT_TRUE(holder.acquired);
  waitpid(holder.pid, nullptr, 0);
  ASSERT_GT(holder.grandchild, 0);
  // The holder is gone; its still running child must not hold the lock.
  // (It may take a moment to reach its exec, which closes the lock.)
  EXPECT_EQ(kill(holder.grandchild, 0), 0);
  EXPECT_TRUE(quillon_test::waitUntil([] { return MVSingleInstance::acquire("agent-c"); }, 5));
  EXPECT_EQ(kill(holder.grandchild, 0), 0);
  stop(holder.grandchild);
}

TEST_F(MVSingleInstanceTest, WithoutARuntimeFolderTheCacheFolderIsUsed) {
  unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(MVSingleInstance::lockPath("agent-d"), MVLocalPaths::cacheDirectory(true) + "/agent-d.lock");
  setenv("XDG_RUNTIME_DIR", "/nonexistent/runtime", 1);
  EXPECT_EQ(MVSingleInstance::lockPath("agent-d"), MVLocalPaths::cacheDirectory(true) + "/agent-d.lock");
}

}  // namespace
