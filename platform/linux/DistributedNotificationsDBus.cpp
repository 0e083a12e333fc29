// Distributed notifications as a broadcast signal on the session bus.
#include <mutex>

#include "DesktopGLib.h"
#include "DesktopServices.h"
#include "MVDistributedNotificationCenter.h"
#include "MVLog.h"

namespace quillon::desktop {

namespace {

constexpr const char* kPath = "/com/morvane/DistributedNotificationCenter";
constexpr const char* kInterface = "com.morvane.DistributedNotificationCenter";
constexpr const char* kMember = "Notification";

class DBusDistributedNotifications final : public MVDistributedNotificationCenter::Backend,
                                           public std::enable_shared_from_this<DBusDistributedNotifications> {
 public:
  using StringMap = MVDistributedNotificationCenter::StringMap;

  void listen(MVDistributedNotificationCenter::Delivery deliver) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      deliver_ = std::move(deliver);
    }
    std::weak_ptr<DBusDistributedNotifications> weak = weak_from_this();
    onMainThread([weak] {
      if (auto self = weak.lock()) self->subscribe();
    });
  }

  void postNotification(const std::string& name, const std::string& object, const StringMap& userInfo) override {
    GObjectPtr<GDBusConnection> connection = SessionBus::connection();
    if (!connection) return;
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
    for (const auto& [key, value] : userInfo) g_variant_builder_add(&builder, "{ss}", key.c_str(), value.c_str());
    ErrorOut error;
    // A signal with no destination is a broadcast: every process of the
    // session that listens gets it, this one included.
    if (!g_dbus_connection_emit_signal(connection.get(), nullptr, kPath, kInterface, kMember,
                                       g_variant_new("(ssa{ss})", name.c_str(), object.c_str(), &builder),
                                       error.out()))
      MVLog::appendLog("Could not post the distributed notification %@: %@", name, error.message());
  }

 private:
  // Main thread only.
  void subscribe() {
    GObjectPtr<GDBusConnection> connection = SessionBus::connection();
    if (!connection || connection.get() == subscription_.connection()) return;
    std::weak_ptr<DBusDistributedNotifications> weak = weak_from_this();
    subscription_ = SignalSubscription(std::move(connection), kInterface, kMember, kPath,
                                       [weak](const gchar*, const gchar*, GVariant* parameters) {
                                         if (auto self = weak.lock()) self->received(parameters);
                                       });
  }

  void received(GVariant* parameters) {
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ssa{ss})"))) return;
    const gchar* name = nullptr;
    const gchar* object = nullptr;
    GVariantIter* iter = nullptr;
    g_variant_get(parameters, "(&s&sa{ss})", &name, &object, &iter);
    StringMap userInfo;
    const gchar* key = nullptr;
    const gchar* value = nullptr;
    while (g_variant_iter_loop(iter, "{&s&s}", &key, &value)) userInfo[key] = value;
    g_variant_iter_free(iter);

    MVDistributedNotificationCenter::Delivery deliver;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      deliver = deliver_;
    }
    if (deliver) deliver(name, object, userInfo);
  }

  std::mutex mutex_;
  MVDistributedNotificationCenter::Delivery deliver_;
  SignalSubscription subscription_;
};

}  // namespace

std::shared_ptr<MVDistributedNotificationCenter::Backend> createDistributedNotificationBackend() {
  return std::make_shared<DBusDistributedNotifications>();
}

}  // namespace quillon::desktop
