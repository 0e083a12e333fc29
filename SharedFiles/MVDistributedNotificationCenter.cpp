#include "MVDistributedNotificationCenter.h"

#include <mutex>

#include "MVLog.h"

namespace {

std::mutex gBackendMutex;
std::shared_ptr<MVDistributedNotificationCenter::Backend> gBackend;

std::shared_ptr<MVDistributedNotificationCenter::Backend> currentBackend() {
  std::lock_guard<std::mutex> lock(gBackendMutex);
  return gBackend;
}

void logMissingBackendOnce() {
  static std::once_flag once;
  std::call_once(once, [] { MVLog::appendLog("Distributed notifications are not available on this system"); });
}

}  // namespace

MVDistributedNotificationCenter& MVDistributedNotificationCenter::defaultCenter() {
  static MVDistributedNotificationCenter center;
  return center;
}

std::shared_ptr<MVDistributedNotificationCenter::Backend> MVDistributedNotificationCenter::setBackend(
    std::shared_ptr<Backend> backend) {
  std::lock_guard<std::mutex> lock(gBackendMutex);
  std::swap(gBackend, backend);
  return backend;
}

MVObserverToken MVDistributedNotificationCenter::addObserver(const std::string& name, MVNotificationHandler handler) {
  MVObserverToken token = observers_.add(name, std::move(handler));
  if (auto backend = currentBackend()) {
    backend->listen([this](const std::string& n, const std::string& object, const StringMap& userInfo) {
      deliver(n, object, userInfo);
    });
  } else {
    logMissingBackendOnce();
  }
  return token;
}

void MVDistributedNotificationCenter::postNotification(const std::string& name, const MVPlistValue& object,
                                                       const MVPlistValue& userInfo) {
  auto backend = currentBackend();
  if (!backend) {
    logMissingBackendOnce();
    return;
  }
  std::string objectString;
  if (const std::string* s = object.string())
    objectString = *s;
  else if (!object.isNil())
    objectString = object.description();
  StringMap strings;
  if (const MVPlistValue::Dictionary* dict = userInfo.dictionary()) {
    for (const auto& [key, value] : *dict) strings[key] = value.string() ? *value.string() : value.description();
  }
  backend->postNotification(name, objectString, strings);
}

void MVDistributedNotificationCenter::deliver(const std::string& name, const std::string& object,
                                              const StringMap& userInfo) {
  MVPlistValue info{MVPlistValue::Dictionary{}};
  for (const auto& [key, value] : userInfo) info.set(key, value);
  observers_.post(name, object.empty() ? MVPlistValue() : MVPlistValue(object), info);
}
