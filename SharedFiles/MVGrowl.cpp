#include "MVGrowl.h"

#include <atomic>
#include <chrono>
#include <mutex>

#include "MVLog.h"
#include "MVNotificationCenter.h"
#include "MVPropertyList.h"
#include "MVRunLoop.h"

namespace {

std::mutex gBackendMutex;
std::shared_ptr<MVUserNotificationCenter::Backend> gBackend;
std::atomic<MVUserNotificationCenterDelegate*> gDelegate{nullptr};

}  // namespace

MVUserNotificationCenter& MVUserNotificationCenter::defaultUserNotificationCenter() {
  static MVUserNotificationCenter center;
  return center;
}

std::shared_ptr<MVUserNotificationCenter::Backend> MVUserNotificationCenter::setBackend(
    std::shared_ptr<Backend> backend) {
  std::lock_guard<std::mutex> lock(gBackendMutex);
  std::swap(gBackend, backend);
  return backend;
}

void MVUserNotificationCenter::setDelegate(MVUserNotificationCenterDelegate* delegate) { gDelegate = delegate; }

MVUserNotificationCenterDelegate* MVUserNotificationCenter::delegate() const { return gDelegate; }

void MVUserNotificationCenter::deliverNotification(const MVUserNotification& notification) {
  if (MVUserNotificationCenterDelegate* d = delegate(); d && !d->shouldPresentNotification(*this, notification))
    return;
  std::shared_ptr<Backend> backend;
  {
    std::lock_guard<std::mutex> lock(gBackendMutex);
    backend = gBackend;
  }
  if (!backend) {
    static std::once_flag once;
    std::call_once(once, [] { MVLog::appendLog("Desktop notifications are not available on this system"); });
    return;
  }
  backend->deliverNotification(notification);
}

void MVUserNotificationCenter::notificationActivated(const MVUserNotification& notification) {
  if (MVUserNotificationCenterDelegate* d = delegate()) d->didActivateNotification(*this, notification);
}

MVGrowl::MVGrowl() { MVUserNotificationCenter::defaultUserNotificationCenter().setDelegate(this); }

MVGrowl& MVGrowl::defaultController() {
  // Built once, under the guard of the static's initialisation, and never freed.
  static MVGrowl instance;
  return instance;
}

void MVGrowl::postGrowlNotification(const std::string& title, const std::string& description) {
  postGrowlNotification(title, description, std::string());
}

void MVGrowl::postGrowlNotification(const std::string& title, const std::string& description, const std::string& icon) {
  postGrowlNotification(title, description, icon, std::string());
}

void MVGrowl::postGrowlNotification(const std::string& title, const std::string& description, const std::string& icon,
                                    const std::string& notificationName) {
  postGrowlNotification(title, description, icon, notificationName, MVPlistValue(std::chrono::system_clock::now()));
}

void MVGrowl::postGrowlNotification(const std::string& title, const std::string& description, const std::string& icon,
                                    const std::string& notificationName, const MVPlistValue& clickContext) {
  defaultController().deliverNotification(title, description, icon, notificationName, clickContext);
}

void MVGrowl::deliverNotification(const std::string& title, const std::string& description, const std::string& icon,
                                  const std::string& /*notificationName*/, const MVPlistValue& clickContext) {
  // Read at every call: the switch is shared by all the maker's programs and
  // a change must take effect without restarting any of them.
  if (MVGlobalPreferences::isBooleanTrue("growlDisabled")) return;

  MVUserNotification notification;
  notification.title = title;
  notification.informativeText = description;
  notification.iconPath = icon;
  notification.hasActionButton = false;
  if (!clickContext.isNil()) notification.userInfo.set("clickContext", clickContext);
  MVUserNotificationCenter::defaultUserNotificationCenter().deliverNotification(notification);
}

bool MVGrowl::shouldPresentNotification(MVUserNotificationCenter&, const MVUserNotification&) { return true; }

void MVGrowl::didActivateNotification(MVUserNotificationCenter&, const MVUserNotification& notification) {
  if (notification.userInfo["clickContext"].isNil()) return;
  MVPlistValue userInfo = notification.userInfo;
  auto post = [userInfo] {
    MVNotificationCenter::defaultCenter().postNotification("MVGrowlAlertClicked", {}, userInfo);
  };
  if (MVRunLoop::hasMain())
    MVRunLoop::main().performOnMainThread(post, true);
  else
    post();
}
