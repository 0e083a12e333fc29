// SettingsWindow: the preferences window of Quillon.
//
// Its rows come from the settings catalogue that quillon-prefs also uses,
// each key on the page of what it is about (watching, what happens, mail,
// text message), so a key added to the catalogue appears here too. Every
// change is written at once (there is no Apply button) and the agent is
// told to reload. The SMTP password goes to the secret store, the phone
// number into the settings encrypted as the agent reads it.
#pragma once

#include <adwaita.h>

// Creates and shows the window for `application`; it lives until closed.
void presentSettingsWindow(AdwApplication* application);
