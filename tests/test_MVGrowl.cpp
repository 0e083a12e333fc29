// The in-process notification center: observer tokens and their lifetime.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "MVNotificationCenter.h"
#include "MVPropertyList.h"

namespace {

TEST(MVNotificationCenter, TokensControlDeliveryAndInvalidateWaitsForARunningHandler) {
  MVNotificationCenter center;
  std::vector<std::string> got;
  MVObserverToken named =
      center.addObserver("A", [&](const std::string& n, const MVPlistValue&, const MVPlistValue& info) {
        got.push_back("named:" + n + ":" + info["k"].description());
      });
  MVObserverToken selfRemoving;
  selfRemoving = center.addObserver("B", [&](const std::string&, const MVPlistValue&, const MVPlistValue&) {
    got.push_back("once");
    selfRemoving.invalidate();  // dies inside its own handler
  });
  MVPlistValue info;
  info.set("k", "v");
  center.postNotification("A", {}, info);
  center.postNotification("B");
  center.postNotification("B");
  EXPECT_EQ(got, (std::vector<std::string>{"named:A:v", "once"}));
  got.clear();
  named = MVObserverToken();  // moving an empty token in unregisters the old one
  center.postNotification("A");
  EXPECT_TRUE(got.empty());

  // A token dropped while its handler runs on another thread waits for it.
  std::atomic<bool> inside{false}, release{false}, finished{false};
  MVObserverToken slow = center.addObserver("slow", [&](const std::string&, const MVPlistValue&, const MVPlistValue&) {
    inside = true;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    finished = true;
  });
  std::thread poster([&] { center.postNotification("slow"); });
  while (!inside) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release = true;
  });
  slow.invalidate();
  EXPECT_TRUE(finished.load());
  poster.join();
  releaser.join();
}

}  // namespace
