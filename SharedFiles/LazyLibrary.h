// Shared libraries that the agent maps only when it first needs them.
//
// The agent runs all session long, and every library mapped at start costs it
// resident pages, whether or not it is ever called. Several libraries serve
// things that happen rarely or never: an alert dialog, a sound, a password, the
// frontmost application. Their files compile against the library's headers but
// do not link it; at first use they open it and call through pointers resolved
// from it.
//
// A file lists the functions it calls once, as an X-macro list, declares the
// pointers with QUILLON_LAZY_FUNCTIONS and keeps one LazyLibrary:
//
//   #define QUILLON_FOO_FUNCTIONS(X) X(foo_open) X(foo_close)
//   QUILLON_LAZY_FUNCTIONS(FooFunctions, QUILLON_FOO_FUNCTIONS);
//   constinit LazyLibrary<FooFunctions> gFoo("libfoo.so.1", &reportFooMissing);
//   #define foo_open QUILLON_LAZY_CALL(gFoo, foo_open)
//
// The last kind of line lets the code below it, and the library's own macros
// that expand to its functions, keep the library's names. Only code that runs
// after load() succeeded may reach them.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <mutex>
#include <string>

namespace quillon {

// Looks up the functions of one opened library and remembers the first that
// is missing, for the line that says why the library cannot be used.
class LazySymbols {
 public:
  explicit LazySymbols(void* handle) : handle_(handle) {}

  template <typename Function>
  bool resolve(Function& pointer, const char* name) {
    pointer = reinterpret_cast<Function>(dlsym(handle_, name));
    if (!pointer) missing_ = name;
    return pointer != nullptr;
  }

  const char* missing() const { return missing_; }

 private:
  void* handle_;
  const char* missing_ = "";
};

// A library opened at the first load(), from whichever thread asks first.
// `Functions` is a struct declared with QUILLON_LAZY_FUNCTIONS.
template <typename Functions>
class LazyLibrary {
 public:
  // Told once per process why the library cannot be used: the loader's own
  // message, or the function it lacks.
  using Report = void (*)(const std::string& reason);

  constexpr LazyLibrary(const char* soname, Report report) : soname_(soname), report_(report) {}
  LazyLibrary(const LazyLibrary&) = delete;
  LazyLibrary& operator=(const LazyLibrary&) = delete;

  // The functions, loading the library if no one did yet; null when it is
  // missing or lacks one of them.
  const Functions* load() {
    std::call_once(once_, [this] { open(); });
    return loaded();
  }

  // The functions when an earlier load() succeeded; never loads. For code
  // that has nothing to do unless the library is already in use.
  const Functions* loaded() const { return loaded_.load(std::memory_order_acquire); }

 private:
  void open() {
    // Never closed, not even when a function is missing: the libraries start
    // threads and register types and exit handlers that would be left
    // pointing into unmapped code.
    void* handle = dlopen(soname_, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
      const char* reason = dlerror();
      report_(reason ? reason : std::string(soname_) + " cannot be opened");
      return;
    }
    LazySymbols symbols(handle);
    if (!functions_.resolveFrom(symbols)) {
      report_(std::string(soname_) + " lacks " + symbols.missing());
      return;
    }
    loaded_.store(&functions_, std::memory_order_release);
  }

  const char* soname_;
  Report report_;
  std::once_flag once_;
  Functions functions_;
  std::atomic<const Functions*> loaded_{nullptr};
};

}  // namespace quillon

// One pointer per function of LIST, typed from the library's own declaration,
// so a call through it is checked as a direct call would be.
#define QUILLON_LAZY_POINTER(name) decltype(&::name) name = nullptr;
#define QUILLON_LAZY_RESOLVE(name) &&symbols.resolve(name, #name)
#define QUILLON_LAZY_FUNCTIONS(Struct, LIST)                                                        \
  struct Struct {                                                                                   \
    LIST(QUILLON_LAZY_POINTER)                                                                      \
    bool resolveFrom(::quillon::LazySymbols& symbols) { return true LIST(QUILLON_LAZY_RESOLVE); } \
  }

// A function of a loaded library, for "#define name QUILLON_LAZY_CALL(library, name)".
#define QUILLON_LAZY_CALL(library, name) ((library).loaded()->name)
