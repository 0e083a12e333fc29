// The error object the SMTP client hands to its delegate: a domain, a code,
// and the two user-facing texts. Session failures use the domain
// "SKPSMTPMessageError"; a failed write reports the stream's own error
// ("NSPOSIXErrorDomain" with errno, or "OpenSSLErrorDomain" for TLS).
#pragma once

#include <string>

struct SKPSMTPError {
  std::string domain;
  long code = 0;
  std::string localizedDescription;
  std::string localizedRecoverySuggestion;
};
