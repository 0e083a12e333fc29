#include <mutex>

#include "DesktopGLib.h"
#include "MVLog.h"
#include "MVRunLoop.h"

namespace quillon::desktop {

namespace {

std::mutex gMutex;
GObjectPtr<GDBusConnection> gConnection;
std::string gAddress;
std::string gFailedAddress;

}  // namespace

GObjectPtr<GDBusConnection> SessionBus::connection() {
  ErrorOut addressError;
  GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, addressError.out()));
  const std::string current = address ? address.get() : "";
  {
    std::lock_guard<std::mutex> lock(gMutex);
    if (gConnection && current == gAddress && !g_dbus_connection_is_closed(gConnection.get()))
      return GObjectPtr<GDBusConnection>(G_DBUS_CONNECTION(g_object_ref(gConnection.get())));
  }

  // Connecting happens outside the lock: it may take a moment, and GLib
  // takes its own locks meanwhile.
  ErrorOut error;
  GObjectPtr<GDBusConnection> made;
  if (address) {
    made.reset(g_dbus_connection_new_for_address_sync(
        address.get(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.out()));
  }

  std::lock_guard<std::mutex> lock(gMutex);
  if (!made) {
    // Each unreachable bus is reported once, not at every use.
    const std::string failure = address ? current : std::string("(no address)");
    if (failure != gFailedAddress) {
      if (address)
        MVLog::appendLog("No session bus at %@: %@", current, error.message());
      else
        MVLog::appendLog("No session bus: %@", addressError.message());
    }
    gFailedAddress = failure;
    gConnection.reset();
    gAddress.clear();
    return nullptr;
  }
  // Another thread may have connected meanwhile; keep one connection.
  if (gConnection && current == gAddress && !g_dbus_connection_is_closed(gConnection.get()))
    return GObjectPtr<GDBusConnection>(G_DBUS_CONNECTION(g_object_ref(gConnection.get())));
  // The agent outlives a restarted bus daemon; losing the bus must not end it.
  g_dbus_connection_set_exit_on_close(made.get(), FALSE);
  gFailedAddress.clear();
  gAddress = current;
  gConnection = std::move(made);
  return GObjectPtr<GDBusConnection>(G_DBUS_CONNECTION(g_object_ref(gConnection.get())));
}

SignalSubscription::SignalSubscription(GObjectPtr<GDBusConnection> connection, const char* interface,
                                       const char* member, const char* path, Handler handler)
    : connection_(std::move(connection)) {
  // Any sender: the notification server and the other processes of the
  // session are all trusted peers of the same user.
  auto owned = std::make_unique<Handler>(std::move(handler));
  id_ = g_dbus_connection_signal_subscribe(
      connection_.get(), nullptr, interface, member, path, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* signal, GVariant* parameters,
         gpointer data) { (*static_cast<Handler*>(data))(sender, signal, parameters); },
      owned.get(), [](gpointer data) { std::unique_ptr<Handler>(static_cast<Handler*>(data)); });
  // GLib owns the handler from here and frees it through the destroy notify.
  (void)owned.release();
}

SignalSubscription::SignalSubscription(SignalSubscription&& other) noexcept
    : connection_(std::move(other.connection_)), id_(other.id_) {
  other.id_ = 0;
}

SignalSubscription& SignalSubscription::operator=(SignalSubscription&& other) noexcept {
  if (this != &other) {
    reset();
    connection_ = std::move(other.connection_);
    id_ = other.id_;
    other.id_ = 0;
  }
  return *this;
}

void SignalSubscription::reset() {
  if (connection_ && id_) g_dbus_connection_signal_unsubscribe(connection_.get(), id_);
  id_ = 0;
  connection_.reset();
}

void onMainThread(std::function<void()> work) {
  if (!MVRunLoop::hasMain()) return;
  MVRunLoop& loop = MVRunLoop::main();
  if (loop.isMainThread())
    work();
  else
    loop.performOnMainThread(std::move(work), false);
}

}  // namespace quillon::desktop
