// MVGrowl and the in-process notification center, against a recording
// notification service.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "MVGrowl.h"
#include "MVNotificationCenter.h"
#include "MVPropertyList.h"
#include "MVRunLoop.h"
#include "TestSupport.h"

using quillon_test::waitUntil;

namespace {

class RecordingCenter : public MVUserNotificationCenter::Backend {
 public:
  void deliverNotification(const MVUserNotification& notification) override {
    std::lock_guard<std::mutex> lock(mutex);
    delivered.push_back(notification);
  }
  std::vector<MVUserNotification> take() {
    std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(delivered, {});
  }
  std::mutex mutex;
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

TEST_F(MVGrowlTest, ShorterFormsForwardWithTheirDefaults) {
  auto before = std::chrono::system_clock::now();
  MVGrowl::postGrowlNotification("Render Complete", "File: a.mov", "/icons/Avid.png",
                                 "Avid Media Composer Render Complete");
  MVGrowl::postGrowlNotification("T2", "D2", "icon-name");
  MVGrowl::postGrowlNotification("T3", "D3");
  MVGrowl::postGrowlNotification("T4", "D4", "", "", MVPlistValue("context"));

  auto shown = center_->take();
  ASSERT_EQ(shown.size(), 4u);
  EXPECT_EQ(shown[0].title, "Render Complete");
  EXPECT_EQ(shown[0].informativeText, "File: a.mov");
  EXPECT_EQ(shown[0].iconPath, "/icons/Avid.png");
  EXPECT_TRUE(shown[0].soundName.empty());
  EXPECT_FALSE(shown[0].hasActionButton);
  // The four-argument form stamps the time as its click context.
  std::optional<MVPlistValue::Date> stamped = shown[0].userInfo["clickContext"].date();
  ASSERT_TRUE(stamped.has_value());
  EXPECT_GE(*stamped, before);
  EXPECT_LE(*stamped, std::chrono::system_clock::now());

  // The two- and three-argument forms reach the four-argument one, so they
  // are clickable too; only an explicit context replaces the date.
  EXPECT_EQ(shown[1].iconPath, "icon-name");
  EXPECT_TRUE(shown[1].userInfo["clickContext"].isDate());
  EXPECT_TRUE(shown[2].iconPath.empty());
  EXPECT_TRUE(shown[2].userInfo["clickContext"].isDate());
  EXPECT_EQ(shown[3].userInfo["clickContext"], MVPlistValue("context"));
  EXPECT_EQ(shown[3].userInfo.count(), 1u);

  // No context: shown, but nothing to pass on when clicked.
  MVGrowl::postGrowlNotification("T5", "D5", "", "", MVPlistValue());
  shown = center_->take();
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_TRUE(shown[0].userInfo.isNil());
}

TEST_F(MVGrowlTest, GlobalSwitchIsReadAtEveryNotification) {
  struct Case {
    MVPlistValue value;
    bool suppressed;
  };
  const Case cases[] = {
      {MVPlistValue(true), true},   {MVPlistValue(1), true},      {MVPlistValue(false), false},
      {MVPlistValue(0), false},     {MVPlistValue("YES"), false}, {MVPlistValue(), false},
  };
  for (const Case& c : cases) {
    setGrowlDisabled(c.value);
    MVGrowl::postGrowlNotification("Render Complete", "x", "", "");
    EXPECT_EQ(center_->take().empty(), c.suppressed) << c.value.description();
  }
  // A missing file reads as off.
  std::filesystem::remove(MVGlobalPreferences::path());
  MVGrowl::postGrowlNotification("Render Complete", "x");
  EXPECT_EQ(center_->take().size(), 1u);
}

TEST_F(MVGrowlTest, ClickIsPassedOnInProcessOnTheMainThread) {
  std::vector<MVPlistValue> clicks;
  bool onMain = true;
  MVObserverToken token = MVNotificationCenter::defaultCenter().addObserver(
      "MVGrowlAlertClicked", [&](const std::string&, const MVPlistValue& object, const MVPlistValue& userInfo) {
        EXPECT_TRUE(object.isNil());
        onMain = onMain && MVRunLoop::main().isMainThread();
        clicks.push_back(userInfo);
      });

  MVGrowl::postGrowlNotification("Render Complete", "x", "", "", MVPlistValue("ctx"));
  MVGrowl::postGrowlNotification("Render Complete", "y", "", "", MVPlistValue());
  auto shown = center_->take();
  ASSERT_EQ(shown.size(), 2u);

  // The backend reports clicks on the main thread; the one without a context is dropped.
  MVUserNotificationCenter::defaultUserNotificationCenter().notificationActivated(shown[1]);
  EXPECT_TRUE(clicks.empty());
  MVUserNotificationCenter::defaultUserNotificationCenter().notificationActivated(shown[0]);
  ASSERT_EQ(clicks.size(), 1u);
  EXPECT_EQ(clicks[0]["clickContext"], MVPlistValue("ctx"));

  // A click reported elsewhere still reaches observers on the main thread,
  // and the reporter waits until they have run.
  std::atomic<bool> returned{false};
  std::thread worker([&] {
    MVUserNotificationCenter::defaultUserNotificationCenter().notificationActivated(shown[0]);
    returned = true;
  });
  EXPECT_TRUE(waitUntil([&] { return returned.load(); }, 5));
  worker.join();
  EXPECT_EQ(clicks.size(), 2u);
  EXPECT_TRUE(onMain);
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

  // A token may outlive its center.
  MVObserverToken survivor;
  {
    MVNotificationCenter shortLived;
    survivor = shortLived.addObserver("A", [](const std::string&, const MVPlistValue&, const MVPlistValue&) {});
  }
  survivor.invalidate();
  EXPECT_FALSE(survivor.isValid());
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
