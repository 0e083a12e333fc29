// quillon-prefs: the preferences tool of the Quillon agent.
#include <string>
#include <vector>

#include "MVRunLoop.h"
#include "PlatformLinux.h"
#include "PrefsTool.h"

int main(int argc, char** argv) {
  // The bus and the mail client deliver on the main loop, which the test
  // commands turn while they wait for an answer.
  MVRunLoop::setMain(quillon::createPlatformRunLoop());
  return runPrefsTool(std::vector<std::string>(argv + 1, argv + argc));
}
