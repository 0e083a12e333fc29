// MVCrashLog: writes a crash log when the process dies of a fatal signal.
//
// The handler runs inside a crashed process, so it uses async-signal-safe
// calls only: everything it needs (folder, names, executable) is prepared
// when it is installed. It writes "<name>_<YYYY-MM-DD-HHMMSS>_<host>.crash"
// into the user's logs folder + "DiagnosticReports" (signal, time,
// executable, a backtrace), then lets the process die of the same signal so
// that the service manager and core dumps still see the crash. A report never
// replaces another: a second crash in the same second gets "_2" (then "_3"...)
// after the host name. While one thread writes its report, another that
// crashes waits for the end of the process instead of cutting it short.
//
// The handler runs on an alternate signal stack, so that a stack overflow
// still writes its report. Every thread the agent starts must call
// prepareThread() first (MVRunLoop::detachThread does it).
#pragma once

#include <string>

class MVCrashLog {
 public:
  // Installs the handler for SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS
  // and SIGTRAP, and the calling thread's alternate stack.
  static void install(const std::string& applicationName);
  // Gives the calling thread an alternate signal stack of its own, freed
  // when the thread ends. Does nothing before install() or when the thread
  // has one already. Cheap enough for short-lived threads.
  static void prepareThread();
  // The folder crash logs are written to.
  static std::string crashLogDirectory();
};
