// The main run loop on GLib's default main context.
#include <glib-unix.h>
#include <glib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <map>
#include <mutex>
#include <thread>

#include "PlatformLinux.h"

namespace {

GMainContext* mainContext() { return g_main_context_default(); }

// Callback data crosses threads through GLib, whose own locking race
// detectors cannot see; every hand-off of a holder goes through this lock so
// that the publication is explicit.
std::mutex gPublish;

template <typename T>
gpointer publish(std::shared_ptr<T> object) {
  std::lock_guard<std::mutex> lock(gPublish);
  return new std::shared_ptr<T>(std::move(object));
}

template <typename T>
std::shared_ptr<T> receive(gpointer data) {
  std::lock_guard<std::mutex> lock(gPublish);
  return *static_cast<std::shared_ptr<T>*>(data);
}

template <typename T>
void release(gpointer data) {
  std::lock_guard<std::mutex> lock(gPublish);
  delete static_cast<std::shared_ptr<T>*>(data);
}

// Owns one GSource. Destroying the source from any thread is safe in GLib;
// the callback holds its own reference to the state while it runs, so
// invalidating from inside the callback is safe too.
class SourceState {
 public:
  explicit SourceState(GSource* source) : source_(source) {}
  ~SourceState() { destroy(); }
  void destroy() {
    std::lock_guard<std::mutex> lock(mutex_);
    valid_ = false;
    if (source_) {
      g_source_destroy(source_);
      g_source_unref(source_);
      source_ = nullptr;
    }
  }
  bool isValid() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return valid_;
  }

 private:
  mutable std::mutex mutex_;
  GSource* source_;
  bool valid_ = true;
};

class GLibTimer : public MVTimer {
 public:
  GLibTimer(std::function<void()> fire, bool repeats) : fire_(std::move(fire)), repeats_(repeats) {}
  void start(std::shared_ptr<GLibTimer> self, double seconds) {
    std::lock_guard<std::mutex> published(publish_);
    guint ms = static_cast<guint>(std::clamp(seconds, 0.0, 4.0e6) * 1000.0 + 0.5);
    GSource* source = g_timeout_source_new(ms);
    g_source_set_callback(source, &GLibTimer::dispatch, publish(std::move(self)), &release<GLibTimer>);
    state_ = std::make_unique<SourceState>(source);
    g_source_attach(source, mainContext());
  }
  void invalidate() override {
    if (state_) state_->destroy();
  }
  bool isValid() const override { return state_ && state_->isValid(); }

 private:
  static gboolean dispatch(gpointer data) {
    std::shared_ptr<GLibTimer> self = receive<GLibTimer>(data);
    // The timer may have been armed on another thread; GLib's own hand-off is
    // invisible to race detectors, this lock makes the publication explicit.
    { std::lock_guard<std::mutex> published(self->publish_); }
    if (!self->isValid()) return G_SOURCE_REMOVE;
    if (!self->repeats_) self->state_->destroy();
    self->fire_();
    return self->repeats_ && self->isValid() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
  }

  std::function<void()> fire_;
  bool repeats_;
  std::mutex publish_;
  std::unique_ptr<SourceState> state_;
};

class GLibIOSource : public MVIOSource {
 public:
  explicit GLibIOSource(std::function<bool(unsigned)> ready) : ready_(std::move(ready)) {}
  void start(std::shared_ptr<GLibIOSource> self, int fd, unsigned conditions) {
    std::lock_guard<std::mutex> published(publish_);
    int gcond = 0;
    if (conditions & MVRunLoop::kReadable) gcond |= G_IO_IN | G_IO_PRI;
    if (conditions & MVRunLoop::kWritable) gcond |= G_IO_OUT;
    gcond |= G_IO_HUP | G_IO_ERR | G_IO_NVAL;
    GSource* source = g_unix_fd_source_new(fd, static_cast<GIOCondition>(gcond));
    g_source_set_callback(source, reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(&GLibIOSource::dispatch)),
                          publish(std::move(self)), &release<GLibIOSource>);
    state_ = std::make_unique<SourceState>(source);
    g_source_attach(source, mainContext());
  }
  void invalidate() override {
    if (state_) state_->destroy();
  }

 private:
  static gboolean dispatch(gint, GIOCondition condition, gpointer data) {
    std::shared_ptr<GLibIOSource> self = receive<GLibIOSource>(data);
    { std::lock_guard<std::mutex> published(self->publish_); }
    if (!self->state_->isValid()) return G_SOURCE_REMOVE;
    unsigned bits = 0;
    if (condition & (G_IO_IN | G_IO_PRI)) bits |= MVRunLoop::kReadable;
    if (condition & G_IO_OUT) bits |= MVRunLoop::kWritable;
    if (condition & G_IO_HUP) bits |= MVRunLoop::kHangup;
    if (condition & (G_IO_ERR | G_IO_NVAL)) bits |= MVRunLoop::kError;
    bool keep = self->ready_(bits);
    if (!keep) self->state_->destroy();
    return keep && self->state_->isValid() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
  }

  std::function<bool(unsigned)> ready_;
  std::mutex publish_;
  std::unique_ptr<SourceState> state_;
};

class GLibRunLoop : public MVRunLoop {
 public:
  GLibRunLoop() : mainThread_(std::this_thread::get_id()), loop_(g_main_loop_new(mainContext(), FALSE)) {}
  ~GLibRunLoop() override { g_main_loop_unref(loop_); }

  bool isMainThread() const override { return std::this_thread::get_id() == mainThread_; }

  void performOnMainThread(std::function<void()> work, bool waitUntilDone) override {
    if (waitUntilDone && isMainThread()) {
      work();
      return;
    }
    struct Call {
      std::function<void()> work;
      std::mutex mutex;
      std::condition_variable done;
      bool finished = false;
    };
    auto call = std::make_shared<Call>();
    {
      std::lock_guard<std::mutex> lock(call->mutex);
      call->work = std::move(work);
    }
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(
        source,
        [](gpointer p) -> gboolean {
          auto c = receive<Call>(p);
          std::function<void()> work;
          {
            std::lock_guard<std::mutex> lock(c->mutex);
            work = std::move(c->work);
          }
          work();
          {
            std::lock_guard<std::mutex> lock(c->mutex);
            c->finished = true;
          }
          c->done.notify_all();
          return G_SOURCE_REMOVE;
        },
        publish(call), &release<Call>);
    g_source_attach(source, mainContext());
    g_source_unref(source);
    if (waitUntilDone) {
      std::unique_lock<std::mutex> lock(call->mutex);
      call->done.wait(lock, [&] { return call->finished; });
    }
  }

  std::shared_ptr<MVTimer> scheduleTimer(double seconds, bool repeats, std::function<void()> fire) override {
    auto timer = std::make_shared<GLibTimer>(std::move(fire), repeats);
    timer->start(timer, seconds);
    return timer;
  }

  std::shared_ptr<MVIOSource> addIOSource(int fd, unsigned conditions, std::function<bool(unsigned)> ready) override {
    auto source = std::make_shared<GLibIOSource>(std::move(ready));
    source->start(source, fd, conditions);
    return source;
  }

  void onSignal(int signo, std::function<void()> handler) override {
    std::lock_guard<std::mutex> lock(signalMutex_);
    auto it = signalSources_.find(signo);
    if (it != signalSources_.end()) g_source_remove(it->second);
    auto* copy = new std::function<void()>(std::move(handler));
    guint id = g_unix_signal_add_full(
        G_PRIORITY_HIGH, signo,
        [](gpointer p) -> gboolean {
          (*static_cast<std::function<void()>*>(p))();
          return G_SOURCE_CONTINUE;
        },
        copy, [](gpointer p) { delete static_cast<std::function<void()>*>(p); });
    signalSources_[signo] = id;
  }

  void runFor(double seconds, const std::function<bool()>& until) override {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    do {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      guint slice = static_cast<guint>(std::clamp<long long>(left.count(), 0, 10));
      // A short timeout source bounds the blocking iteration to one slice.
      GSource* wake = g_timeout_source_new(slice);
      g_source_set_callback(wake, [](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, nullptr, nullptr);
      g_source_attach(wake, mainContext());
      g_main_context_iteration(mainContext(), TRUE);
      g_source_destroy(wake);
      g_source_unref(wake);
      if (until && until()) return;
    } while (std::chrono::steady_clock::now() < deadline);
  }

  void run() override { g_main_loop_run(loop_); }
  void stop() override { g_main_loop_quit(loop_); }

 private:
  std::thread::id mainThread_;
  GMainLoop* loop_;
  std::mutex signalMutex_;
  std::map<int, guint> signalSources_;
};

}  // namespace

namespace quillon {
std::shared_ptr<MVRunLoop> createPlatformRunLoop() { return std::make_shared<GLibRunLoop>(); }
}  // namespace quillon
