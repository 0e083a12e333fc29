// The Linux alerts and power operations.
//
// Alerts: a GTK 3 dialog when a display can be opened (DISPLAY or
// WAYLAND_DISPLAY, decided afresh for every alert), otherwise a desktop
// notification on the session bus whose actions are the alert's buttons.
// Power: log out and shut down through the desktop's session manager on the
// session bus (GNOME, or KDE), systemd-logind on the system bus without one;
// sleep through logind.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "MVAlert.h"
#include "MVPower.h"

namespace quillon {

// Installs the alert and power backends. Call after the run loop is installed.
void installPowerAndAlertServices();

std::shared_ptr<MVAlert::Backend> createGtkAlertBackend();
std::shared_ptr<MVAlert::Backend> createNotificationAlertBackend();
std::shared_ptr<MVPower::Backend> createLogindPowerBackend();
// Log out and shut down through the session manager when one runs, else
// through `logind`; sleep always through `logind`.
std::shared_ptr<MVPower::Backend> createSessionPowerBackend(std::shared_ptr<MVPower::Backend> logind);

// What the GTK alerts on the screen show, for tests that drive them with
// a real X server: the window title, the texts, the buttons in screen order
// and the suppression check box, if any. Main thread.
struct ShownAlertDescription {
  std::string title;
  std::string messageText;
  std::string informativeText;
  std::vector<std::string> buttons;
  // Centres in screen coordinates, where a pointer would click them.
  std::vector<std::pair<int, int>> buttonCentres;
  std::string suppressionLabel;  // empty when the box is not shown
  std::pair<int, int> suppressionCentre;
  bool suppressionChecked = false;
  bool keepAbove = false;
};
std::vector<ShownAlertDescription> shownGtkAlertsForTesting();

}  // namespace quillon
