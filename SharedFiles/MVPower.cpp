#include "MVPower.h"

#include <mutex>

#include "MVLog.h"

namespace {

std::mutex gMutex;
std::shared_ptr<MVPower::Backend> gBackend;

std::shared_ptr<MVPower::Backend> backend() {
  std::lock_guard<std::mutex> lock(gMutex);
  if (!gBackend) {
    static std::once_flag once;
    std::call_once(once, [] { MVLog::appendLog("Power operations are not available on this system"); });
  }
  return gBackend;
}

}  // namespace

std::shared_ptr<MVPower::Backend> MVPower::setBackend(std::shared_ptr<Backend> replacement) {
  std::lock_guard<std::mutex> lock(gMutex);
  std::swap(gBackend, replacement);
  return replacement;
}

void MVPower::sleepComputer() {
  if (auto b = backend()) b->sleepComputer();
}

void MVPower::shutdownComputer() {
  if (auto b = backend()) b->shutdownComputer();
}

void MVPower::logOutUser() {
  if (auto b = backend()) b->logOutUser();
}
