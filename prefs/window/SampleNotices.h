// SampleNotices: a test e-mail or text message sent by the agent's own mail
// code with the settings as they are on disk, so that what the user sees in
// the window is what a finished render would do.
#pragma once

#include <functional>
#include <memory>
#include <string>

class SettingsStore;

class SampleNotices {
 public:
  // Called once on the main thread: `sent` and a sentence for the user
  // ("Sent to ... through ..." or the mail client's exact error).
  using Outcome = std::function<void(bool sent, const std::string& text)>;

  SampleNotices();
  ~SampleNotices();
  SampleNotices(const SampleNotices&) = delete;
  SampleNotices& operator=(const SampleNotices&) = delete;

  // False, with `outcome` already called, when nothing could be sent
  // (a setting is missing). One test at a time.
  bool send(const SettingsStore& settings, bool textMessage, Outcome outcome);
  bool busy() const;

 private:
  class Mailer;
  std::unique_ptr<Mailer> mailer_;
};
