// Avid media folders on every volume (full version lands with its watcher).
#include "AppController.h"

void AppController::startAvidQuillon() {}
void AppController::diskMounted(const MVPlistValue&) {}
void AppController::diskUnmounted(const MVPlistValue&) {}
void AppController::subscribeToVolumeNotifications() {}
