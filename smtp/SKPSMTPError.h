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

inline constexpr const char* kSKPSMTPMessageErrorDomain = "SKPSMTPMessageError";

enum SKPSMTPErrorCode : long {
  kSKPSMTPErrorUnsupportedLogin = -2,
  kSKPSMTPErrorConnectionFailed = -3,
  kSKPSMTPErrorConnectionInterrupted = -4,
  kSKPSMTPErrorTimeout = -5,
  // A secure connection was asked for and the server offered no STARTTLS:
  // nothing was authenticated or sent.
  kSKPSMTPErrorNoEncryption = -6,
  kSKPSMTPErrorInvalidUserPass = 535,
  kSKPSMTPErrorNoRelay = 530,
  kSKPSMTPErrorInvalidMessage = 550,
};
