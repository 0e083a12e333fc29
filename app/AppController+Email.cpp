// E-mail and text-message notifications (full version lands with the mail session).
#include "AppController.h"

void AppController::sendEmail(const RenderDescription&, bool) {}
void AppController::sendTextMessage(const RenderDescription&, bool) {}
