// The Final Cut Pro render folder (full version lands with its watcher).
#include "AppController.h"

void AppController::startFCPQuillon() {}
