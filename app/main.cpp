// quillon-helper: the background agent.
#include <csignal>
#include <cstdio>

#include "MVRunLoop.h"
#include "PlatformLinux.h"

int main() {
  auto loop = quillon::createPlatformRunLoop();
  MVRunLoop::setMain(loop);
  loop->onSignal(SIGTERM, [&] { loop->stop(); });
  loop->onSignal(SIGINT, [&] { loop->stop(); });
  loop->run();
  return 0;
}
