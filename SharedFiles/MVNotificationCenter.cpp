#include "MVNotificationCenter.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

MVObserverToken& MVObserverToken::operator=(MVObserverToken&& other) noexcept {
  if (this != &other) {
    invalidate();
    remove_ = std::move(other.remove_);
    other.remove_ = nullptr;
  }
  return *this;
}

void MVObserverToken::invalidate() {
  if (!remove_) return;
  auto remove = std::move(remove_);
  remove_ = nullptr;
  remove();
}

// One registration. The threads currently inside its handler are tracked so
// that removal can wait for them, except for the removing thread itself
// (a handler that drops its own token must not wait for itself).
struct MVObserverList::Entry {
  std::string name;
  MVNotificationHandler handler;
  std::mutex mutex;
  std::condition_variable idle;
  bool alive = true;
  std::vector<std::thread::id> running;

  bool enter() {
    std::lock_guard<std::mutex> lock(mutex);
    if (!alive) return false;
    running.push_back(std::this_thread::get_id());
    return true;
  }
  void leave() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      running.erase(std::find(running.begin(), running.end(), std::this_thread::get_id()));
    }
    idle.notify_all();
  }
  void kill() {
    std::unique_lock<std::mutex> lock(mutex);
    alive = false;
    idle.wait(lock, [this] {
      return std::all_of(running.begin(), running.end(),
                         [](std::thread::id id) { return id == std::this_thread::get_id(); });
    });
  }
};

struct MVObserverList::State {
  mutable std::mutex mutex;
  std::vector<std::shared_ptr<Entry>> entries;
};

MVObserverList::MVObserverList() : state_(std::make_shared<State>()) {}

MVObserverToken MVObserverList::add(const std::string& name, MVNotificationHandler handler) {
  auto entry = std::make_shared<Entry>();
  entry->name = name;
  entry->handler = std::move(handler);
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->entries.push_back(entry);
  }
  std::weak_ptr<State> weakState = state_;
  return MVObserverToken([weakState, entry] {
    entry->kill();
    if (auto state = weakState.lock()) {
      std::lock_guard<std::mutex> lock(state->mutex);
      std::erase(state->entries, entry);
    }
  });
}

void MVObserverList::post(const std::string& name, const MVPlistValue& object, const MVPlistValue& userInfo) const {
  std::vector<std::shared_ptr<Entry>> entries;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    entries = state_->entries;
  }
  for (const auto& entry : entries) {
    if (!entry->name.empty() && entry->name != name) continue;
    if (!entry->enter()) continue;
    struct Leave {
      Entry& e;
      ~Leave() { e.leave(); }
    } leave{*entry};
    entry->handler(name, object, userInfo);
  }
}

bool MVObserverList::empty() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->entries.empty();
}

MVNotificationCenter& MVNotificationCenter::defaultCenter() {
  static MVNotificationCenter center;
  return center;
}

MVObserverToken MVNotificationCenter::addObserver(const std::string& name, MVNotificationHandler handler) {
  return observers_.add(name, std::move(handler));
}

void MVNotificationCenter::postNotification(const std::string& name, const MVPlistValue& object,
                                            const MVPlistValue& userInfo) {
  observers_.post(name, object, userInfo);
}
