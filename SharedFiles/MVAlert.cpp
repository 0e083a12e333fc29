#include "MVAlert.h"

#include <chrono>
#include <cstdio>
#include <sstream>
#include <thread>
#include <vector>

#include "MVLocalPaths.h"
#include "MVPropertyList.h"
#include "MVRunLoop.h"

namespace {

constexpr const char* kDefaultEndSelector = "alertDidEnd:returnCode:contextInfo:";

std::mutex gBackendMutex;
std::shared_ptr<MVAlert::Backend> gBackend;

std::shared_ptr<MVAlert::Backend> currentBackend() {
  std::lock_guard<std::mutex> lock(gBackendMutex);
  return gBackend;
}

// Alerts report to the system console, not to the log file: they concern
// the person at the screen, and the log is for the agent's own story.
void consoleLine(const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); }

std::string defaultsPath() {
  return MVAppendPathComponent(MVLocalPaths::prefsDirectory(true), "com.morvane.Quillon.plist");
}

std::vector<std::string> splitKeyPath(const std::string& keyPath) {
  std::vector<std::string> keys;
  std::istringstream parts(keyPath);
  for (std::string key; std::getline(parts, key, '.');) keys.push_back(key);
  return keys;
}

// Writes `value` at the end of `keys` inside `root`, making dictionaries on the way.
void setAtPath(MVPlistValue& root, const std::vector<std::string>& keys, std::size_t index, bool value) {
  if (!root.isDictionary()) root = MVPlistValue(MVPlistValue::Dictionary{});
  if (index + 1 == keys.size()) {
    root.set(keys[index], value);
    return;
  }
  MVPlistValue child = root[keys[index]];
  setAtPath(child, keys, index + 1, value);
  root.set(keys[index], std::move(child));
}

}  // namespace

std::shared_ptr<MVAlert::Backend> MVAlert::setBackend(std::shared_ptr<Backend> backend) {
  std::lock_guard<std::mutex> lock(gBackendMutex);
  std::swap(gBackend, backend);
  return backend;
}

MVAlert::~MVAlert() {
  // The platform alert must not outlive the object that answers for it.
  std::shared_ptr<Backend::Shown> shown;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    shown = std::move(alert_);
  }
  delegate_ = nullptr;
  parentWindow_ = nullptr;
  if (shown && MVRunLoop::hasMain()) {
    // Widgets are touched on the main thread only; never wait here, a
    // destructor may run on any thread.
    MVRunLoop::main().performOnMainThread([shown] { shown->orderOut(); }, false);
  }
}

std::shared_ptr<MVAlert::Backend::Shown> MVAlert::alert() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return alert_;
}

void MVAlert::setAlert(std::shared_ptr<Backend::Shown> alert) {
  std::lock_guard<std::mutex> lock(mutex_);
  alert_ = std::move(alert);
}

void MVAlert::setDidEndCallback(DidEndCallback callback) {
  std::lock_guard<std::mutex> lock(mutex_);
  didEnd_ = std::move(callback);
}

MVAlert::DidEndCallback MVAlert::didEndCallback() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return didEnd_;
}

MVAlert::ReturnCode MVAlert::alertSheetWithMessageText(const std::string& messageText,
                                                       const std::string& informativeText, MVWindowRef parentWindow) {
  return alertSheetWithMessageText(messageText, std::nullopt, std::nullopt, std::nullopt, informativeText,
                                   parentWindow, true);
}

MVAlert::ReturnCode MVAlert::alertSheetWithMessageText(const std::string& messageText,
                                                       const std::optional<std::string>& defaultButton,
                                                       const std::optional<std::string>& alternateButton,
                                                       const std::optional<std::string>& otherButton,
                                                       const std::string& informativeText, MVWindowRef parentWindow,
                                                       bool block) {
  return alertSheetWithMessageText(messageText, defaultButton, alternateButton, otherButton, informativeText,
                                   parentWindow, nullptr, {}, block);
}

MVAlert::ReturnCode MVAlert::alertSheetWithMessageText(const std::string& messageText,
                                                       const std::optional<std::string>& defaultButton,
                                                       const std::optional<std::string>& alternateButton,
                                                       const std::optional<std::string>& otherButton,
                                                       const std::string& informativeText, MVWindowRef parentWindow,
                                                       MVAlertDelegate* delegate, DidEndCallback didEndSelector,
                                                       bool block) {
  return alertSheetWithMessageText(messageText, defaultButton, alternateButton, otherButton, informativeText,
                                   parentWindow, delegate, std::move(didEndSelector), block, nullptr);
}

MVAlert::ReturnCode MVAlert::alertSheetWithMessageText(const std::string& messageText,
                                                       const std::optional<std::string>& defaultButton,
                                                       const std::optional<std::string>& alternateButton,
                                                       const std::optional<std::string>& otherButton,
                                                       const std::string& informativeText, MVWindowRef parentWindow,
                                                       MVAlertDelegate* delegate, DidEndCallback didEndSelector,
                                                       bool block, std::shared_ptr<MVAlert> alertObject) {
  return alertSheetWithMessageText(messageText, defaultButton, alternateButton, otherButton, informativeText,
                                   parentWindow, delegate, std::move(didEndSelector), block, std::move(alertObject),
                                   std::nullopt);
}

MVAlert::ReturnCode MVAlert::alertSheetWithMessageText(
    const std::string& messageText, const std::optional<std::string>& defaultButton,
    const std::optional<std::string>& alternateButton, const std::optional<std::string>& otherButton,
    const std::string& informativeText, MVWindowRef parentWindow, MVAlertDelegate* delegate,
    DidEndCallback didEndSelector, bool block, std::shared_ptr<MVAlert> alertObject,
    const std::optional<std::string>& suppressionBinding) {
  std::shared_ptr<MVAlert> alert = alertObject ? std::move(alertObject) : std::make_shared<MVAlert>();
  alert->setParentWindow(parentWindow);
  alert->setDelegate(delegate ? delegate : alert.get());
  alert->setAlertEnded(false);

  // Without a callback the end goes to the default operation, which only an
  // alert implements; any other delegate could never hear of the end.
  if (!didEndSelector && !dynamic_cast<MVAlert*>(alert->delegate())) {
    consoleLine(std::string("Alert error: delegate does not respond to selector ") + kDefaultEndSelector);
    return -1;
  }
  alert->setDidEndCallback(std::move(didEndSelector));

  if (!MVRunLoop::hasMain()) {
    consoleLine("Alert error: there is no main loop to show the alert on");
    return -1;
  }

  MVPlistValue dictionary{MVPlistValue::Dictionary{}};
  dictionary.set("messageText", messageText);
  if (defaultButton) dictionary.set("defaultButtonTitle", *defaultButton);
  if (alternateButton) dictionary.set("alternateButtonTitle", *alternateButton);
  if (otherButton) dictionary.set("otherButtonTitle", *otherButton);
  dictionary.set("informativeText", informativeText);
  if (suppressionBinding) dictionary.set("suppressionBinding", *suppressionBinding);

  MVRunLoop& loop = MVRunLoop::main();
  loop.performOnMainThread([alert, dictionary] { alert->alertSheetWithDictionary(dictionary); }, true);
  if (!block) return -1;

  if (loop.isMainThread()) {
    // The alert's own buttons arrive through this very loop.
    while (!alert->alertEnded()) loop.runFor(0.01);
  } else {
    while (!alert->alertEnded()) std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  loop.performOnMainThread([alert] { alert->closeAlert(); }, true);
  return alert->returnCode();
}

MVAlert::ReturnCode MVAlert::timedAlertSheetWithMessageText(const std::string& messageText,
                                                            const std::optional<std::string>& defaultButton,
                                                            const std::optional<std::string>& alternateButton,
                                                            const std::optional<std::string>& otherButton,
                                                            const std::string& informativeText,
                                                            MVWindowRef parentWindow, int interval) {
  auto alert = std::make_shared<MVAlert>();
  // The countdown holds its own reference: an alert answered early lives on
  // until the countdown has finished sleeping.
  MVRunLoop::detachThread([alert, interval] { alert->defaultReturnAfterTimeInterval(interval); });
  return alertSheetWithMessageText(messageText, defaultButton, alternateButton, otherButton, informativeText,
                                   parentWindow, nullptr, {}, true, alert, std::nullopt);
}

void MVAlert::alertSheetWithDictionary(const MVPlistValue& dictionary) {
  auto text = [&](const char* key) -> std::optional<std::string> {
    const std::string* value = dictionary[key].string();
    return value ? std::optional<std::string>(*value) : std::nullopt;
  };
  Request request;
  request.messageText = text("messageText").value_or("");
  request.defaultButton = text("defaultButtonTitle");
  request.alternateButton = text("alternateButtonTitle");
  request.otherButton = text("otherButtonTitle");
  request.informativeText = text("informativeText").value_or("");
  request.suppressionBinding = text("suppressionBinding");

  std::shared_ptr<Backend> backend = currentBackend();
  MVWindowRef parent = parentWindow();
  if (backend && parent && backend->hasAttachedSheet(parent)) {
    // One sheet per window: a second alert stands on its own instead.
    setParentWindow(nullptr);
    parent = nullptr;
  }
  if (backend && parent) backend->makeKeyAndOrderFront(parent);
  request.parentWindow = parent;

  // The platform keeps the reply until the alert ends or is closed, which
  // keeps an alert that nobody waits for alive until it is answered.
  std::shared_ptr<MVAlert> self = weak_from_this().lock();
  MVAlert* raw = this;
  auto ended = [self, raw](ReturnCode code) {
    MVAlert& alert = self ? *self : *raw;
    if (DidEndCallback callback = alert.didEndCallback()) {
      callback(alert, code, nullptr);
      return;
    }
    if (auto* target = dynamic_cast<MVAlert*>(alert.delegate())) target->alertDidEnd(code, nullptr);
  };

  std::shared_ptr<Backend::Shown> shown = backend ? backend->show(request, ended) : nullptr;
  setAlert(shown);
  if (!shown) {
    consoleLine(backend ? "Alert error: the alert could not be shown" : "Alert error: no alert service is installed");
    // Nobody can see it, so nobody can answer it: it ends here, as if
    // dismissed. A countdown must not take the default for an unseen alert.
    ended(kOtherReturn);
  }
}

void MVAlert::alertDidEnd(ReturnCode returnCode, void* /*contextInfo*/) {
  setReturnCode(returnCode);
  setAlertEnded(true);
}

void MVAlert::defaultReturnAfterTimeInterval(int seconds) {
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  // The code first: the waiting caller reads it as soon as it sees the end.
  setReturnCode(kDefaultReturn);
  setAlertEnded(true);
}

void MVAlert::closeAlert() {
  std::shared_ptr<Backend::Shown> shown = alert();
  if (shown && shown->isVisible()) shown->orderOut();
  setAlert(nullptr);
}

bool MVAlert::suppressionValueForKeyPath(const std::string& keyPath) {
  const MVPlistValue* value = nullptr;
  MVPlistValue root = MVPropertyList::read(defaultsPath());
  value = &root;
  for (const std::string& key : splitKeyPath(keyPath)) value = &(*value)[key];
  return value->integerValue() == 1;
}

void MVAlert::setSuppressionValue(bool value, const std::string& keyPath) {
  std::vector<std::string> keys = splitKeyPath(keyPath);
  if (keys.empty()) return;
  MVPropertyList::Format format = MVPropertyList::Format::XML;
  MVPlistValue root = MVPropertyList::read(defaultsPath(), &format);
  setAtPath(root, keys, 0, value);
  if (!MVPropertyList::write(defaultsPath(), root, format))
    consoleLine("Alert error: could not store the suppression setting " + keyPath);
}
