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

using quillon_test::shell;
using quillon_test::shellOutput;

namespace {

// A child process that takes the lock `name`, says whether it got it on a
// pipe, and waits to be killed. Its pid, or -1 when it did not get the lock.
pid_t holdInChild(const std::string& name) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    char acquired = MVSingleInstance::acquire(name) ? 1 : 0;
    (void)!write(fds[1], &acquired, 1);
    pause();
    _exit(0);
  }
  close(fds[1]);
  char acquired = 0;
  bool ok = read(fds[0], &acquired, 1) == 1 && acquired == 1;
  close(fds[0]);
  return ok ? pid : -1;
}

TEST(MVSingleInstance, SecondHolderIsRefusedUntilTheFirstEndsAndProgramsItStartsDoNotKeepIt) {
  std::string runtime = quillon_test::makeTempDir("runtime");
  chmod(runtime.c_str(), 0700);
  quillon_test::EnvOverride runtimeDir("XDG_RUNTIME_DIR", runtime);
  pid_t first = holdInChild("agent-a");
  ASSERT_GT(first, 0);
  EXPECT_EQ(MVSingleInstance::lockPath("agent-a"), runtime + "/agent-a.lock");
  EXPECT_FALSE(MVSingleInstance::acquire("agent-a"));
  EXPECT_EQ(MVSingleInstance::holderProcessID("agent-a"), first);
  EXPECT_TRUE(MVSingleInstance::acquire("agent-b")) << "a lock of another name is independent";

  // The kernel releases the lock with the process, whatever way it ends.
  kill(first, SIGKILL);
  waitpid(first, nullptr, 0);
  EXPECT_TRUE(MVSingleInstance::acquire("agent-a"));
  EXPECT_TRUE(MVSingleInstance::acquire("agent-a"));  // held already: still ours
  EXPECT_EQ(MVSingleInstance::holderProcessID("agent-a"), getpid());
  EXPECT_EQ(shell("flock -n " + runtime + "/agent-a.lock true"), 1);

  // A program the holder starts (a script the user chose) gets no handle
  // on the lock, or it would keep the lock after the agent ended.
  EXPECT_EQ(shellOutput("ls -l /proc/$$/fd").find("agent-a.lock"), std::string::npos);
}

TEST(MVSingleInstance, WithoutARuntimeFolderTheCacheFolderIsUsed) {
  quillon_test::EnvOverride runtimeDir("XDG_RUNTIME_DIR", std::nullopt);
  EXPECT_EQ(MVSingleInstance::lockPath("agent-d"), MVLocalPaths::cacheDirectory(true) + "/agent-d.lock");
  quillon_test::EnvOverride missing("XDG_RUNTIME_DIR", "/nonexistent/runtime");
  EXPECT_EQ(MVSingleInstance::lockPath("agent-d"), MVLocalPaths::cacheDirectory(true) + "/agent-d.lock");
}

}  // namespace
