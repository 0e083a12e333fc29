#include "MVCrashLog.h"

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "MVLocalPaths.h"
#include "MVProcessInfo.h"

namespace {

// Prepared at install time; the handler only reads them.
char gFolder[1024];
char gName[256];
char gHost[256];
char gExecutable[1024];
char gAltStack[64 * 1024];

void append(char* buf, std::size_t size, const char* text) {
  std::size_t len = std::strlen(buf);
  std::size_t i = 0;
  while (text[i] && len + 1 < size) buf[len++] = text[i++];
  buf[len] = '\0';
}

void appendNumber(char* buf, std::size_t size, long long value, int width) {
  char digits[32];
  int n = 0;
  bool negative = value < 0;
  unsigned long long v = negative ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v && n < 30);
  while (n < width && n < 30) digits[n++] = '0';
  char out[34];
  int k = 0;
  if (negative) out[k++] = '-';
  while (n) out[k++] = digits[--n];
  out[k] = '\0';
  append(buf, size, out);
}

// Civil date from days since 1970 (no locale, no locks: safe in a handler).
void civilFromDays(long long z, int& y, unsigned& m, unsigned& d) {
  z += 719468;
  long long era = (z >= 0 ? z : z - 146096) / 146097;
  unsigned doe = static_cast<unsigned>(z - era * 146097);
  unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  long long yy = static_cast<long long>(yoe) + era * 400;
  unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = static_cast<int>(yy + (m <= 2));
}

void appendTimestamp(char* buf, std::size_t size, time_t now, bool forFileName) {
  long long days = now / 86400, secs = now % 86400;
  if (secs < 0) {
    secs += 86400;
    --days;
  }
  int y;
  unsigned m, d;
  civilFromDays(days, y, m, d);
  appendNumber(buf, size, y, 4);
  append(buf, size, "-");
  appendNumber(buf, size, m, 2);
  append(buf, size, "-");
  appendNumber(buf, size, d, 2);
  append(buf, size, forFileName ? "-" : " ");
  appendNumber(buf, size, secs / 3600, 2);
  if (!forFileName) append(buf, size, ":");
  appendNumber(buf, size, (secs / 60) % 60, 2);
  if (!forFileName) append(buf, size, ":");
  appendNumber(buf, size, secs % 60, 2);
  if (!forFileName) append(buf, size, " +0000");
}

void writeAll(int fd, const char* text) {
  std::size_t len = std::strlen(text);
  while (len > 0) {
    ssize_t n = write(fd, text, len);
    if (n <= 0) return;
    text += n;
    len -= static_cast<std::size_t>(n);
  }
}

void crashHandler(int signo) {
  time_t now = time(nullptr);
  char path[2048] = "";
  append(path, sizeof path, gFolder);
  append(path, sizeof path, "/");
  append(path, sizeof path, gName);
  append(path, sizeof path, "_");
  appendTimestamp(path, sizeof path, now, true);
  append(path, sizeof path, "_");
  append(path, sizeof path, gHost);
  append(path, sizeof path, ".crash");

  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd >= 0) {
    char header[4096] = "Process: ";
    append(header, sizeof header, gName);
    append(header, sizeof header, " [");
    appendNumber(header, sizeof header, getpid(), 1);
    append(header, sizeof header, "]\nPath: ");
    append(header, sizeof header, gExecutable);
    append(header, sizeof header, "\nDate/Time: ");
    appendTimestamp(header, sizeof header, now, false);
    append(header, sizeof header, "\nException Type: signal ");
    appendNumber(header, sizeof header, signo, 1);
    append(header, sizeof header, " (");
    append(header, sizeof header, signo == SIGSEGV ? "SIGSEGV" : signo == SIGBUS ? "SIGBUS" : signo == SIGILL ? "SIGILL"
                                  : signo == SIGFPE ? "SIGFPE" : signo == SIGABRT ? "SIGABRT" : "?");
    append(header, sizeof header, ")\n\nBacktrace:\n");
    writeAll(fd, header);
    void* frames[64];
    int count = backtrace(frames, 64);
    backtrace_symbols_fd(frames, count, fd);
    close(fd);
  }
  // Die of the same signal, with the default action restored.
  signal(signo, SIG_DFL);
  raise(signo);
}

}  // namespace

std::string MVCrashLog::crashLogDirectory() {
  return MVAppendPathComponent(MVLocalPaths::logDirectory(true), "DiagnosticReports");
}

void MVCrashLog::install(const std::string& applicationName) {
  std::string folder = crashLogDirectory();
  // Create the folder now: the handler must not have to.
  for (std::size_t i = 1; i <= folder.size(); ++i)
    if (i == folder.size() || folder[i] == '/') mkdir(folder.substr(0, i).c_str(), 0700);
  std::strncpy(gFolder, folder.c_str(), sizeof gFolder - 1);
  std::strncpy(gName, applicationName.c_str(), sizeof gName - 1);
  std::strncpy(gHost, MVProcessInfo::hostName().c_str(), sizeof gHost - 1);
  std::strncpy(gExecutable, MVProcessInfo::executablePath().c_str(), sizeof gExecutable - 1);

  // backtrace() loads its unwinder on first use; do that here, not in the handler.
  void* warm[1];
  backtrace(warm, 1);

  // A stack overflow leaves no stack for the handler: give it its own.
  stack_t stack{};
  stack.ss_sp = gAltStack;
  stack.ss_size = sizeof gAltStack;
  sigaltstack(&stack, nullptr);

  struct sigaction action {};
  action.sa_handler = crashHandler;
  action.sa_flags = SA_ONSTACK | SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  for (int signo : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) sigaction(signo, &action, nullptr);
}
