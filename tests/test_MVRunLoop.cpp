// The main loop: timers and work handed over from other threads.
#include <gtest/gtest.h>

#include <atomic>
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
