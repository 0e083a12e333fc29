// quillon-settings: the settings window of the Quillon agent.
#include <adwaita.h>

#include <mutex>

#include "HTTPCurl.h"
#include "KeychainSecretService.h"
#include "MVKeychain.h"
#include "MVLog.h"
#include "MVRunLoop.h"
#include "PlatformLinux.h"
#include "PrefsTool.h"
#include "SettingsWindow.h"

// The shared settings code reports its troubles to this program's log.
void startToolLog() {
  static std::once_flag started;
  std::call_once(started, [] { MVLog::createNewLog("quillon-settings", /*noPrinting=*/true); });
}

int main(int argc, char** argv) {
  // The mail client and the bus deliver on the main loop, which GTK turns.
  MVRunLoop::setMain(quillon::createPlatformRunLoop());
  MVKeychain::setBackend(quillon::createSecretServiceKeychain());
  quillon::installCurlHTTP();  // libcurl itself is loaded at the first push
  AdwApplication* application = adw_application_new("com.morvane.Quillon.Settings", G_APPLICATION_DEFAULT_FLAGS);
  g_signal_connect(application, "activate",
                   G_CALLBACK(+[](GApplication* app, gpointer) {
                     // A second start shows the window that is already open.
                     if (GtkWindow* open = gtk_application_get_active_window(GTK_APPLICATION(app)))
                       return gtk_window_present(open);
                     presentSettingsWindow(ADW_APPLICATION(app));
                   }),
                   nullptr);
  const int status = g_application_run(G_APPLICATION(application), argc, argv);
  g_object_unref(application);
  MVKeychain::setBackend(nullptr);
  return status;
}
