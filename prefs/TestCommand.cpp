// test: sample notices sent with the current settings, so the user can see
// that they arrive before a render depends on them.
#include <iostream>
#include <optional>

#include "AppController.h"
#include "DesktopServices.h"
#include "KeychainSecretService.h"
#include "MVKeychain.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVGrowl.h"
#include "MVPropertyList.h"
#include "MVResources.h"
#include "MVRunLoop.h"
#include "PrefsCommands.h"
#include "PrefsTool.h"
#include "QuillonPreferences.h"
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

// Longer than the mail client's own limits (three ports tried in turn, then
// 20 seconds per command and 60 for the message), so it always answers first.
constexpr double kMailOutcomeSeconds = 180;

// The agent's own mail code, with the outcome kept for the report.
class SampleMailer final : public AppController {
 public:
  void messageSent(const std::shared_ptr<SKPSMTPMessage>& message) override {
    recipient_ = message->toEmail();
    outcome_ = true;
    AppController::messageSent(message);
  }
  void messageFailed(const std::shared_ptr<SKPSMTPMessage>& message, const SKPSMTPError& error) override {
    recipient_ = message->toEmail();
    error_ = error;
    outcome_ = false;
    AppController::messageFailed(message, error);
  }
  std::optional<bool> outcome() const { return outcome_; }
  const SKPSMTPError& error() const { return error_; }
  const std::string& recipient() const { return recipient_; }

 private:
  std::optional<bool> outcome_;
  SKPSMTPError error_;
  std::string recipient_;
};

std::string setting(const SettingsFile& settings, const char* key) {
  const std::string* value = settings[key].string();
  return value ? *value : std::string();
}

// A finished render of a file in the first watch folder, as a watcher reports it.
MVPlistValue sampleRender(const SettingsFile& settings) {
  std::string folder = MVLocalPaths::movieDirectory();
  if (const auto* folders = settings[QuillonSettingsKeys::kWatchFoldersKey].array())
    if (!folders->empty() && folders->front().string()) folder = *folders->front().string();
  const std::string file = "Quillon test.mov";
  MVPlistValue render;
  render.set("type", "watchFile");
  render.set("watchFilename", file);
  render.set("fullPath", MVAppendPathComponent(folder, file));
  return render;
}

int testMail(bool textMessage) {
  using namespace QuillonSettingsKeys;
  auto settings = readSettings();
  if (!settings) return kFailed;
  // Say what is missing before the mail client says it less clearly.
  std::vector<const char*> required = {kEmailServerKey, kEmailFromAddressKey};
  if (!textMessage) required.push_back(kEmailToAddressKey);
  for (const char* key : required)
    if (setting(*settings, key).empty()) return fail(std::string(key) + " is not set; nothing was sent");
  if (textMessage && (*settings)[kTxtMessagePhoneNumberKey].count() == 0)
    return fail("no text-message number is set ('quillon-prefs phone NUMBER'); nothing was sent");

  startToolLog();
  MVKeychain::setBackend(quillon::createSecretServiceKeychain());
  SampleMailer mailer;
  const MVPlistValue render = sampleRender(*settings);
  if (textMessage)
    mailer.sendTextMessage(render, true);
  else
    mailer.sendEmail(render, true);
  if (mailer.asyncJobs() == 0) {
    // The agent sends nothing when the carrier has no gateway in the table.
    std::string carrier = setting(*settings, kSelectedTextCarrierKey);
    return fail("no gateway for the carrier '" + (carrier.empty() ? std::string("att") : carrier) +
                "' in the carrier table; nothing was sent");
  }
  MVRunLoop::main().runFor(kMailOutcomeSeconds, [&] { return mailer.outcome().has_value(); });
  MVKeychain::setBackend(nullptr);
  const char* what = textMessage ? "text message" : "e-mail";
  if (!mailer.outcome()) return fail(std::string("the test ") + what + " got no answer from the mail server");
  if (!*mailer.outcome()) {
    const SKPSMTPError& error = mailer.error();
    std::string reason = "the test " + std::string(what) + " to " + mailer.recipient() + " failed: error(" +
                         std::to_string(error.code) + "): " + error.localizedDescription;
    if (!error.localizedRecoverySuggestion.empty()) reason += " " + error.localizedRecoverySuggestion;
    if (textMessage && (*settings)[kEmailPortKey].integerValue() > 0)
      reason += " (text messages go out on the ports 25, 465 and 587 only, not emailPort)";
    return fail(reason);
  }
  std::cout << "Sent a test " << what << " to " << mailer.recipient() << " through "
            << setting(*settings, kEmailServerKey) << "\n";
  return kSucceeded;
}

}  // namespace

int runTest(const Arguments& arguments) {
  const Command& command = *findCommand("test");
  if (arguments.size() != 1) return usageError(command, "test needs one of notification, email, text, push");
  if (arguments[0] == "notification") return testNotification();
  if (arguments[0] == "email") return testMail(false);
  if (arguments[0] == "text") return testMail(true);
  if (arguments[0] == "push") return testPush();
  return usageError(command, "unknown test '" + arguments[0] + "'");
}

}  // namespace prefs
