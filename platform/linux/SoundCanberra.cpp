// System sounds through libcanberra and the freedesktop sound theme.
//
// libcanberra is loaded when the first sound is to play, not linked: it
// brings its own set of libraries, and many users never turn a sound on.
#include <canberra.h>

#include <map>
#include <mutex>
#include <set>

#include "DesktopGLib.h"
#include "DesktopServices.h"
#include "LazyLibrary.h"
#include "MVLog.h"
#include "MVRunLoop.h"
#include "MVSound.h"

namespace quillon::desktop {

namespace {

#define QUILLON_CANBERRA_FUNCTIONS(X)                                                                 \
  X(ca_context_create) X(ca_context_destroy) X(ca_context_change_props) X(ca_context_play_full)     \
  X(ca_proplist_create) X(ca_proplist_destroy) X(ca_proplist_sets) X(ca_strerror)

QUILLON_LAZY_FUNCTIONS(CanberraFunctions, QUILLON_CANBERRA_FUNCTIONS);

void reportCanberraMissing(const std::string& reason) { MVLog::appendLog("Could not play sound: %s", reason); }

constinit LazyLibrary<CanberraFunctions> gCanberra("libcanberra.so.0", &reportCanberraMissing);

// Past this point the libcanberra names call through the loaded library.
// Only code that runs after gCanberra.load() succeeded reaches them.
#define ca_context_create QUILLON_LAZY_CALL(gCanberra, ca_context_create)
#define ca_context_destroy QUILLON_LAZY_CALL(gCanberra, ca_context_destroy)
#define ca_context_change_props QUILLON_LAZY_CALL(gCanberra, ca_context_change_props)
#define ca_context_play_full QUILLON_LAZY_CALL(gCanberra, ca_context_play_full)
#define ca_proplist_create QUILLON_LAZY_CALL(gCanberra, ca_proplist_create)
#define ca_proplist_destroy QUILLON_LAZY_CALL(gCanberra, ca_proplist_destroy)
#define ca_proplist_sets QUILLON_LAZY_CALL(gCanberra, ca_proplist_sets)
#define ca_strerror QUILLON_LAZY_CALL(gCanberra, ca_strerror)

struct ContextDestroy {
  void operator()(ca_context* c) const { ca_context_destroy(c); }
};
struct ProplistDestroy {
  void operator()(ca_proplist* p) const { ca_proplist_destroy(p); }
};

// The platform's sound names, as the nearest sound-theme events.
const std::map<std::string, std::string>& themeEvents() {
  static const std::map<std::string, std::string> events = {
      {"Glass", "complete"},     {"Sosumi", "dialog-error"}, {"Basso", "dialog-warning"},
      {"Funk", "dialog-warning"}, {"Ping", "message"},       {"Pop", "message"},
      {"Tink", "message"},       {"Hero", "complete"},       {"Submarine", "message-new-instant"},
  };
  return events;
}

class CanberraSounds final : public MVSound::Backend, public std::enable_shared_from_this<CanberraSounds> {
 public:
  ~CanberraSounds() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pending_.clear();
    }
    // Destroying the context cancels what still plays; its callbacks then
    // find nothing pending. It must not run under mutex_, which they take.
    context_.reset();
  }

  void play(const std::string& name, MVSound::Completion onFinished) override {
    std::weak_ptr<CanberraSounds> weak = weak_from_this();
    MVRunLoop::main().performOnMainThread(
        [weak, name, onFinished]() mutable {
          if (auto self = weak.lock())
            self->start(name, std::move(onFinished));
          else
            onFinished(false);
        },
        false);
  }

 private:
  // Main thread.
  void start(const std::string& name, MVSound::Completion onFinished) {
    // Without the library, the loader has said why, once.
    if (!gCanberra.load()) {
      notPlayed(std::move(onFinished));
      return;
    }
    if (!context_) {
      ca_context* made = nullptr;
      if (int rc = ca_context_create(&made); rc != CA_SUCCESS) {
        fail(rc, std::move(onFinished));
        return;
      }
      context_.reset(made);
      ca_context_change_props(context_.get(), CA_PROP_APPLICATION_NAME, "Quillon", CA_PROP_APPLICATION_ID,
                              "com.morvane.Quillon", nullptr);
    }

    ca_proplist* raw = nullptr;
    ca_proplist_create(&raw);
    std::unique_ptr<ca_proplist, ProplistDestroy> props(raw);
    if (!name.empty() && name.front() == '/') {
      ca_proplist_sets(props.get(), CA_PROP_MEDIA_FILENAME, name.c_str());
    } else {
      auto event = themeEvents().find(name);
      const std::string& id = event != themeEvents().end() ? event->second : name;
      ca_proplist_sets(props.get(), CA_PROP_EVENT_ID, id.c_str());
    }
    ca_proplist_sets(props.get(), CA_PROP_CANBERRA_CACHE_CONTROL, "permanent");

    uint32_t id;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      id = nextId_++;
      pending_[id] = onFinished;
    }
    int rc = ca_context_play_full(context_.get(), id, props.get(), &CanberraSounds::finished, this);
    if (rc != CA_SUCCESS) {
      // No callback follows a failure to start: finish here instead.
      std::lock_guard<std::mutex> lock(mutex_);
      pending_.erase(id);
    }
    if (rc != CA_SUCCESS) fail(rc, std::move(onFinished));
  }

  void fail(int rc, MVSound::Completion onFinished) {
    if (loggedErrors_.insert(rc).second) MVLog::appendLog("Could not play sound: %s", ca_strerror(rc));
    notPlayed(std::move(onFinished));
  }

  static void notPlayed(MVSound::Completion onFinished) {
    MVRunLoop::main().performOnMainThread([onFinished] { onFinished(false); }, false);
  }

  // Called on libcanberra's own thread, or inside ca_context_destroy.
  static void finished(ca_context*, uint32_t id, int errorCode, void* data) {
    auto* self = static_cast<CanberraSounds*>(data);
    MVSound::Completion onFinished;
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      auto it = self->pending_.find(id);
      if (it == self->pending_.end()) return;
      onFinished = std::move(it->second);
      self->pending_.erase(it);
    }
    bool played = errorCode == CA_SUCCESS;
    MVRunLoop::main().performOnMainThread([onFinished, played] { onFinished(played); }, false);
  }

  std::unique_ptr<ca_context, ContextDestroy> context_;
  std::mutex mutex_;
  std::map<uint32_t, MVSound::Completion> pending_;
  uint32_t nextId_ = 1;
  std::set<int> loggedErrors_;
};

}  // namespace

std::shared_ptr<MVSound::Backend> createSoundBackend() { return std::make_shared<CanberraSounds>(); }

}  // namespace quillon::desktop
