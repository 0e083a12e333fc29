#include "SampleNotices.h"

#include "AppController.h"
#include "MVLocalPaths.h"
#include "QuillonPreferences.h"
#include "SettingsStore.h"

using namespace QuillonSettingsKeys;

// The agent's mail code, with the outcome handed to the window.
class SampleNotices::Mailer final : public AppController {
 public:
  Mailer(Outcome outcome, std::string server, bool textMessage)
      : outcome_(std::move(outcome)), server_(std::move(server)), textMessage_(textMessage) {}

  void messageSent(const std::shared_ptr<SKPSMTPMessage>& message) override {
    AppController::messageSent(message);
    finish(true, "Sent a test " + what() + " to " + message->toEmail() + " through " + server_ + ".");
  }
  void messageFailed(const std::shared_ptr<SKPSMTPMessage>& message, const SKPSMTPError& error) override {
    AppController::messageFailed(message, error);
    std::string text = "The test " + what() + " to " + message->toEmail() + " failed: error(" +
                       std::to_string(error.code) + "): " + error.localizedDescription;
    if (!error.localizedRecoverySuggestion.empty()) text += " " + error.localizedRecoverySuggestion;
    finish(false, text);
  }
  bool done() const { return done_; }

 private:
  std::string what() const { return textMessage_ ? "text message" : "e-mail"; }
  void finish(bool sent, const std::string& text) {
    if (done_) return;
    done_ = true;
    outcome_(sent, text);
  }

  Outcome outcome_;
  std::string server_;
  bool textMessage_;
  bool done_ = false;
};

SampleNotices::SampleNotices() = default;
SampleNotices::~SampleNotices() = default;

bool SampleNotices::busy() const { return mailer_ && !mailer_->done(); }

bool SampleNotices::send(const SettingsStore& settings, bool textMessage, Outcome outcome) {
  auto text = [&](const char* key) {
    const std::string* value = settings[key].string();
    return value ? *value : std::string();
  };
  // Say what is missing before the mail client says it less clearly.
  std::vector<std::pair<const char*, const char*>> required = {{kEmailServerKey, "the mail server"},
                                                               {kEmailFromAddressKey, "the sender address"}};
  if (!textMessage) required.push_back({kEmailToAddressKey, "the recipient address"});
  for (const auto& [key, name] : required)
    if (text(key).empty()) {
      outcome(false, std::string("Nothing was sent: ") + name + " is not set.");
      return false;
    }
  if (textMessage && settings[kTxtMessagePhoneNumberKey].count() == 0) {
    outcome(false, "Nothing was sent: no phone number is set.");
    return false;
  }

  // A finished render of a file in the first watch folder, as a watcher reports it.
  std::string folder = MVLocalPaths::movieDirectory();
  if (const auto* folders = settings[kWatchFoldersKey].array())
    if (!folders->empty() && folders->front().string()) folder = *folders->front().string();
  MVPlistValue render;
  render.set("type", "watchFile");
  render.set("watchFilename", "Quillon test.mov");
  render.set("fullPath", MVAppendPathComponent(folder, "Quillon test.mov"));

  // The previous mailer may still be inside its own callback; it is only
  // replaced once it has answered.
  if (busy()) return false;
  Outcome report = outcome;
  mailer_ = std::make_unique<Mailer>(std::move(outcome), text(kEmailServerKey), textMessage);
  if (textMessage)
    mailer_->sendTextMessage(render, true);
  else
    mailer_->sendEmail(render, true);
  if (mailer_->asyncJobs() == 0 && !mailer_->done()) {
    // The agent sends nothing when the carrier has no gateway in the table.
    mailer_.reset();
    const std::string carrier = text(kSelectedTextCarrierKey);
    report(false, "Nothing was sent: the carrier table has no gateway for '" + (carrier.empty() ? "att" : carrier) + "'.");
    return false;
  }
  return true;
}
