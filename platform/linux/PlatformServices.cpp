#include "DesktopServices.h"
#include "FSEventsInotify.h"
#include "HTTPCurl.h"
#include "KeychainSecretService.h"
#include "MVFSEvents.h"
#include "MVKeychain.h"
#include "PlatformLinux.h"
#include "PowerAlertServices.h"
#include "VolumesMountinfo.h"

namespace quillon {

void installPlatformServices() {
  MVFSEvents::setBackendFactory(createInotifyBackend);
  installDesktopServices();
  installMountinfoVolumes();
  installPowerAndAlertServices();
  MVKeychain::setBackend(createSecretServiceKeychain());
  installCurlHTTP();
}

void uninstallPlatformServices() {
  // libsecret keeps a bus connection; closing it first means a bus that goes
  // away during exit cannot take the process down with it.
  MVKeychain::setBackend(nullptr);
}

}  // namespace quillon
