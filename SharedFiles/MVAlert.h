// MVAlert: an alert that can be raised from any thread, that may block its
// caller until it ends, and that can answer itself after a countdown.
//
// All interface work happens on the main thread (the caller waits for it).
// A blocking call made on the main thread turns the main loop in
// 0.01-second slices so that the alert's buttons keep working; a blocking
// call on any other thread polls every 0.2 seconds. Button codes: 1 for the
// default button, 0 for the alternate button, -1 for the other button.
//
// The end of an alert is delivered to a callback (std::function) on the main
// thread. A delegate object may be named beside it: when a delegate is given
// without a callback, the default end operation (alertDidEnd) is used, which
// only an MVAlert implements; any other delegate then "does not respond", so
// the call writes "Alert error: delegate does not respond to selector
// alertDidEnd:returnCode:contextInfo:" to standard error, shows nothing and
// returns -1.
//
// The informative text is shown exactly as given: it is never taken as a
// format, so "%d" in it stays "%d".
//
// The suppression check box ("Do not show this message again") is bound to
// a key path in the user defaults of this program: the settings file
// "com.morvane.Quillon.plist" in the user's preferences folder, which the
// preferences application shares. A dotted key path names nested
// dictionaries. The box starts checked when the stored value is true or 1,
// and every toggle writes the boolean back at once.
//
// An alert that cannot be shown at all ends at once with -1, countdown or
// not: a countdown never takes the default for an alert nobody saw.
//
// Linux: with a display (X11 or Wayland), a GTK 3 message dialog raised above
// other windows; without one, a desktop notification whose actions are the
// buttons (a server without actions still lets a timed alert count down).
// Closing the dialog counts as the alternate button when there is one, as
// the default button otherwise. macOS: an NSAlert sheet.
//
// Console lines (the delegate error, a missing alert service) go to
// standard error, not to the log file.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "MVPlistValue.h"

// Any object that may be named as an alert's delegate.
class MVAlertDelegate {
 public:
  virtual ~MVAlertDelegate() = default;
};

// A platform window an alert can be attached to; not owned. Linux: GtkWindow*.
using MVWindowRef = void*;

class MVAlert final : public MVAlertDelegate, public std::enable_shared_from_this<MVAlert> {
 public:
  using ReturnCode = std::int64_t;
  static constexpr ReturnCode kDefaultReturn = 1;
  static constexpr ReturnCode kAlternateReturn = 0;
  static constexpr ReturnCode kOtherReturn = -1;
  // Runs on the main thread when the alert ends; contextInfo is always null.
  using DidEndCallback = std::function<void(MVAlert& alert, ReturnCode returnCode, void* contextInfo)>;

  // What the platform shows: the dictionary handed to the main thread, read.
  struct Request {
    std::string messageText;
    std::optional<std::string> defaultButton;  // absent: the platform's "OK"
    std::optional<std::string> alternateButton;
    std::optional<std::string> otherButton;
    std::string informativeText;
    std::optional<std::string> suppressionBinding;
    MVWindowRef parentWindow = nullptr;
  };

  class Backend {
   public:
    // One alert on the screen.
    class Shown {
     public:
      virtual ~Shown() = default;
      virtual bool isVisible() const = 0;
      // Takes the alert off the screen without reporting an end.
      virtual void orderOut() = 0;
    };
    virtual ~Backend() = default;
    // Main thread. Shows the alert; `ended` is called at most once, on the
    // main thread, with the code of the button the user chose. Null when
    // nothing could be shown.
    virtual std::shared_ptr<Shown> show(const Request& request, std::function<void(ReturnCode)> ended) = 0;
    // Main thread. Whether `window` already shows an alert of its own.
    virtual bool hasAttachedSheet(MVWindowRef window) = 0;
    virtual void makeKeyAndOrderFront(MVWindowRef window) = 0;
  };

  // Installs the platform side; returns the one it replaces.
  static std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> backend);

  // Create alerts with std::make_shared (the countdown keeps a reference).
  MVAlert() = default;
  ~MVAlert() override;
  MVAlert(const MVAlert&) = delete;
  MVAlert& operator=(const MVAlert&) = delete;

  // No buttons named (the platform's "OK"), blocking.
  static ReturnCode alertSheetWithMessageText(const std::string& messageText, const std::string& informativeText,
                                              MVWindowRef parentWindow);
  static ReturnCode alertSheetWithMessageText(const std::string& messageText,
                                              const std::optional<std::string>& defaultButton,
                                              const std::optional<std::string>& alternateButton,
                                              const std::optional<std::string>& otherButton,
                                              const std::string& informativeText, MVWindowRef parentWindow,
                                              bool block);
  static ReturnCode alertSheetWithMessageText(const std::string& messageText,
                                              const std::optional<std::string>& defaultButton,
                                              const std::optional<std::string>& alternateButton,
                                              const std::optional<std::string>& otherButton,
                                              const std::string& informativeText, MVWindowRef parentWindow,
                                              MVAlertDelegate* delegate, DidEndCallback didEndSelector, bool block);
  static ReturnCode alertSheetWithMessageText(const std::string& messageText,
                                              const std::optional<std::string>& defaultButton,
                                              const std::optional<std::string>& alternateButton,
                                              const std::optional<std::string>& otherButton,
                                              const std::string& informativeText, MVWindowRef parentWindow,
                                              MVAlertDelegate* delegate, DidEndCallback didEndSelector, bool block,
                                              std::shared_ptr<MVAlert> alertObject);
  // The one that does the work. Without a blocking wait it returns -1 at
  // once and the outcome reaches the callback.
  static ReturnCode alertSheetWithMessageText(const std::string& messageText,
                                              const std::optional<std::string>& defaultButton,
                                              const std::optional<std::string>& alternateButton,
                                              const std::optional<std::string>& otherButton,
                                              const std::string& informativeText, MVWindowRef parentWindow,
                                              MVAlertDelegate* delegate, DidEndCallback didEndSelector, bool block,
                                              std::shared_ptr<MVAlert> alertObject,
                                              const std::optional<std::string>& suppressionBinding);

  // Blocking; ends by itself with the default code after `interval` whole
  // seconds, whatever the user did meanwhile. -1 at once when the alert
  // could not be shown.
  static ReturnCode timedAlertSheetWithMessageText(const std::string& messageText,
                                                   const std::optional<std::string>& defaultButton,
                                                   const std::optional<std::string>& alternateButton,
                                                   const std::optional<std::string>& otherButton,
                                                   const std::string& informativeText, MVWindowRef parentWindow,
                                                   int interval);

  // Main thread only. Keys (each present only when given): "messageText",
  // "defaultButtonTitle", "alternateButtonTitle", "otherButtonTitle",
  // "informativeText", "suppressionBinding". The end goes to this alert's
  // callback, or to alertDidEnd when it has none.
  void alertSheetWithDictionary(const MVPlistValue& dictionary);
  // The default end: keeps the code and marks the alert ended.
  void alertDidEnd(ReturnCode returnCode, void* contextInfo);
  // The countdown's body: sleeps, then ends the alert with the default code,
  // even when it has already ended.
  void defaultReturnAfterTimeInterval(int seconds);
  // Main thread: takes a visible alert off the screen and forgets it.
  void closeAlert();

  MVWindowRef parentWindow() const { return parentWindow_.load(); }
  void setParentWindow(MVWindowRef window) { parentWindow_.store(window); }
  MVAlertDelegate* delegate() const { return delegate_.load(); }
  void setDelegate(MVAlertDelegate* delegate) { delegate_.store(delegate); }
  bool alertEnded() const { return alertEnded_.load(); }
  void setAlertEnded(bool ended) { alertEnded_.store(ended); }
  ReturnCode returnCode() const { return returnCode_.load(); }
  void setReturnCode(ReturnCode code) { returnCode_.store(code); }
  std::shared_ptr<Backend::Shown> alert() const;
  void setAlert(std::shared_ptr<Backend::Shown> alert);

  // The user-defaults store behind the suppression check box.
  static bool suppressionValueForKeyPath(const std::string& keyPath);
  static void setSuppressionValue(bool value, const std::string& keyPath);

 private:
  void setDidEndCallback(DidEndCallback callback);
  DidEndCallback didEndCallback() const;

  std::atomic<MVWindowRef> parentWindow_{nullptr};
  std::atomic<MVAlertDelegate*> delegate_{nullptr};
  std::atomic<bool> alertEnded_{false};
  std::atomic<ReturnCode> returnCode_{0};
  mutable std::mutex mutex_;  // guards the two fields below
  std::shared_ptr<Backend::Shown> alert_;
  DidEndCallback didEnd_;
};
