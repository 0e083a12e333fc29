// Small owners for GLib and GIO objects used by the desktop services, and
// the session-bus connection they share.
#pragma once

#include <gio/gio.h>
#include <glib.h>

#include <functional>
#include <memory>
#include <string>

namespace quillon::desktop {

struct GObjectUnref {
  void operator()(gpointer object) const {
    if (object) g_object_unref(object);
  }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

struct GVariantUnref {
  void operator()(GVariant* v) const {
    if (v) g_variant_unref(v);
  }
};
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;

struct GErrorFree {
  void operator()(GError* e) const {
    if (e) g_error_free(e);
  }
};
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;

struct GFree {
  void operator()(gpointer p) const { g_free(p); }
};
using GCharPtr = std::unique_ptr<gchar, GFree>;

// Collects a GError from a call taking GError**: `call(&err.out())`.
class ErrorOut {
 public:
  ~ErrorOut() { g_clear_error(&error_); }
  GError** out() { return &error_; }
  explicit operator bool() const { return error_ != nullptr; }
  std::string message() const { return error_ ? error_->message : ""; }
  const GError* get() const { return error_; }

 private:
  GError* error_ = nullptr;
};

// The session bus of the user, shared by the desktop services.
//
// connection() answers the bus that DBUS_SESSION_BUS_ADDRESS names now,
// reconnecting when the address changed or the old connection closed; it
// returns null when there is no session bus, logging that once per address.
// Thread-safe. The returned reference is the caller's own.
class SessionBus {
 public:
  static GObjectPtr<GDBusConnection> connection();
};

// One D-Bus signal subscription, ended when the object goes. The handler
// runs in the main context that was the calling thread's default when the
// subscription was made (the main thread for the desktop services).
class SignalSubscription {
 public:
  using Handler = std::function<void(const gchar* sender, const gchar* member, GVariant* parameters)>;

  SignalSubscription() = default;
  SignalSubscription(GObjectPtr<GDBusConnection> connection, const char* interface, const char* member,
                     const char* path, Handler handler);
  SignalSubscription(SignalSubscription&& other) noexcept;
  SignalSubscription& operator=(SignalSubscription&& other) noexcept;
  SignalSubscription(const SignalSubscription&) = delete;
  SignalSubscription& operator=(const SignalSubscription&) = delete;
  ~SignalSubscription() { reset(); }

  void reset();
  GDBusConnection* connection() const { return connection_.get(); }

 private:
  GObjectPtr<GDBusConnection> connection_;
  guint id_ = 0;
};

// The process's main thread, where every bus reply and signal of the
// desktop services is handled: runs `work` there (at once when already there).
void onMainThread(std::function<void()> work);

}  // namespace quillon::desktop
