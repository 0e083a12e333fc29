// Sleep, shut down and log out through systemd-logind on the system bus.
#include <unistd.h>

#include <optional>
#include <string>

#include "DesktopGLib.h"
#include "MVLog.h"
#include "PowerAlertServices.h"

namespace quillon {

namespace {

using desktop::ErrorOut;
using desktop::GCharPtr;
using desktop::GObjectPtr;
using desktop::GVariantPtr;

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
// logind may ask polkit before it answers; give it time, but not forever.
constexpr int kCallTimeoutMs = 30000;

// A connection of our own for each request. Power requests are rare, and a
// fresh connection always follows DBUS_SYSTEM_BUS_ADDRESS as it is now
// instead of a shared bus that was opened for another address.
class SystemBus {
 public:
  SystemBus() {
    ErrorOut error;
    GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out()));
    if (!address) {
      error_ = error.message();
      return;
    }
    connection_.reset(g_dbus_connection_new_for_address_sync(
        address.get(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.out()));
    if (!connection_) {
      error_ = error.message();
      return;
    }
    g_dbus_connection_set_exit_on_close(connection_.get(), FALSE);
  }
  ~SystemBus() {
    if (connection_) g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
  }
  SystemBus(const SystemBus&) = delete;
  SystemBus& operator=(const SystemBus&) = delete;

  explicit operator bool() const { return connection_ != nullptr; }
  const std::string& error() const { return error_; }

  // Calls a logind operation; null and the reason in `error` on failure.
  GVariantPtr call(const char* path, const char* interface, const char* method, GVariant* parameters,
                   const char* replyType, std::string& error) {
    ErrorOut failure;
    GVariantPtr reply(g_dbus_connection_call_sync(connection_.get(), kLogind, path, interface, method, parameters,
                                                  replyType ? G_VARIANT_TYPE(replyType) : nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, failure.out()));
    if (!reply) error = failure.message();
    return reply;
  }

  GVariantPtr property(const char* path, const char* interface, const char* name, std::string& error) {
    GVariantPtr reply = call(path, "org.freedesktop.DBus.Properties", "Get", g_variant_new("(ss)", interface, name),
                             "(v)", error);
    if (!reply) return nullptr;
    GVariant* value = nullptr;
    g_variant_get(reply.get(), "(v)", &value);
    return GVariantPtr(value);
  }

 private:
  GObjectPtr<GDBusConnection> connection_;
  std::string error_;
};

// The session to end on log-out: the one this process runs in, or else the
// user's graphical session (an agent started by the user's service manager
// runs outside any session).
std::optional<std::string> graphicalSessionId(SystemBus& bus, std::string& error) {
  if (const char* id = std::getenv("XDG_SESSION_ID"); id && *id) return std::string(id);

  GVariantPtr reply = bus.call(kManagerPath, kManager, "GetSessionByPID",
                               g_variant_new("(u)", static_cast<guint32>(getpid())), "(o)", error);
  if (reply) {
    const gchar* path = nullptr;
    g_variant_get(reply.get(), "(&o)", &path);
    GVariantPtr id = bus.property(path, "org.freedesktop.login1.Session", "Id", error);
    if (id && g_variant_is_of_type(id.get(), G_VARIANT_TYPE_STRING)) return std::string(g_variant_get_string(id.get(), nullptr));
    return std::nullopt;
  }

  reply = bus.call(kManagerPath, kManager, "GetUser", g_variant_new("(u)", static_cast<guint32>(getuid())), "(o)",
                   error);
  if (!reply) return std::nullopt;
  const gchar* userPath = nullptr;
  g_variant_get(reply.get(), "(&o)", &userPath);
  GVariantPtr display = bus.property(userPath, "org.freedesktop.login1.User", "Display", error);
  if (!display || !g_variant_is_of_type(display.get(), G_VARIANT_TYPE("(so)"))) return std::nullopt;
  const gchar* id = nullptr;
  const gchar* sessionPath = nullptr;
  g_variant_get(display.get(), "(&s&o)", &id, &sessionPath);
  if (!id || !*id) {
    error = "the user has no graphical session";
    return std::nullopt;
  }
  return std::string(id);
}

class LogindPower final : public MVPower::Backend {
 public:
  void sleepComputer() override { request("Suspend"); }
  void shutdownComputer() override { request("PowerOff"); }

  void logOutUser() override {
    SystemBus bus;
    if (!bus) return refused("log out", bus.error());
    std::string error;
    std::optional<std::string> session = graphicalSessionId(bus, error);
    if (!session) return refused("log out", error);
    if (!bus.call(kManagerPath, kManager, "TerminateSession", g_variant_new("(s)", session->c_str()), nullptr, error))
      refused("log out", error);
  }

 private:
  // Not interactive: nobody is there to answer an authentication prompt,
  // the user agreed through the alert already.
  void request(const char* method) {
    SystemBus bus;
    if (!bus) return refused(method, bus.error());
    std::string error;
    if (!bus.call(kManagerPath, kManager, method, g_variant_new("(b)", FALSE), nullptr, error)) refused(method, error);
  }

  static void refused(const std::string& what, const std::string& reason) {
    MVLog::appendLog("Power request %@ was not carried out: %@", what, reason);
  }
};

}  // namespace

std::shared_ptr<MVPower::Backend> createLogindPowerBackend() { return std::make_shared<LogindPower>(); }

}  // namespace quillon
