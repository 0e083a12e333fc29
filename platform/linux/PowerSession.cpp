// Log out and shut down through the desktop's session manager, which asks
// every application to quit and lets one with unsaved work stop it; logind
// only where no session manager runs. Sleep needs nobody's consent and stays
// with logind.
#include <string>
#include <utility>

#include "DesktopGLib.h"
#include "MVLog.h"
#include "PowerAlertServices.h"

namespace quillon {

namespace {

using desktop::ErrorOut;
using desktop::GObjectPtr;
using desktop::GVariantPtr;
using desktop::SessionBus;

// The session manager may ask applications before it answers; give it time.
constexpr int kCallTimeoutMs = 30000;

enum class Request { LogOut, ShutDown };

// One way of asking a session manager: its bus name, object, interface, and
// the method and arguments for each request.
struct SessionManager {
  const char* busName;
  const char* path;
  const char* interface;
  const char* logOutMethod;
  const char* shutDownMethod;
  GVariant* (*arguments)(Request request);
};

GVariant* noArguments(Request) { return nullptr; }
// Mode 1: no confirmation dialog; our alert has asked already.
GVariant* gnomeArguments(Request request) { return request == Request::LogOut ? g_variant_new("(u)", 1u) : nullptr; }
// ksmserver's logout(confirm, type, mode): no confirmation, log out (0) or
// halt (2), the session's default mode.
GVariant* ksmserverArguments(Request request) {
  return g_variant_new("(iii)", 0, request == Request::LogOut ? 0 : 2, -1);
}

// In the order they are asked about. KDE's Plasma 5.25 and later answer as
// org.kde.Shutdown; older ones as ksmserver; LogoutPrompt is the last KDE
// door, and it shows KDE's own confirmation.
const SessionManager kSessionManagers[] = {
    {"org.gnome.SessionManager", "/org/gnome/SessionManager", "org.gnome.SessionManager", "Logout", "Shutdown",
     gnomeArguments},
    {"org.kde.Shutdown", "/Shutdown", "org.kde.Shutdown", "logout", "logoutAndShutdown", noArguments},
    {"org.kde.ksmserver", "/KSMServer", "org.kde.KSMServerInterface", "logout", "logout", ksmserverArguments},
    {"org.kde.LogoutPrompt", "/LogoutPrompt", "org.kde.LogoutPrompt", "promptLogout", "promptShutDown", noArguments},
};

bool hasOwner(GDBusConnection* connection, const char* name) {
  GVariantPtr reply(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", name),
                                                G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
                                                nullptr));
  gboolean owned = FALSE;
  if (reply) g_variant_get(reply.get(), "(b)", &owned);
  return owned;
}

class SessionPower final : public MVPower::Backend {
 public:
  explicit SessionPower(std::shared_ptr<MVPower::Backend> logind) : logind_(std::move(logind)) {}

  void sleepComputer() override { logind_->sleepComputer(); }
  void shutdownComputer() override {
    if (!askSessionManager(Request::ShutDown)) logind_->shutdownComputer();
  }
  void logOutUser() override {
    if (!askSessionManager(Request::LogOut)) logind_->logOutUser();
  }

 private:
  // False when no session manager runs. Once one was asked, its answer
  // stands, a refusal included: going round it to logind would override
  // the application that objected.
  static bool askSessionManager(Request request) {
    GObjectPtr<GDBusConnection> connection = SessionBus::connection();
    if (!connection) return false;
    for (const SessionManager& manager : kSessionManagers) {
      if (!hasOwner(connection.get(), manager.busName)) continue;
      const char* method = request == Request::LogOut ? manager.logOutMethod : manager.shutDownMethod;
      ErrorOut error;
      GVariantPtr reply(g_dbus_connection_call_sync(connection.get(), manager.busName, manager.path,
                                                    manager.interface, method, manager.arguments(request), nullptr,
                                                    G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, error.out()));
      if (!reply)
        MVLog::appendLog("Power request %@ was not carried out by %@: %@", method, manager.busName, error.message());
      return true;
    }
    return false;
  }

  std::shared_ptr<MVPower::Backend> logind_;
};

}  // namespace

std::shared_ptr<MVPower::Backend> createSessionPowerBackend(std::shared_ptr<MVPower::Backend> logind) {
  return std::make_shared<SessionPower>(std::move(logind));
}

}  // namespace quillon
