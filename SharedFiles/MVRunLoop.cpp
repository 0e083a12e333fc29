#include "MVRunLoop.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {
std::mutex gMainMutex;
// Never destroyed: detached workers may still reach the main loop while the
// process exits, after static destructors have started to run.
std::shared_ptr<MVRunLoop>& gMainSlot() {
  static auto* slot = new std::shared_ptr<MVRunLoop>();
  return *slot;
}
}  // namespace

MVRunLoop& MVRunLoop::main() {
  std::lock_guard<std::mutex> lock(gMainMutex);
  if (!gMainSlot()) {
    std::fputs("MVRunLoop: no main loop installed\n", stderr);
    std::abort();
  }
  return *gMainSlot();
}

void MVRunLoop::setMain(std::shared_ptr<MVRunLoop> loop) {
  std::lock_guard<std::mutex> lock(gMainMutex);
  gMainSlot() = std::move(loop);
}

bool MVRunLoop::hasMain() {
  std::lock_guard<std::mutex> lock(gMainMutex);
  return gMainSlot() != nullptr;
}
