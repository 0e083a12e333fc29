// Desktop notifications through org.freedesktop.Notifications.
#include <unistd.h>

#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "DesktopGLib.h"
#include "DesktopServices.h"
#include "MVGrowl.h"
#include "MVLog.h"

namespace quillon::desktop {

namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr const char* kAppName = "Quillon";
// The action a server reports when the bubble itself is clicked.
constexpr const char* kDefaultAction = "default";
// Servers that never report NotificationClosed must not make the table grow
// without end; a click on a notification older than this many is ignored.
constexpr std::size_t kRememberedNotifications = 64;

// The app_icon argument: a file URI for an existing image, an icon-theme
// name as given, nothing for a missing file.
std::string iconArgument(const std::string& icon) {
  if (icon.empty()) return {};
  if (icon.front() != '/') return icon;
  if (access(icon.c_str(), R_OK) != 0) return {};
  GCharPtr uri(g_filename_to_uri(icon.c_str(), nullptr, nullptr));
  return uri ? uri.get() : std::string();
}

class FreedesktopNotifications final : public MVUserNotificationCenter::Backend,
                                       public std::enable_shared_from_this<FreedesktopNotifications> {
 public:
  void deliverNotification(const MVUserNotification& notification) override {
    std::weak_ptr<FreedesktopNotifications> weak = weak_from_this();
    onMainThread([weak, notification] {
      if (auto self = weak.lock()) self->notify(notification);
    });
  }

 private:
  struct PendingCall {
    std::weak_ptr<FreedesktopNotifications> owner;
    MVUserNotification notification;
  };

  // Main thread only, as is all the state below.
  void notify(const MVUserNotification& notification) {
    GObjectPtr<GDBusConnection> connection = SessionBus::connection();
    if (!connection) return;
    watchServer(connection);
    if (capabilities_ == Capabilities::Known) {
      send(connection.get(), notification);
      return;
    }
    // Whether the body is markup decides how it must be escaped, so the
    // server is asked once before the first notification goes out.
    waiting_.push_back(notification);
    if (capabilities_ == Capabilities::Asking) return;
    capabilities_ = Capabilities::Asking;
    auto owner = std::make_unique<std::weak_ptr<FreedesktopNotifications>>(weak_from_this());
    g_dbus_connection_call(connection.get(), kService, kPath, kInterface, "GetCapabilities", nullptr,
                           G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                           &FreedesktopNotifications::answeredCapabilities, owner.release());
  }

  static void answeredCapabilities(GObject* source, GAsyncResult* result, gpointer data) {
    std::unique_ptr<std::weak_ptr<FreedesktopNotifications>> owner(
        static_cast<std::weak_ptr<FreedesktopNotifications>*>(data));
    ErrorOut error;
    GVariantPtr reply(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error.out()));
    auto self = owner->lock();
    // An answer from a bus we have since left is of no use.
    if (!self || G_DBUS_CONNECTION(source) != self->clicks_.connection()) return;
    std::vector<MVUserNotification> waiting = std::exchange(self->waiting_, {});
    if (!reply) {
      self->capabilities_ = Capabilities::Unknown;
      self->reportUnavailable(error.message());
      return;
    }
    self->markup_ = false;
    GVariantIter* iter = nullptr;
    g_variant_get(reply.get(), "(as)", &iter);
    const gchar* capability = nullptr;
    while (g_variant_iter_loop(iter, "&s", &capability))
      if (g_strcmp0(capability, "body-markup") == 0) self->markup_ = true;
    g_variant_iter_free(iter);
    self->capabilities_ = Capabilities::Known;
    for (const MVUserNotification& notification : waiting) self->send(G_DBUS_CONNECTION(source), notification);
  }

  void send(GDBusConnection* connection, const MVUserNotification& notification) {
    const bool clickable = !notification.userInfo.isNil();
    GVariantBuilder actions;
    g_variant_builder_init(&actions, G_VARIANT_TYPE("as"));
    if (clickable) {
      g_variant_builder_add(&actions, "s", kDefaultAction);
      g_variant_builder_add(&actions, "s", "Show");
    }
    GVariantBuilder hints;
    g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
    if (notification.soundName.empty())
      g_variant_builder_add(&hints, "{sv}", "suppress-sound", g_variant_new_boolean(TRUE));

    // File names may hold "&" or "<"; a markup server must show them as typed.
    std::string body = notification.informativeText;
    if (markup_) body = GCharPtr(g_markup_escape_text(body.c_str(), -1)).get();

    std::string icon = iconArgument(notification.iconPath);
    GVariant* parameters = g_variant_new("(susssasa{sv}i)", kAppName, 0u, icon.c_str(), notification.title.c_str(),
                                         body.c_str(), &actions, &hints, -1);

    auto call = std::make_unique<PendingCall>(PendingCall{weak_from_this(), notification});
    g_dbus_connection_call(connection, kService, kPath, kInterface, "Notify", parameters, G_VARIANT_TYPE("(u)"),
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &FreedesktopNotifications::replied, call.release());
  }

  // Said once until a notification gets through again, so a session
  // without a notification server does not fill the log.
  void reportUnavailable(const std::string& reason) {
    if (!reportedUnavailable_) MVLog::appendLog("Desktop notification not shown: no notification server (%@)", reason);
    reportedUnavailable_ = true;
  }

  static void replied(GObject* source, GAsyncResult* result, gpointer data) {
    std::unique_ptr<PendingCall> call(static_cast<PendingCall*>(data));
    ErrorOut error;
    GVariantPtr reply(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error.out()));
    auto self = call->owner.lock();
    if (!self) return;
    if (!reply) {
      // The server may have gone; whichever comes next is asked afresh.
      self->capabilities_ = Capabilities::Unknown;
      self->reportUnavailable(error.message());
      return;
    }
    self->reportedUnavailable_ = false;
    guint32 id = 0;
    g_variant_get(reply.get(), "(u)", &id);
    if (call->notification.userInfo.isNil()) return;
    self->remember(id, std::move(call->notification));
  }

  void remember(guint32 id, MVUserNotification notification) {
    if (!shown_.count(id)) order_.push_back(id);
    shown_[id] = std::move(notification);
    while (order_.size() > kRememberedNotifications) {
      shown_.erase(order_.front());
      order_.pop_front();
    }
  }

  void forget(guint32 id) {
    shown_.erase(id);
    std::erase(order_, id);
  }

  void watchServer(const GObjectPtr<GDBusConnection>& connection) {
    if (connection.get() == clicks_.connection()) return;
    // Ids and capabilities belong to the server of the old bus.
    shown_.clear();
    order_.clear();
    capabilities_ = Capabilities::Unknown;
    std::weak_ptr<FreedesktopNotifications> weak = weak_from_this();
    auto handler = [weak](const gchar*, const gchar* member, GVariant* parameters) {
      if (auto self = weak.lock()) self->signalled(member, parameters);
    };
    clicks_ = SignalSubscription(GObjectPtr<GDBusConnection>(G_DBUS_CONNECTION(g_object_ref(connection.get()))),
                                 kInterface, "ActionInvoked", kPath, handler);
    closes_ = SignalSubscription(GObjectPtr<GDBusConnection>(G_DBUS_CONNECTION(g_object_ref(connection.get()))),
                                 kInterface, "NotificationClosed", kPath, handler);
  }

  void signalled(const std::string& member, GVariant* parameters) {
    if (member == "NotificationClosed" && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(uu)"))) {
      guint32 id = 0, reason = 0;
      g_variant_get(parameters, "(uu)", &id, &reason);
      forget(id);
      return;
    }
    if (member != "ActionInvoked" || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(us)"))) return;
    guint32 id = 0;
    const gchar* action = nullptr;
    g_variant_get(parameters, "(u&s)", &id, &action);
    auto it = shown_.find(id);
    if (it == shown_.end() || std::string(action) != kDefaultAction) return;
    MVUserNotification clicked = it->second;
    MVUserNotificationCenter::defaultUserNotificationCenter().notificationActivated(clicked);
  }

  enum class Capabilities { Unknown, Asking, Known };
  Capabilities capabilities_ = Capabilities::Unknown;
  bool markup_ = false;
  std::vector<MVUserNotification> waiting_;
  bool reportedUnavailable_ = false;
  std::map<guint32, MVUserNotification> shown_;
  std::deque<guint32> order_;
  SignalSubscription clicks_;
  SignalSubscription closes_;
};

}  // namespace

std::shared_ptr<MVUserNotificationCenter::Backend> createNotificationBackend() {
  return std::make_shared<FreedesktopNotifications>();
}

}  // namespace quillon::desktop
