// Watchers and actions whose full versions land separately.
#include "AppController.h"

void AppController::startCompressorWatcher() {}
void AppController::processQmaster() {}
void AppController::startFCPQuillon() {}
void AppController::startAvidQuillon() {}
void AppController::startPremiereQuillon() {}
void AppController::diskMounted(const MVPlistValue&) {}
void AppController::diskUnmounted(const MVPlistValue&) {}
void AppController::subscribeToVolumeNotifications() {}
void AppController::performPostRenderActions() { waitForAsyncJobsWithTimeout(10); }
void AppController::sleepComputer() {}
void AppController::shutdownComputer() {}
void AppController::logOutUser() {}
void AppController::sendEmail(const RenderDescription&, bool) {}
void AppController::sendTextMessage(const RenderDescription&, bool) {}
