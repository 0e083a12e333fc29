// Premiere preview folders (full version lands with its watcher).
#include "AppController.h"

void AppController::startPremiereQuillon() {}
