// The alert as a GTK dialog on a private X server, driven with xdotool (notifications: test_PowerActions).
#include <gtest/gtest.h>

#include <memory>

#include "MVAlert.h"
#include "MVRunLoop.h"
#include "PowerAlertServices.h"
#include "PowerTestSupport.h"

using namespace quillon_test;
using Code = MVAlert::ReturnCode;

namespace {

class LinuxAlerts : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { quillon::installPowerAndAlertServices(); }
};

// The X server lives until every test has run: GTK keeps its display open,
// and a display that vanished while the loop still turns ends the process.
std::unique_ptr<power_test::VirtualDisplay> gDisplay;

class DisplayEnvironment : public ::testing::Environment {
 public:
  void TearDown() override { gDisplay.reset(); }
};
const auto* const kDisplayEnvironment = ::testing::AddGlobalTestEnvironment(new DisplayEnvironment);

power_test::VirtualDisplay& display() {
  if (!gDisplay) gDisplay = std::make_unique<power_test::VirtualDisplay>();
  return *gDisplay;
}

std::vector<quillon::ShownAlertDescription> waitForDialog() {
  std::vector<quillon::ShownAlertDescription> shown;
  waitUntil(
      [&] {
        shown = quillon::shownGtkAlertsForTesting();
        return !shown.empty();
      },
      20);
  // Let the window manager-less server map and focus it before input arrives.
  MVRunLoop::main().runFor(0.3);
  return quillon::shownGtkAlertsForTesting();
}

TEST_F(LinuxAlerts, DialogShowsTextsLiterallyAndEachButtonOrTheCountdownGivesItsCode) {
  ASSERT_TRUE(display().running()) << "Xvfb did not start";
  EnvOverride x11("DISPLAY", display().display());
  EnvOverride wayland("WAYLAND_DISPLAY", std::nullopt);

  struct Case {
    std::string name;
    std::function<void(const quillon::ShownAlertDescription&)> act;
    Code expected;
    int countdown = 60;
  };
  const Case cases[] = {
      {"Return takes the default", [](auto&) { display().typeInto("Quillon", "Return"); }, 1},
      {"Escape takes the alternate", [](auto&) { display().typeInto("Quillon", "Escape"); }, 0},
      {"click on the alternate button", [](auto& d) { display().click(d.buttonCentres.at(0)); }, 0},
      {"nobody answers the countdown", [](auto&) {}, 1, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Code code = 99;
    power_test::runOnWorker(
        [&] {
          code = MVAlert::timedAlertSheetWithMessageText("Rendering complete. Do you wish to sleep now?", "Sleep",
                                                         "Cancel", std::nullopt, "100% done, %d frames, %@ left",
                                                         nullptr, c.countdown);
        },
        [&] {
          auto shown = waitForDialog();
          ASSERT_EQ(shown.size(), 1u);
          EXPECT_EQ(shown[0].title, "Quillon");
          EXPECT_EQ(shown[0].messageText, "Rendering complete. Do you wish to sleep now?");
          EXPECT_EQ(shown[0].informativeText, "100% done, %d frames, %@ left");
          EXPECT_EQ(shown[0].buttons, (std::vector<std::string>{"Cancel", "Sleep"}));
          c.act(shown[0]);
        });
    EXPECT_EQ(code, c.expected);
    EXPECT_TRUE(quillon::shownGtkAlertsForTesting().empty());
  }
}

}  // namespace
