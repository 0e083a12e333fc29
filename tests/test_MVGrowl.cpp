// MVGrowl and the in-process notification center, against a recording
// notification service.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "MVGrowl.h"
#include "MVNotificationCenter.h"
#include "MVPropertyList.h"
#include "MVRunLoop.h"
#include "TestSupport.h"

using quillon_test::waitUntil;

namespace {

// Notifications are delivered on the posting thread, before the post returns.
struct RecordingCenter : MVUserNotificationCenter::Backend {
  void deliverNotification(const MVUserNotification& notification) override { delivered.push_back(notification); }
  std::vector<MVUserNotification> take() { return std::exchange(delivered, {}); }
  std::vector<MVUserNotification> delivered;
};

class MVGrowlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MVGrowl::defaultController();
    previous_ = MVUserNotificationCenter::setBackend(center_);
    setGrowlDisabled(MVPlistValue());
  }
  void TearDown() override { MVUserNotificationCenter::setBackend(previous_); }

  static void setGrowlDisabled(const MVPlistValue& value) {
    MVPlistValue prefs{MVPlistValue::Dictionary{}};
    if (!value.isNil()) prefs.set("growlDisabled", value);
    std::filesystem::create_directories(std::filesystem::path(MVGlobalPreferences::path()).parent_path());
    ASSERT_TRUE(MVPropertyList::write(MVGlobalPreferences::path(), prefs));
  }

  std::shared_ptr<RecordingCenter> center_ = std::make_shared<RecordingCenter>();
  std::shared_ptr<MVUserNotificationCenter::Backend> previous_;
};

TEST_F(MVGrowlTest, EveryFormIsClickableUnlessItsContextIsNilAndTheSwitchIsReadEachTime) {
  auto before = std::chrono::system_clock::now();
  MVGrowl::postGrowlNotification("T1", "D1", "/icons/Avid.png", "Avid Media Composer Render Complete");
  MVGrowl::postGrowlNotification("T2", "D2");
  MVGrowl::postGrowlNotification("T3", "D3", "", "", MVPlistValue("context"));
  MVGrowl::postGrowlNotification("T4", "D4", "", "", MVPlistValue());
  auto shown = center_->take();
  ASSERT_EQ(shown.size(), 4u);
  EXPECT_EQ(shown[0].iconPath, "/icons/Avid.png");
  // The short forms stamp the time as their click context.
  for (int i : {0, 1}) {
    std::optional<MVPlistValue::Date> stamped = shown[i].userInfo["clickContext"].date();
    ASSERT_TRUE(stamped.has_value());
    EXPECT_GE(*stamped, before);
  }
  EXPECT_EQ(shown[2].userInfo["clickContext"], MVPlistValue("context"));
  EXPECT_TRUE(shown[3].userInfo.isNil());

  const std::pair<MVPlistValue, bool> cases[] = {
      {MVPlistValue(true), true}, {MVPlistValue(1), true}, {MVPlistValue(0), false}, {MVPlistValue("YES"), false}};
  for (const auto& [value, suppressed] : cases) {
    setGrowlDisabled(value);
    MVGrowl::postGrowlNotification("Render Complete", "x", "", "");
    EXPECT_EQ(center_->take().empty(), suppressed) << value.description();
  }
  // A missing file reads as off.
  std::filesystem::remove(MVGlobalPreferences::path());
  MVGrowl::postGrowlNotification("Render Complete", "x");
  EXPECT_EQ(center_->take().size(), 1u);
}

TEST(MVNotificationCenter, TokensControlDeliveryAndMayDieInsideTheirHandler) {
  MVNotificationCenter center;
  std::vector<std::string> got;
  MVObserverToken named =
      center.addObserver("A", [&](const std::string& n, const MVPlistValue&, const MVPlistValue& info) {
        got.push_back("named:" + n + ":" + info["k"].description());
      });
  MVObserverToken any = center.addObserver("", [&](const std::string& n, const MVPlistValue&, const MVPlistValue&) {
    got.push_back("any:" + n);
  });
  MVObserverToken selfRemoving;
  selfRemoving = center.addObserver("B", [&](const std::string&, const MVPlistValue&, const MVPlistValue&) {
    got.push_back("once");
    selfRemoving.invalidate();
  });

  MVPlistValue info;
  info.set("k", "v");
  center.postNotification("A", {}, info);
  center.postNotification("B");
  center.postNotification("B");
  EXPECT_EQ(got, (std::vector<std::string>{"named:A:v", "any:A", "any:B", "once", "any:B"}));

  got.clear();
  named = MVObserverToken();  // moving an empty token in unregisters the old one
  any.invalidate();
  center.postNotification("A");
  EXPECT_TRUE(got.empty());
}

TEST(MVNotificationCenter, InvalidateWaitsForAHandlerRunningOnAnotherThread) {
  MVNotificationCenter center;
  std::atomic<bool> inside{false}, release{false}, finished{false};
  MVObserverToken token = center.addObserver("slow", [&](const std::string&, const MVPlistValue&, const MVPlistValue&) {
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
  token.invalidate();
  EXPECT_TRUE(finished.load());
  poster.join();
  releaser.join();
}

}  // namespace
