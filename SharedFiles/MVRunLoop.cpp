#include "MVRunLoop.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {
std::mutex gMainMutex;
std::shared_ptr<MVRunLoop> gMain;
}  // namespace

MVRunLoop& MVRunLoop::main() {
  std::lock_guard<std::mutex> lock(gMainMutex);
  if (!gMain) {
    std::fputs("MVRunLoop: no main loop installed\n", stderr);
    std::abort();
  }
  return *gMain;
}

void MVRunLoop::setMain(std::shared_ptr<MVRunLoop> loop) {
  std::lock_guard<std::mutex> lock(gMainMutex);
  gMain = std::move(loop);
}

bool MVRunLoop::hasMain() {
  std::lock_guard<std::mutex> lock(gMainMutex);
  return gMain != nullptr;
}
