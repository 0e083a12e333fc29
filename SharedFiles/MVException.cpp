#include "MVException.h"

#include <cxxabi.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <typeinfo>

#include "MVLog.h"

std::string MVException::nameOf(const std::exception& exception) {
  const char* mangled = typeid(exception).name();
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(mangled);
}

std::string MVException::logException(const std::exception& exception, const char* method) {
  return logException(nameOf(exception), exception.what(), method);
}

std::string MVException::logException(const std::string& name, const std::string& reason,
                                      const char* method) {
  std::string message = MVFormatString("Exception in %s. %@ - %@.", method, name, reason);
  // The message is the format text, as every caught exception has always
  // been logged; escaping keeps a stray percent sign in the reason harmless.
  MVLog::appendLogAndPrint(message);
  return message;
}

void uncaughtExceptionHandler(const std::string& reason) {
  MVLog::appendLogAndPrint(reason);
  MVLog::finishWriting();
}

namespace {

std::atomic<std::terminate_handler> gPreviousTerminate{nullptr};

[[noreturn]] void terminateHandler() {
  // A second failure while logging the first must not loop.
  static std::atomic<bool> entered{false};
  if (!entered.exchange(true)) {
    if (std::exception_ptr escaping = std::current_exception()) {
      try {
        std::rethrow_exception(escaping);
      } catch (const std::exception& exception) {
        uncaughtExceptionHandler(exception.what());
      } catch (...) {
        uncaughtExceptionHandler("Uncaught exception of unknown type");
      }
    }
  }
  // The previous handler (the runtime's own) still reports the exception type
  // on standard error before it aborts.
  if (std::terminate_handler previous = gPreviousTerminate.load()) previous();
  std::abort();
}

}  // namespace

void MVLog::installUncaughtExceptionHandler() {
  std::terminate_handler previous = std::set_terminate(terminateHandler);
  if (previous != terminateHandler) gPreviousTerminate.store(previous);
}
