#include "MVSound.h"

#include <atomic>
#include <mutex>

#include "MVLog.h"
#include "MVRunLoop.h"

namespace {

std::mutex gBackendMutex;
std::shared_ptr<MVSound::Backend> gBackend;

}  // namespace

std::shared_ptr<MVSound::Backend> MVSound::setBackend(std::shared_ptr<Backend> backend) {
  std::lock_guard<std::mutex> lock(gBackendMutex);
  std::swap(gBackend, backend);
  return backend;
}

void MVSound::play(const std::string& name, Completion onFinished) {
  // The job counter of the caller depends on exactly one call; guard it here
  // so that a backend that reports twice cannot make it go negative.
  auto called = std::make_shared<std::atomic<bool>>(false);
  Completion once = [called, onFinished = std::move(onFinished)](bool finished) {
    if (called->exchange(true)) return;
    if (onFinished) onFinished(finished);
  };

  std::shared_ptr<Backend> backend;
  {
    std::lock_guard<std::mutex> lock(gBackendMutex);
    backend = gBackend;
  }
  if (backend) {
    backend->play(name, std::move(once));
    return;
  }
  static std::once_flag logged;
  std::call_once(logged, [] { MVLog::appendLog("Sounds are not available on this system"); });
  if (MVRunLoop::hasMain()) MVRunLoop::main().performOnMainThread([once] { once(false); }, false);
}
