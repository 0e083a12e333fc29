// Alerts as desktop notifications, for sessions without a display: the
// buttons become the notification's actions, keyed by their return codes.
#include <cstdio>
#include <string>
#include <utility>

#include "DesktopGLib.h"
#include "PowerAlertServices.h"

namespace quillon {

namespace {

using desktop::ErrorOut;
using desktop::GCharPtr;
using desktop::GObjectPtr;
using desktop::GVariantPtr;
using desktop::SessionBus;
using desktop::SignalSubscription;

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr const char* kAppName = "Quillon";
constexpr const char* kPlatformDefaultButton = "OK";
// The alert waits for an answer; the server must not let it expire.
constexpr gint32 kNeverExpires = 0;
// A notification server answers at once; the main loop must not hang on one
// that does not.
constexpr gint kCallTimeoutMs = 5000;
// NotificationClosed reason: the user dismissed it.
constexpr guint32 kDismissedByUser = 2;

void consoleLine(const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); }

bool serverUsesMarkup(GDBusConnection* connection) {
  GVariantPtr reply(g_dbus_connection_call_sync(connection, kService, kPath, kInterface, "GetCapabilities", nullptr,
                                                G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs,
                                                nullptr, nullptr));
  if (!reply) return false;
  bool markup = false;
  GVariantIter* iter = nullptr;
  g_variant_get(reply.get(), "(as)", &iter);
  const gchar* capability = nullptr;
  while (g_variant_iter_loop(iter, "&s", &capability))
    if (g_strcmp0(capability, "body-markup") == 0) markup = true;
  g_variant_iter_free(iter);
  return markup;
}

// Main thread only, like the signal handlers that reach it.
class NotificationShownAlert final : public MVAlert::Backend::Shown {
 public:
  NotificationShownAlert(GObjectPtr<GDBusConnection> connection, bool hasAlternate,
                         std::function<void(MVAlert::ReturnCode)> ended)
      : connection_(std::move(connection)), ended_(std::move(ended)), hasAlternate_(hasAlternate) {}

  ~NotificationShownAlert() override { orderOut(); }

  // Subscribes before the notification exists, so that not even an
  // immediate answer is missed; signals for other ids are ignored.
  void listen() {
    auto handler = [this](const gchar*, const gchar* member, GVariant* parameters) { signalled(member, parameters); };
    actions_ = SignalSubscription(ref(), kInterface, "ActionInvoked", kPath, handler);
    closes_ = SignalSubscription(ref(), kInterface, "NotificationClosed", kPath, handler);
  }

  void setId(guint32 id) {
    id_ = id;
    visible_ = true;
  }

  bool isVisible() const override { return visible_; }

  void orderOut() override {
    ended_ = nullptr;
    actions_.reset();
    closes_.reset();
    if (!visible_) return;
    visible_ = false;
    close();
  }

 private:
  GObjectPtr<GDBusConnection> ref() const {
    return GObjectPtr<GDBusConnection>(G_DBUS_CONNECTION(g_object_ref(connection_.get())));
  }

  void close() {
    g_dbus_connection_call(connection_.get(), kService, kPath, kInterface, "CloseNotification",
                           g_variant_new("(u)", id_), nullptr, G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr,
                           nullptr, nullptr);
  }

  void signalled(const std::string& member, GVariant* parameters) {
    if (!visible_) return;
    if (member == "ActionInvoked" && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(us)"))) {
      guint32 id = 0;
      const gchar* action = nullptr;
      g_variant_get(parameters, "(u&s)", &id, &action);
      if (id != id_) return;
      std::string key = action;
      MVAlert::ReturnCode code;
      if (key == "1")
        code = MVAlert::kDefaultReturn;
      else if (key == "0")
        code = MVAlert::kAlternateReturn;
      else if (key == "-1")
        code = MVAlert::kOtherReturn;
      else
        return;  // a click on the bubble itself chooses nothing
      visible_ = false;
      close();
      finish(code);
    } else if (member == "NotificationClosed" && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(uu)"))) {
      guint32 id = 0, reason = 0;
      g_variant_get(parameters, "(uu)", &id, &reason);
      if (id != id_) return;
      visible_ = false;
      // Dismissing is answering as closing a dialog is; expiry or a server
      // that closes on its own leaves the alert to its countdown.
      if (reason == kDismissedByUser)
        finish(hasAlternate_ ? MVAlert::kAlternateReturn : MVAlert::kDefaultReturn);
    }
  }

  void finish(MVAlert::ReturnCode code) {
    auto ended = std::exchange(ended_, nullptr);
    if (ended) ended(code);
  }

  GObjectPtr<GDBusConnection> connection_;
  std::function<void(MVAlert::ReturnCode)> ended_;
  bool hasAlternate_;
  guint32 id_ = 0;
  bool visible_ = false;
  SignalSubscription actions_;
  SignalSubscription closes_;
};

class NotificationAlerts final : public MVAlert::Backend {
 public:
  std::shared_ptr<Shown> show(const MVAlert::Request& request,
                              std::function<void(MVAlert::ReturnCode)> ended) override {
    GObjectPtr<GDBusConnection> connection = SessionBus::connection();
    if (!connection) {
      consoleLine("Alert error: no display and no session bus to show the alert on");
      return nullptr;
    }

    GVariantBuilder actions;
    g_variant_builder_init(&actions, G_VARIANT_TYPE("as"));
    auto action = [&](const char* code, const std::string& title) {
      g_variant_builder_add(&actions, "s", code);
      g_variant_builder_add(&actions, "s", title.c_str());
    };
    action("1", request.defaultButton.value_or(kPlatformDefaultButton));
    if (request.alternateButton) action("0", *request.alternateButton);
    if (request.otherButton) action("-1", *request.otherButton);

    GVariantBuilder hints;
    g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
    // Critical: the server keeps it on screen until it is answered.
    g_variant_builder_add(&hints, "{sv}", "urgency", g_variant_new_byte(2));

    std::string body = request.informativeText;
    if (serverUsesMarkup(connection.get())) body = GCharPtr(g_markup_escape_text(body.c_str(), -1)).get();

    auto shown = std::make_shared<NotificationShownAlert>(
        GObjectPtr<GDBusConnection>(G_DBUS_CONNECTION(g_object_ref(connection.get()))),
        request.alternateButton.has_value(), std::move(ended));
    shown->listen();

    ErrorOut error;
    GVariantPtr reply(g_dbus_connection_call_sync(
        connection.get(), kService, kPath, kInterface, "Notify",
        g_variant_new("(susssasa{sv}i)", kAppName, 0u, "dialog-warning", request.messageText.c_str(), body.c_str(),
                      &actions, &hints, kNeverExpires),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, error.out()));
    if (!reply) {
      shown->orderOut();
      consoleLine("Alert error: the alert could not be shown as a notification: " + error.message());
      return nullptr;
    }
    guint32 id = 0;
    g_variant_get(reply.get(), "(u)", &id);
    shown->setId(id);
    return shown;
  }

  bool hasAttachedSheet(MVWindowRef) override { return false; }
  void makeKeyAndOrderFront(MVWindowRef) override {}
};

}  // namespace

std::shared_ptr<MVAlert::Backend> createNotificationAlertBackend() { return std::make_shared<NotificationAlerts>(); }

}  // namespace quillon
