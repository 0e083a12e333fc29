// MVGrowl: the desktop notifications that tell the user a render ended.
//
// One process-wide instance (defaultController), never freed, which is also
// the delegate of the user-notification center: notifications are shown
// even while this program is frontmost, and a click on a notification that
// carries a click context is re-posted in process as "MVGrowlAlertClicked"
// (object none, user info {"clickContext": context}) on the main thread.
//
// The maker-wide switch "growlDisabled" in "com.morvane.global.plist" turns
// every notification off; it is read afresh at each notification.
//
// The class operations may be called from any thread; delivery returns at
// once. The icon is a path to an image file or an icon-theme name (empty for
// none); the notification name is accepted for callers' sake but not shown.
//
// Linux: org.freedesktop.Notifications on the session bus, app name
// "Quillon", the title as summary, the text as body, the icon file as app
// icon when it exists, and the action "default" (a click on the bubble) only
// when a click context is given. Without a notification server one line is
// logged. macOS: NSUserNotificationCenter.
#pragma once

#include <memory>
#include <string>

#include "MVPlistValue.h"

// What is handed to the platform's notification service.
struct MVUserNotification {
  std::string title;
  std::string informativeText;
  std::string iconPath;   // file path or icon-theme name; empty for none
  std::string soundName;  // empty: silent
  bool hasActionButton = false;
  MVPlistValue userInfo;  // nil, or a dictionary kept for the click
};

class MVUserNotificationCenter;

class MVUserNotificationCenterDelegate {
 public:
  virtual ~MVUserNotificationCenterDelegate() = default;
  virtual bool shouldPresentNotification(MVUserNotificationCenter& center, const MVUserNotification& notification) = 0;
  // Called on the main thread when the user clicks a delivered notification.
  virtual void didActivateNotification(MVUserNotificationCenter& center, const MVUserNotification& notification) = 0;
};

// The system's notification service, as the logic sees it.
class MVUserNotificationCenter {
 public:
  class Backend {
   public:
    virtual ~Backend() = default;
    // Shows the notification; may be called from any thread. A click on it is
    // reported through defaultUserNotificationCenter().notificationActivated().
    virtual void deliverNotification(const MVUserNotification& notification) = 0;
  };

  static MVUserNotificationCenter& defaultUserNotificationCenter();
  // Installs the platform side; returns the one it replaces.
  static std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> backend);

  MVUserNotificationCenter(const MVUserNotificationCenter&) = delete;
  MVUserNotificationCenter& operator=(const MVUserNotificationCenter&) = delete;

  // The delegate is not owned and must live as long as the center.
  void setDelegate(MVUserNotificationCenterDelegate* delegate);
  void deliverNotification(const MVUserNotification& notification);
  // For the backend: the user clicked `notification`. Main thread.
  void notificationActivated(const MVUserNotification& notification);

 private:
  MVUserNotificationCenter() = default;
  MVUserNotificationCenterDelegate* delegate() const;
};

class MVGrowl final : public MVUserNotificationCenterDelegate {
 public:
  static MVGrowl& defaultController();

  MVGrowl(const MVGrowl&) = delete;
  MVGrowl& operator=(const MVGrowl&) = delete;

  static void postGrowlNotification(const std::string& title, const std::string& description);
  static void postGrowlNotification(const std::string& title, const std::string& description, const std::string& icon);
  // The click context is the current date, so a click is always passed on.
  static void postGrowlNotification(const std::string& title, const std::string& description, const std::string& icon,
                                    const std::string& notificationName);
  // A nil click context: the notification is shown, its click is ignored.
  static void postGrowlNotification(const std::string& title, const std::string& description, const std::string& icon,
                                    const std::string& notificationName, const MVPlistValue& clickContext);

  // The instance operation behind the class operations.
  void deliverNotification(const std::string& title, const std::string& description, const std::string& icon,
                           const std::string& notificationName, const MVPlistValue& clickContext);

  bool shouldPresentNotification(MVUserNotificationCenter& center, const MVUserNotification& notification) override;
  void didActivateNotification(MVUserNotificationCenter& center, const MVUserNotification& notification) override;

 private:
  MVGrowl();
};
