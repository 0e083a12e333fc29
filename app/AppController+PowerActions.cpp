// Post-render power actions (full version lands with the timed alert).
#include "AppController.h"

void AppController::performPostRenderActions() { waitForAsyncJobsWithTimeout(10); }
void AppController::sleepComputer() {}
void AppController::shutdownComputer() {}
void AppController::logOutUser() {}
