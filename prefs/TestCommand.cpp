// test: sample notices sent with the current settings, so the user can see
// that they arrive before a render depends on them.
#include <iostream>

#include "DesktopServices.h"
#include "MVGrowl.h"
#include "MVPropertyList.h"
#include "MVResources.h"
#include "MVRunLoop.h"
#include "PrefsCommands.h"
#include "SessionBusNotices.h"

namespace prefs {

namespace {

// Long enough for the server's capabilities round trip that precedes the
// first notification.
constexpr double kNotificationDeliverySeconds = 1.0;

int testNotification() {
  if (MVGlobalPreferences::isBooleanTrue(MVGlobalPreferences::kGrowlDisabledKey))
    return fail(std::string("desktop notifications are turned off by \"") + MVGlobalPreferences::kGrowlDisabledKey +
                "\" in " + MVGlobalPreferences::path() + "; nothing was shown");
  std::string problem;
  auto server = notificationServerName(problem);
  if (!server) return fail(problem + "; nothing was shown");
  quillon::installDesktopServices();
  MVGrowl::postGrowlNotification("Quillon test", "This is how Quillon tells you that a render has finished.",
                                 MVResources::pathForImageResource("Compressor4.png"), "Test", MVPlistValue());
  MVRunLoop::main().runFor(kNotificationDeliverySeconds);
  flushSessionBus();
  std::cout << "Sent a test notification to " << *server << "\n";
  return kSucceeded;
}

}  // namespace

int runTest(const Arguments& arguments) {
  const Command& command = *findCommand("test");
  if (arguments.size() != 1) return usageError(command, "test needs one of notification, email, text");
  if (arguments[0] == "notification") return testNotification();
  return usageError(command, "unknown test '" + arguments[0] + "'");
}

}  // namespace prefs
