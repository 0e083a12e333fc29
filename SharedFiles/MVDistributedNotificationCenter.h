// MVDistributedNotificationCenter: notifications between processes of the
// same user session, such as "MVQuillonConfigUpdate" from the preferences
// application.
//
// A notification is a name, an object string and a user-info dictionary of
// strings. Observers registered here receive every notification posted by
// any process (including this one) under their name; handlers always run on
// the main thread. Posting returns at once.
//
// Linux: a broadcast D-Bus signal on the session bus, object path
// "/com/morvane/DistributedNotificationCenter", interface
// "com.morvane.DistributedNotificationCenter", member "Notification",
// arguments (s name, s object, a{ss} userInfo), accepted from any sender.
// An empty object string stands for no object. Without a session bus one
// line is logged, observers are never called and posting does nothing.
// macOS: NSDistributedNotificationCenter.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "MVNotificationCenter.h"
#include "MVPlistValue.h"

class MVDistributedNotificationCenter {
 public:
  using StringMap = std::map<std::string, std::string>;
  using Delivery = std::function<void(const std::string& name, const std::string& object, const StringMap& userInfo)>;

  // The platform side. listen() may be called many times (once per added
  // observer) and must deliver each notification once, on the main thread.
  class Backend {
   public:
    virtual ~Backend() = default;
    virtual void listen(Delivery deliver) = 0;
    virtual void postNotification(const std::string& name, const std::string& object, const StringMap& userInfo) = 0;
  };

  static MVDistributedNotificationCenter& defaultCenter();
  // Installs the platform side; returns the one it replaces.
  static std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> backend);

  MVDistributedNotificationCenter(const MVDistributedNotificationCenter&) = delete;
  MVDistributedNotificationCenter& operator=(const MVDistributedNotificationCenter&) = delete;

  // `name` empty observes every notification. The handler gets the object as
  // a string value (nil when none) and the user info as a dictionary of strings.
  [[nodiscard]] MVObserverToken addObserver(const std::string& name, MVNotificationHandler handler);
  // Non-string user-info values travel as their description; a nil object as "".
  void postNotification(const std::string& name, const MVPlistValue& object = {}, const MVPlistValue& userInfo = {});

 private:
  MVDistributedNotificationCenter() = default;
  void deliver(const std::string& name, const std::string& object, const StringMap& userInfo);

  MVObserverList observers_;
};
