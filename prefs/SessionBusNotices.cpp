#include "SessionBusNotices.h"


#include "DesktopGLib.h"
#include "DesktopServices.h"
#include "MVDistributedNotificationCenter.h"
#include "PrefsTool.h"

using quillon::desktop::ErrorOut;
using quillon::desktop::GCharPtr;
using quillon::desktop::GObjectPtr;
using quillon::desktop::GVariantPtr;
using quillon::desktop::SessionBus;

namespace {

constexpr const char* kConfigUpdateNotification = "MVQuillonConfigUpdate";
// A settings change must not hang on a wedged bus.
constexpr int kBusTimeoutMilliseconds = 5000;

// Why there is no bus, in the user's terms.
std::string missingBusReason() {
  ErrorOut error;
  GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, error.out()));
  if (!address) return "no session bus (" + error.message() + ")";
  return std::string("no session bus at ") + address.get();
}

GObjectPtr<GDBusConnection> sessionBus(std::string& problem) {
  // The shared connection writes its troubles to the log. The tool keeps a
  // log of its own for them, quietly: the user hears the reason from us.
  startToolLog();
  GObjectPtr<GDBusConnection> connection = SessionBus::connection();
  if (!connection) problem = missingBusReason();
  return connection;
}

}  // namespace

bool postConfigUpdate(std::string& problem) {
  GObjectPtr<GDBusConnection> connection = sessionBus(problem);
  if (!connection) return false;
  MVDistributedNotificationCenter::setBackend(quillon::desktop::createDistributedNotificationBackend());
  MVDistributedNotificationCenter::defaultCenter().postNotification(kConfigUpdateNotification);
  ErrorOut error;
  if (!g_dbus_connection_flush_sync(connection.get(), nullptr, error.out())) {
    problem = "the session bus did not take the reload notice: " + error.message();
    return false;
  }
  return true;
}

std::optional<std::string> notificationServerName(std::string& problem) {
  GObjectPtr<GDBusConnection> connection = sessionBus(problem);
  if (!connection) return std::nullopt;
  ErrorOut error;
  GVariantPtr reply(g_dbus_connection_call_sync(
      connection.get(), "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
      "org.freedesktop.Notifications", "GetServerInformation", nullptr, G_VARIANT_TYPE("(ssss)"),
      G_DBUS_CALL_FLAGS_NONE, kBusTimeoutMilliseconds, nullptr, error.out()));
  if (!reply) {
    problem = "no notification server on the session bus (" + error.message() + ")";
    return std::nullopt;
  }
  const gchar* name = nullptr;
  const gchar* vendor = nullptr;
  const gchar* version = nullptr;
  const gchar* specVersion = nullptr;
  g_variant_get(reply.get(), "(&s&s&s&s)", &name, &vendor, &version, &specVersion);
  std::string description = name;
  if (version && *version) description += std::string(" ") + version;
  if (vendor && *vendor) description += std::string(" (") + vendor + ")";
  return description;
}

void flushSessionBus() {
  std::string problem;
  GObjectPtr<GDBusConnection> connection = sessionBus(problem);
  if (connection) g_dbus_connection_flush_sync(connection.get(), nullptr, nullptr);
}
