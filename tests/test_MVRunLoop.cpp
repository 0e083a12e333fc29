#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "MVRunLoop.h"
#include "TestSupport.h"

using quillon_test::waitUntil;

TEST(MVRunLoop, TimersFireOnMainThreadAndCanBeInvalidatedFromInside) {
  MVRunLoop& loop = MVRunLoop::main();
  int oneShot = 0, repeating = 0;
  bool onMain = false;
  auto once = loop.scheduleTimer(0.02, false, [&] { ++oneShot; onMain = loop.isMainThread(); });
  std::shared_ptr<MVTimer> rep;
  rep = loop.scheduleTimer(0.01, true, [&] {
    if (++repeating == 3) rep->invalidate();
  });
  loop.runFor(0.3);
  EXPECT_EQ(oneShot, 1);
  EXPECT_TRUE(onMain);
  EXPECT_FALSE(once->isValid());
  EXPECT_EQ(repeating, 3);
  EXPECT_FALSE(rep->isValid());

  // A timer invalidated before it fires never fires, also when armed off the main thread.
  int never = 0;
  std::shared_ptr<MVTimer> fromWorker;
  std::thread([&] { fromWorker = loop.scheduleTimer(0.02, false, [&] { ++never; }); }).join();
  fromWorker->invalidate();
  loop.runFor(0.1);
  EXPECT_EQ(never, 0);
}

TEST(MVRunLoop, PerformOnMainThreadWaitsAndRunsInOrder) {
  MVRunLoop& loop = MVRunLoop::main();
  std::vector<int> order;
  std::atomic<bool> workerDone{false};
  std::thread worker([&] {
    loop.performOnMainThread([&] { order.push_back(1); }, false);
    loop.performOnMainThread([&] { order.push_back(2); }, true);
    workerDone = true;
  });
  EXPECT_TRUE(waitUntil([&] { return workerDone.load(); }, 5));
  worker.join();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));

  // On the main thread, a waiting perform runs at once.
  bool ran = false;
  loop.performOnMainThread([&] { ran = true; }, true);
  EXPECT_TRUE(ran);
}

TEST(MVRunLoop, IOSourceAndSignalsReachTheMainThread) {
  MVRunLoop& loop = MVRunLoop::main();
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::string got;
  auto source = loop.addIOSource(fds[0], MVRunLoop::kReadable, [&](unsigned cond) {
    char buf[16];
    ssize_t n = read(fds[0], buf, sizeof buf);
    if (n > 0) got.append(buf, static_cast<size_t>(n));
    return (cond & MVRunLoop::kReadable) && n > 0;
  });
  ASSERT_EQ(write(fds[1], "hi", 2), 2);
  EXPECT_TRUE(waitUntil([&] { return got == "hi"; }, 2));
  source->invalidate();
  close(fds[0]);
  close(fds[1]);

  int hups = 0;
  loop.onSignal(SIGHUP, [&] { ++hups; });
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(waitUntil([&] { return hups == 1; }, 2));
}
