// Temporary minimal log; replaced by the full writer.
#include "MVLog.h"

#include <cstdio>

struct MVLog::State {};
MVLog::MVLog() : state_(nullptr) {}
MVLog::~MVLog() = default;
MVLog& MVLog::sharedController() { static MVLog* log = new MVLog(); return *log; }
void MVLog::createNewLog() {}
void MVLog::createNewLog(const std::string&, bool) {}
void MVLog::appendLogv(std::string_view f, std::span<const MVFormatArg> a) { std::fprintf(stderr, "%s\n", MVFormat(f, a).c_str()); }
void MVLog::appendLogAndPrintv(std::string_view f, std::span<const MVFormatArg> a) { appendLogv(f, a); }
void MVLog::appendLogAndDebugPrintv(std::string_view f, std::span<const MVFormatArg> a) { appendLogv(f, a); }
void MVLog::fastAppendLogv(std::string_view f, std::span<const MVFormatArg> a) { appendLogv(f, a); }
void MVLog::finishWriting() {}
std::vector<std::string> MVLog::availableLogs() { return {}; }
std::string MVLog::escapeTextForLogging(const std::string& t) { return t; }
void MVLog::appendTextToLog(const std::string&) {}
void MVLog::appendLogOnThread(const std::string&) {}
void MVLog::willTerminate() {}
std::string MVLog::appName() const { return {}; }
void MVLog::setAppName(const std::string&) {}
void MVLog::installUncaughtExceptionHandler() {}
std::string MVException::logException(const std::exception& e, const char* m) { return logException("std::exception", e.what(), m); }
std::string MVException::logException(const std::string& n, const std::string& r, const char* m) {
  std::string s = MVFormatString("Exception in %s. %@ - %@.", m, n, r);
  MVLog::appendLogAndPrint("%@", s);
  return s;
}
void uncaughtExceptionHandler(const std::string& reason) { MVLog::appendLogAndPrint("%@", reason); }
