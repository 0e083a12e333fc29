// Post-render power actions: once every render of a pass has been reported,
// put the computer to sleep, log out or shut down, as the user chose, behind
// an alert that answers itself.
#include <atomic>
#include <chrono>
#include <thread>

#include "AppController.h"
#include "MVAlert.h"
#include "MVLog.h"
#include "MVPower.h"
#include "PowerActionsTesting.h"
#include "QuillonPreferences.h"

namespace {

// 0 means no override.
std::atomic<int> gAlertIntervalOverride{0};

struct PowerAction {
  const char* messageText;
  const char* defaultButton;
  const char* informativeText;
  int countdownSeconds;
  void (AppController::*perform)();
};

// "logoutAction": 1 sleeps, 2 logs out, any other positive value shuts down.
const PowerAction& powerActionFor(long long value) {
  static const PowerAction sleep{"Rendering complete. Do you wish to sleep now?", "Sleep",
                                 "If you do nothing, your computer will automatically sleep in 30 seconds.", 30,
                                 &AppController::sleepComputer};
  static const PowerAction logOut{"Rendering complete. Do you wish to log out now?", "Log out",
                                  "If you do nothing, your computer will automatically log out in 60 seconds.", 60,
                                  &AppController::logOutUser};
  static const PowerAction shutDown{"Rendering complete. Do you wish to shut down now?", "Shut down",
                                    "If you do nothing, your computer will automatically shut down in 60 seconds.",
                                    60, &AppController::shutdownComputer};
  if (value == 1) return sleep;
  if (value == 2) return logOut;
  return shutDown;
}

}  // namespace

void PowerActionsTesting::setAlertIntervalOverride(std::optional<int> seconds) {
  gAlertIntervalOverride = seconds.value_or(0);
}

void AppController::performPostRenderActions() {
  // Sounds, e-mails and text messages still on their way must get out
  // before the computer goes away.
  waitForAsyncJobsWithTimeout(10);

  long long value = QuillonPreferences::objectForPreferenceDictionaryKey(QuillonSettingsKeys::kLogoutActionKey)
                        .integerValue();
  if (value <= 0) return;

  // Lets a Compressor batch that follows this render register as running.
  std::this_thread::sleep_for(std::chrono::seconds(2));
  updateCurrentBatches();

  auto batches = currentBatches();
  if ((batches && !batches->empty()) || processingFolder()) return;

  // The dock icon stays; the alert raises itself above other windows.
  showDockIcon();
  const PowerAction& action = powerActionFor(value);
  int interval = gAlertIntervalOverride.load();
  if (interval <= 0) interval = action.countdownSeconds;
  MVAlert::ReturnCode code = MVAlert::timedAlertSheetWithMessageText(
      action.messageText, action.defaultButton, "Cancel", std::nullopt, action.informativeText, nullptr, interval);
  if (code == MVAlert::kOtherReturn) {
    // The alert has no such button: it could not be shown at all. An action
    // nobody was asked about, and nobody could stop, is not performed.
    MVLog::appendLog("%@ was not performed: no alert could be shown to ask first (no display and no notification "
                     "service)",
                     action.defaultButton);
    return;
  }
  if (code != MVAlert::kDefaultReturn) return;

  auto perform = action.perform;
  MVRunLoop::main().performOnMainThread([this, perform] { (this->*perform)(); }, true);
}

void AppController::sleepComputer() { MVPower::sleepComputer(); }

void AppController::shutdownComputer() { MVPower::shutdownComputer(); }

void AppController::logOutUser() { MVPower::logOutUser(); }
