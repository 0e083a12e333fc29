// MVException: caught exceptions, written into the log.
//
// Failures are not thrown across public operations; where code catches an
// exception it hands it here, which writes "Exception in <operation>.
// <name> - <reason>." to the log and standard output.
#pragma once

#include <exception>
#include <string>

class MVException {
 public:
  // "Exception in %s. %@ - %@." (operation, exception name, reason) written
  // with MVLog::appendLogAndPrint and returned. The name of a std::exception
  // is its demangled type ("std::runtime_error").
  static std::string logException(const std::exception& exception, const char* method);
  static std::string logException(const std::string& name, const std::string& reason, const char* method);
  static bool didTimeout(const std::string& exceptionName) {
    return exceptionName == "NSPortTimeoutException";
  }

  // The readable type name of an exception object.
  static std::string nameOf(const std::exception& exception);
};
