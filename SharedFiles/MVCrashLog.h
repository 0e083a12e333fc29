// MVCrashLog: writes a crash log when the process dies of a fatal signal.
//
// The handler runs inside a crashed process, so it uses async-signal-safe
// calls only: everything it needs (folder, names, executable) is prepared
// when it is installed. It writes "<name>_<YYYY-MM-DD-HHMMSS>_<host>.crash"
// into the user's logs folder + "DiagnosticReports" (signal, time,
// executable, a backtrace), then lets the process die of the same signal so
// that the service manager and core dumps still see the crash.
#pragma once

#include <string>

class MVCrashLog {
 public:
  // Installs the handler for SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT.
  static void install(const std::string& applicationName);
  // The folder crash logs are written to.
  static std::string crashLogDirectory();
};
