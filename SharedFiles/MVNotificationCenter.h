// MVNotificationCenter: notifications by name within this process.
//
// An observer registers a handler for one notification name (or for every
// name, with an empty name) and receives (name, object, userInfo) each time
// the name is posted. Posting calls the handlers synchronously on the
// posting thread, in the order they were added. "MVGrowlAlertClicked" is
// posted here, on the main thread.
//
// Registration hands back an MVObserverToken; the observer stays registered
// exactly as long as the token lives. Once the token is destroyed (or
// invalidated), its handler is never called again and is not running on any
// other thread, so a handler may safely capture objects that die with the
// token. Destroying a token from inside its own handler is allowed.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "MVPlistValue.h"

using MVNotificationHandler =
    std::function<void(const std::string& name, const MVPlistValue& object, const MVPlistValue& userInfo)>;

class MVObserverToken {
 public:
  MVObserverToken() = default;
  explicit MVObserverToken(std::function<void()> remove) : remove_(std::move(remove)) {}
  MVObserverToken(MVObserverToken&& other) noexcept : remove_(std::move(other.remove_)) { other.remove_ = nullptr; }
  MVObserverToken& operator=(MVObserverToken&& other) noexcept;
  MVObserverToken(const MVObserverToken&) = delete;
  MVObserverToken& operator=(const MVObserverToken&) = delete;
  ~MVObserverToken() { invalidate(); }

  // Unregisters now; waits for a call of the handler running on another thread.
  void invalidate();
  bool isValid() const { return static_cast<bool>(remove_); }

 private:
  std::function<void()> remove_;
};

// The observer bookkeeping shared by the in-process and the distributed
// centers. Thread-safe; tokens may outlive the list.
class MVObserverList {
 public:
  MVObserverList();
  MVObserverList(const MVObserverList&) = delete;
  MVObserverList& operator=(const MVObserverList&) = delete;

  [[nodiscard]] MVObserverToken add(const std::string& name, MVNotificationHandler handler);
  // Calls every live handler registered for `name` or for every name.
  void post(const std::string& name, const MVPlistValue& object, const MVPlistValue& userInfo) const;
  bool empty() const;

 private:
  struct Entry;
  struct State;
  std::shared_ptr<State> state_;
};

class MVNotificationCenter {
 public:
  // The process-wide center; lives for the whole process.
  static MVNotificationCenter& defaultCenter();

  MVNotificationCenter() = default;
  MVNotificationCenter(const MVNotificationCenter&) = delete;
  MVNotificationCenter& operator=(const MVNotificationCenter&) = delete;

  // `name` empty observes every notification.
  [[nodiscard]] MVObserverToken addObserver(const std::string& name, MVNotificationHandler handler);
  void postNotification(const std::string& name, const MVPlistValue& object = {}, const MVPlistValue& userInfo = {});

 private:
  MVObserverList observers_;
};
