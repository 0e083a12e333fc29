// Running helper programs: their output, exit status, time-outs and reaping.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "MVLog.h"
#include "MVTaskEx.h"
#include "TestSupport.h"

using namespace quillon_test;

namespace {

std::string logText() {
  MVLog::finishWriting();
  return readFile(MVLog::currentLogPath());
}

// An executable script at a path of its own, so log lines naming it are this test's.
std::string script(const std::string& body, const std::string& name = "tool") {
  std::string path = makeTempDir("task") + "/" + name;
  writeFile(path, "#!/bin/sh\n" + body + "\n");
  chmod(path.c_str(), 0755);
  return path;
}

std::string text(const std::optional<MVTaskEx::Data>& data) {
  return data ? std::string(data->begin(), data->end()) : "<none>";
}

int zombieChildren() {
  return std::stoi(shellOutput("ps -o stat= --ppid " + std::to_string(getpid()) + " | grep -c '^Z'"));
}

// Runs `work` on a worker while the main thread turns its loop, which the time-outs need.
template <typename Result>
Result onWorker(const std::function<Result()>& work) {
  std::atomic<bool> done{false};
  Result result{};
  std::thread worker([&] {
    result = work();
    done = true;
  });
  EXPECT_TRUE(waitUntil([&] { return done.load(); }, 60));
  worker.join();
  return result;
}

class MVTaskExTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { MVLog::createNewLog("test_MVTaskEx"); }
};

}  // namespace

TEST_F(MVTaskExTest, OutputWinsOverErrorTextWhichWinsOverNothing) {
  struct Case { const char* body; bool logError; const char* expected; } cases[] = {
      {"echo out", true, "out\n"},
      {"echo err >&2", true, "err\n"},
      {"echo err >&2; echo out; echo more >&2", true, "out\n"},
      {"exit 0", true, ""},
      {"echo err >&2", false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    std::optional<MVTaskEx::Data> data =
        MVTaskEx::dataFromTask("/bin/sh", {"-c", c.body}, nullptr, std::nullopt, true, c.logError);
    EXPECT_EQ(text(data), c.expected);
    if (c.logError) {
      EXPECT_EQ(MVTaskEx::stringFromTask("/bin/sh", {"-c", c.body}), c.expected);
    }
  }
  auto data = MVTaskEx::dataFromTask("/bin/sh", {"-c", "printf \"$GREETING-$HOME\""}, nullptr,
                                     MVTaskEx::Environment{{"GREETING", "hi"}}, true, true);
  EXPECT_EQ(text(data), "hi-");
}

TEST_F(MVTaskExTest, ChattyProgramsCannotStallTheReader) {
  const char* floodBoth =
      "i=0; while [ $i -lt 16 ]; do head -c 65536 /dev/zero | tr '\\0' o; head -c 65536 /dev/zero >&2;"
      " i=$((i+1)); done";
  std::optional<MVTaskEx::Data> data = MVTaskEx::dataFromTask("/bin/sh", {"-c", floodBoth}, nullptr);
  ASSERT_TRUE(data);
  EXPECT_EQ(data->size(), 1048576u);
  EXPECT_EQ(std::count(data->begin(), data->end(), 'o'), 1048576);
}

TEST_F(MVTaskExTest, RefusesWhatIsNotAnExecutableFile) {
  std::string folder = makeTempDir("refused");
  std::string bundle = folder + "/Render.app";
  writeFile(bundle + "/Contents/MacOS/Render", "#!/bin/sh\n");
  chmod(bundle.c_str(), 0755);
  std::string plain = folder + "/notes.txt";
  writeFile(plain, "echo no\n");
  chmod(plain.c_str(), 0644);

  for (const std::string& path : {bundle, plain, folder + "/missing"}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(MVTaskEx::runTask(path));
    EXPECT_EQ(MVTaskEx::terminationCodeFromTask(path), -1);
    EXPECT_EQ(MVTaskEx::stringFromTask(path, {}, kMVUTF8StringEncoding, 5.0), "");
    EXPECT_NE(logText().find("Error: " + path + " is not executable"), std::string::npos);
  }
}

TEST_F(MVTaskExTest, ExitStatusAndFailedStart) {
  EXPECT_FALSE(MVTaskEx::runTask("/bin/false"));
  EXPECT_EQ(MVTaskEx::terminationCodeFromTask("/bin/sh", {"-c", "exit 3"}), 3);
  EXPECT_EQ(MVTaskEx::terminationCodeFromTask("/bin/sh", {"-c", "kill -9 $$"}), 9);

  // A failed exec is reported, not mistaken for exit code 127.
  std::string broken = script("", "broken");
  writeFile(broken, "#!/nonexistent/interpreter\n");
  EXPECT_EQ(MVTaskEx::terminationCodeFromTask(broken), -1);
  EXPECT_NE(logText().find("Exception running task " + broken + ": "), std::string::npos);
}

TEST_F(MVTaskExTest, TimeoutTerminatesWhenTheMainThreadIsFree) {
  std::string tool = script("echo partial; sleep 30; echo late");
  std::string output = onWorker<std::string>([&] { return MVTaskEx::stringFromTask(tool, {}, 1.0); });
  EXPECT_EQ(output, "partial\n");
  EXPECT_NE(logText().find("Task " + tool + " timed out. Terminating..."), std::string::npos);

  // A program that ends in time is left alone, and runTask never terminates.
  std::string slow = script("sleep 1.5; exit 0");
  EXPECT_TRUE(onWorker<bool>([&] { return MVTaskEx::runTask(slow, {}, 1.0); }));
  EXPECT_EQ(logText().find("Task " + slow + " timed out"), std::string::npos);
}

TEST_F(MVTaskExTest, EveryChildIsReaped) {
  std::string marker = makeTempDir("reap") + "/ran";
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(MVTaskEx::runTaskAndReturn("/bin/sh", {"-c", "touch " + marker}));
  // Closes its output early and lives on after the reader returns.
  EXPECT_EQ(MVTaskEx::stringFromTask("/bin/sh", {"-c", "echo early; exec >&- 2>&-; sleep 0.5"}), "early\n");
  EXPECT_EQ(onWorker<int>([] { return MVTaskEx::terminationCodeFromTask("/bin/sleep", {"30"}, 1.0); }), SIGTERM);
  EXPECT_TRUE(waitUntil([&] { return fileExists(marker); }, 10));
  EXPECT_TRUE(waitUntil([] { return zombieChildren() == 0; }, 10));
}

TEST_F(MVTaskExTest, OutputIsDecodedInTheAskedEncoding) {
  std::string accented = script("printf 'caf\\303\\251'");
  EXPECT_EQ(MVTaskEx::stringFromTask(accented, {}, kMVUTF8StringEncoding, 10.0), "caf\xC3\xA9");
  EXPECT_EQ(MVTaskEx::stringFromTask(accented), "caf\xC3\x83\xC2\xA9");
  std::string invalid = script("printf 'caf\\351'");
  EXPECT_EQ(MVTaskEx::stringFromTask(invalid, {}, kMVUTF8StringEncoding, 10.0), "");
}
