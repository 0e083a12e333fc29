#include "SKPSMTPMessage.h"

#include <cctype>
#include <chrono>
#include <cstdio>

#include "Base64.h"
#include "MVFormat.h"
#include "MVLog.h"
#include "MVRunLoop.h"

namespace {

bool hasPrefix(const std::string& line, const char* prefix) { return line.rfind(prefix, 0) == 0; }
bool contains(const std::string& line, const char* text) { return line.find(text) != std::string::npos; }

// An EHLO reply line ("250-" or "250 ") naming `keyword` as its capability,
// in any letter case; arguments may follow after a blank.
bool offersCapability(const std::string& line, std::string_view keyword) {
  if (line.size() < 4 + keyword.size() || line.compare(0, 3, "250") != 0 || (line[3] != '-' && line[3] != ' '))
    return false;
  for (std::size_t i = 0; i < keyword.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(line[4 + i])) != keyword[i]) return false;
  std::size_t end = 4 + keyword.size();
  return end == line.size() || line[end] == ' ' || line[end] == '\t';
}

// __builtin_LINE rather than std::source_location: clang 14 with this C++
// library cannot build the latter.
void assertThat(bool condition, const char* reason, unsigned line = __builtin_LINE()) {
  if (!condition) throw SKPSMTPAssertion(reason, line);
}

// The user-facing texts are the English originals; a localised build would
// look them up with these as keys.
std::string localized(const char* text) { return text; }

// Line breaks as the platform's newline set has them: LF, VT, FF, CR, NEL,
// LINE SEPARATOR, PARAGRAPH SEPARATOR. Returns the length of the break at
// `pos`, 0 when there is none.
std::size_t newlineAt(const std::string& text, std::size_t pos) {
  unsigned char c = static_cast<unsigned char>(text[pos]);
  if (c >= 0x0A && c <= 0x0D) return 1;
  if (c == 0xC2 && pos + 1 < text.size() && static_cast<unsigned char>(text[pos + 1]) == 0x85) return 2;
  if (c == 0xE2 && pos + 2 < text.size() && static_cast<unsigned char>(text[pos + 1]) == 0x80 &&
      (static_cast<unsigned char>(text[pos + 2]) == 0xA8 || static_cast<unsigned char>(text[pos + 2]) == 0xA9))
    return 3;
  return 0;
}

std::size_t blankAt(const std::string& text, std::size_t pos) {
  if (text[pos] == ' ' || text[pos] == '\t') return 1;
  if (static_cast<unsigned char>(text[pos]) == 0xC2 && pos + 1 < text.size() &&
      static_cast<unsigned char>(text[pos + 1]) == 0xA0)
    return 2;
  return newlineAt(text, pos);
}

}  // namespace

SKPSMTPError SKPSMTPMessageError(long code, int context) {
  const char* description = "";
  const char* suggestion = "Try sending your message again later.";
  switch (code) {
    case kSKPSMTPErrorUnsupportedLogin:
      description = "Unsupported login mechanism.";
      suggestion =
          "Your server's security setup is not supported, please contact your system administrator or use a "
          "supported email account like MobileMe.";
      break;
    case kSKPSMTPErrorConnectionFailed: description = "Unable to connect to the server."; break;
    case kSKPSMTPErrorConnectionInterrupted: description = "The connection to the server was interrupted."; break;
    case kSKPSMTPErrorTimeout: description = "Timeout sending message."; break;
    case kSKPSMTPErrorNoEncryption:
      description = "The server offered no encryption.";
      suggestion =
          "Neither your password nor the message was sent. Ask your mail provider for a server that supports "
          "TLS, or turn off \"Use TLS\" in Email Preferences to send without encryption.";
      break;
    case kSKPSMTPErrorInvalidUserPass:
      description = "Invalid username or password.";
      suggestion = "Go to Email Preferences in the application and re-enter your username and password.";
      break;
    case kSKPSMTPErrorNoRelay:
      description = "Relay rejected.";
      suggestion = "Your server probably requires a username and password.";
      break;
    case kSKPSMTPErrorInvalidMessage:
      if (context == kSKPSMTPAwaitingDeliveryReply) {
        description = "Failed to logout.";
      } else {
        description = "To address rejected.";
        suggestion = "Please re-enter the To: address.";
      }
      break;
    default: break;
  }
  return {kSKPSMTPMessageErrorDomain, code, localized(description), localized(suggestion)};
}

std::string SKPSMTPWithoutControls(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) c = ' ';
  }
  return out;
}

const std::vector<int>& SKPSMTPMessage::defaultRelayPorts() {
  static const std::vector<int> ports{25, 465, 587};
  return ports;
}

SKPSMTPMessage::SKPSMTPMessage(Token) : relayPorts_(defaultRelayPorts()) {}

std::shared_ptr<SKPSMTPMessage> SKPSMTPMessage::create() { return std::make_shared<SKPSMTPMessage>(Token{}); }

std::shared_ptr<SKPSMTPMessage> SKPSMTPMessage::copy() const {
  auto copy = create();
  copy->delegate_ = delegate_;
  copy->fromEmail_ = fromEmail_;
  copy->login_ = login_;
  copy->parts_ = parts_;
  copy->pass_ = pass_;
  copy->hasPass_ = hasPass_;
  copy->relayHost_ = relayHost_;
  copy->requiresAuth_ = requiresAuth_;
  copy->subject_ = subject_;
  copy->toEmail_ = toEmail_;
  copy->wantsSecure_ = wantsSecure_;
  copy->validateSSLChain_ = validateSSLChain_;
  copy->ccEmail_ = ccEmail_;
  copy->bccEmail_ = bccEmail_;
  return copy;
}

SKPSMTPMessage::~SKPSMTPMessage() {
  cleanUpStreams();
  if (connectTimer_) connectTimer_->invalidate();
  stopWatchdog();
}

void SKPSMTPMessage::setTimeoutsForTesting(double shortWatchdogSeconds, double longWatchdogSeconds) {
  shortWatchdogSeconds_ = shortWatchdogSeconds;
  longWatchdogSeconds_ = longWatchdogSeconds;
}

bool SKPSMTPMessage::send() {
  assertThat(sendState_.load() == kSKPSMTPIdle, "Message has already been sent!");
  if (requiresAuth_) {
    assertThat(!login_.empty(), "auth requires login");
    assertThat(hasPass_, "auth requires pass");
  }
  assertThat(!relayHost_.empty(), "send requires relayHost");
  assertThat(!subject_.empty(), "send requires subject");
  assertThat(!fromEmail_.empty(), "send requires fromEmail");
  assertThat(!toEmail_.empty(), "send requires toEmail");
  assertThat(!parts_.empty(), "send requires parts");

  MVRunLoop& loop = MVRunLoop::main();
  if (loop.isMainThread()) {
    reported_ = false;
    return startSending();
  }
  bool started = false;
  auto self = shared_from_this();
  loop.performOnMainThread(
      [&started, self] {
        self->reported_ = false;
        started = self->startSending();
      },
      true);
  return started;
}

bool SKPSMTPMessage::startSending() {
  if (relayPorts_.empty()) {
    reportFailure(SKPSMTPMessageError(kSKPSMTPErrorConnectionFailed));
    return false;
  }
  // The signed 16-bit reading is deliberate: it is what the Mac build passes on.
  int port = static_cast<std::int16_t>(relayPorts_.front());
  relayPorts_.erase(relayPorts_.begin());

  std::weak_ptr<SKPSMTPMessage> weak = weak_from_this();
  connectTimer_ = MVRunLoop::main().scheduleTimer(connectTimeout_, false, [weak] {
    if (auto self = weak.lock()) self->connectionConnectedCheck();
  });

  std::shared_ptr<SKPSMTPStream> input, output;
  if (!getStreamsToHostNamed(relayHost_, port, &input, &output) || !input || !output) {
    connectTimer_->invalidate();
    connectTimer_.reset();
    reportFailure(SKPSMTPMessageError(kSKPSMTPErrorConnectionFailed));
    return false;
  }

  sendState_ = kSKPSMTPConnecting;
  isSecure_ = false;
  serverStartTLS_ = false;
  discardPlainText_ = false;
  inputStream_ = std::move(input);
  outputStream_ = std::move(output);
  auto handler = [weak](SKPSMTPStream& stream, SKPSMTPStreamEvent event) {
    if (auto self = weak.lock()) self->handleEvent(stream, event);
  };
  inputStream_->setDelegate(handler);
  outputStream_->setDelegate(handler);
  if (port == kSKPSMTPImplicitTLSPort) {
    // The handshake starts as soon as the connection is up; the greeting
    // already comes over TLS, checked like a STARTTLS upgrade.
    SKPSMTPTLSSettings settings = tlsSettings();
    inputStream_->setSSLSettings(settings);
    outputStream_->setSSLSettings(settings);
    isSecure_ = true;
  }
  inputStream_->open();
  outputStream_->open();
  inputString_.clear();
  return true;
}

void SKPSMTPMessage::connectionConnectedCheck() {
  connectTimer_.reset();
  if (sendState_ != kSKPSMTPConnecting || reported_) return;
  // No greeting on this port: drop the connection and try the next port.
  cleanUpStreams();
  stopWatchdog();
  sendState_ = kSKPSMTPIdle;
  startSending();
}

void SKPSMTPMessage::handleEvent(SKPSMTPStream& stream, SKPSMTPStreamEvent event) {
  switch (event) {
    case SKPSMTPStreamEvent::HasBytesAvailable: {
      std::uint8_t buffer[1024] = {};
      long n = stream.read(buffer, sizeof buffer);
      if (n > 0) {
        inputString_.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(n));
        parseBuffer();
      }
      break;
    }
    case SKPSMTPStreamEvent::EndEncountered:
      stopWatchdog();
      stream.close();
      if (&stream == inputStream_.get()) inputStream_.reset();
      if (&stream == outputStream_.get()) outputStream_.reset();
      if (sendState_ != kSKPSMTPSent) {
        cleanUpStreams();
        reportFailure(SKPSMTPMessageError(kSKPSMTPErrorConnectionInterrupted));
      }
      break;
    case SKPSMTPStreamEvent::ErrorOccurred:
      // A certificate refused before the greeting (implicit TLS) ends the
      // send with its reason: the next port would meet the same certificate.
      if (sendState_ == kSKPSMTPConnecting && isSecure_ && isCertificateRejection(stream.streamError())) {
        SKPSMTPError error = stream.streamError();
        cleanUpStreams();
        reportFailure(error);
      }
      break;
    default:
      // Other connection errors are left to the connect timer (next port)
      // and the watchdog (timeout), as on the Mac.
      break;
  }
}

void SKPSMTPMessage::receiveBytesForTesting(std::string_view bytes) {
  if (reported_ || outputStream_ || bytes.empty()) return;
  int idle = kSKPSMTPIdle;
  if (sendState_.compare_exchange_strong(idle, kSKPSMTPConnecting)) {
    // As if connected to the first port: 465 has finished its handshake.
    isSecure_ = !relayPorts_.empty() && static_cast<std::int16_t>(relayPorts_.front()) == kSKPSMTPImplicitTLSPort;
  }
  inputString_.append(bytes);
  parseBuffer();
}

void SKPSMTPMessage::parseBuffer() {
  auto self = shared_from_this();  // the delegate may drop its reference
  // Only the main thread touches the buffer, so the copy needs no lock here.
  const std::string text = inputString_;
  pendingFailure_ = false;
  reachedSent_ = false;

  std::size_t pos = 0;
  while (true) {
    std::size_t skip;
    while (pos < text.size() && (skip = blankAt(text, pos)) > 0) pos += skip;
    if (pos >= text.size()) break;
    std::size_t end = pos;
    while (end < text.size() && newlineAt(text, end) == 0) ++end;
    handleLine(text.substr(pos, end - pos));
    pos = end;
    if (reported_ || discardPlainText_) break;
  }
  if (discardPlainText_) {
    // Whatever followed "220" in plain text is not the server's word: only
    // what arrives over TLS (already in inputString_, if anything) counts.
    discardPlainText_ = false;
  } else {
    inputString_ = pos < text.size() ? text.substr(pos) : std::string();
  }

  if (reachedSent_) {
    cleanUpStreams();
    reportSent();
  } else if (pendingFailure_) {
    cleanUpStreams();
    reportFailure(pendingError_);
  } else if (!watchdogTimer_ && !reported_ && outputStream_ && sendState_ >= kSKPSMTPAwaitingEhloReply) {
    // Lines that matched nothing (half a reply, noise) must neither leave the
    // session without a watchdog nor extend its deadline: a server that
    // trickles noise times out like a silent one.
    double left = shortWatchdogSeconds_;
    if (watchdogDeadline_) {
      left = std::chrono::duration<double>(*watchdogDeadline_ - std::chrono::steady_clock::now()).count();
      if (left < 0) left = 0;
    }
    startWatchdog(left);
  }
}

void SKPSMTPMessage::recordFailure(const SKPSMTPError& error) {
  pendingFailure_ = true;
  pendingError_ = error;
}

void SKPSMTPMessage::sendCommand(const std::string& command) {
  if (!outputStream_) return;
  if (CFWriteStreamWriteFully(*outputStream_, command) < 0)
    recordFailure(outputStream_->streamError());
  else
    startShortWatchdog();
}

void SKPSMTPMessage::handleLine(const std::string& line) {
  // AUTH LOGIN's prompts, "Username:" and "Password:" in Base64, matched as
  // they stand; each is answered with the Base64 of what it asks for.
  static constexpr const char* kUsernamePrompt = "334 VXNlcm5hbWU6";
  static constexpr const char* kPasswordPrompt = "334 UGFzc3dvcmQ6";
  auto answerPrompt = [this](int next, const std::string& value) {
    sendState_ = next;
    sendCommand(MVFormatString("%@\r\n", Base64Additions::encodeBase64ForData(value)));
  };
  stopWatchdog();
  const int state = sendState_;
  // Each branch moves to the next state before writing, so nothing the main
  // loop runs while a write waits can see the old state.
  switch (state) {
    case kSKPSMTPConnecting:
      if (hasPrefix(line, "220 ")) {
        sendState_ = kSKPSMTPAwaitingEhloReply;
        serverAuthCRAMMD5_ = serverAuthPLAIN_ = serverAuthLOGIN_ = serverAuthDIGESTMD5_ = false;
        serverStartTLS_ = false;
        sendCommand(MVFormatString("EHLO %@\r\n", "localhost"));
      }
      break;

    case kSKPSMTPAwaitingEhloReply:
      handleEhloLine(line);
      break;

    case kSKPSMTPAwaitingTlsReady:
      if (hasPrefix(line, "220 ")) {
        // Bytes after the "220" came in plain text, where anyone on the path
        // could have added them: drop them, parse only what TLS brings.
        inputString_.clear();
        discardPlainText_ = true;
        SKPSMTPTLSSettings settings = tlsSettings();
        if (inputStream_) inputStream_->setSSLSettings(settings);
        if (outputStream_) outputStream_->setSSLSettings(settings);
        isSecure_ = true;
        sendState_ = kSKPSMTPAwaitingEhloReply;
        // The secured server's capabilities replace what it offered in plain text.
        serverAuthCRAMMD5_ = serverAuthPLAIN_ = serverAuthLOGIN_ = serverAuthDIGESTMD5_ = false;
        serverStartTLS_ = false;
        sendCommand(MVFormatString("EHLO %@\r\n", "localhost"));
      } else if (hasPrefix(line, kUsernamePrompt)) {
        // A login prompt where the TLS go-ahead belongs: answering would
        // authenticate in plain text although encryption was asked for.
        refuseWithoutEncryption();
      }
      break;

    case kSKPSMTPAwaitingUsernamePrompt:
      if (hasPrefix(line, kUsernamePrompt)) answerPrompt(kSKPSMTPAwaitingPasswordPrompt, login_);
      break;

    case kSKPSMTPAwaitingPasswordPrompt:
      if (hasPrefix(line, kPasswordPrompt)) {
        if (wantsSecure_ && !isSecure_) {
          refuseWithoutEncryption();
        } else {
          noteClearTextPassword();
          answerPrompt(kSKPSMTPAwaitingAuthResult, pass_);
        }
      }
      break;

    case kSKPSMTPAwaitingAuthResult:
      if (hasPrefix(line, "235 ")) {
        sendState_ = kSKPSMTPAwaitingSenderReply;
        // Only the authenticated path offers 8BITMIME; the plain path never did.
        const char* format = server8bitMessages_ ? "MAIL FROM:<%@> BODY=8BITMIME\r\n" : "MAIL FROM:<%@>\r\n";
        sendCommand(MVFormatString(format, SKPSMTPWithoutControls(fromEmail_)));
      } else if (hasPrefix(line, "535 ")) {
        recordFailure(SKPSMTPMessageError(kSKPSMTPErrorInvalidUserPass));
      }
      break;

    case kSKPSMTPAwaitingSenderReply:
      if (hasPrefix(line, "250 ")) {
        sendState_ = kSKPSMTPAwaitingRecipientReply;
        sendCommand(formatAddresses(toEmail_) + formatAddresses(ccEmail_) + formatAddresses(bccEmail_));
      }
      break;

    case kSKPSMTPAwaitingRecipientReply:
      if (hasPrefix(line, "250 ")) {
        sendState_ = kSKPSMTPAwaitingDataGoAhead;
        sendCommand("DATA\r\n");
      } else if (hasPrefix(line, "530 ")) {
        recordFailure(SKPSMTPMessageError(kSKPSMTPErrorNoRelay));
      } else if (hasPrefix(line, "550 ")) {
        recordFailure(SKPSMTPMessageError(kSKPSMTPErrorInvalidMessage, kSKPSMTPAwaitingRecipientReply));
      }
      break;

    case kSKPSMTPAwaitingDataGoAhead:
      if (hasPrefix(line, "354 ")) {
        sendState_ = kSKPSMTPAwaitingDeliveryReply;
        if (!sendParts() && outputStream_) recordFailure(outputStream_->streamError());
      }
      break;

    case kSKPSMTPAwaitingDeliveryReply:
      if (hasPrefix(line, "250 ")) {
        sendState_ = kSKPSMTPAwaitingQuitReply;
        sendCommand("QUIT\r\n");
      } else if (hasPrefix(line, "550 ")) {
        recordFailure(SKPSMTPMessageError(kSKPSMTPErrorInvalidMessage, kSKPSMTPAwaitingDeliveryReply));
      }
      break;

    case kSKPSMTPAwaitingQuitReply:
      if (hasPrefix(line, "221 ")) {
        sendState_ = kSKPSMTPSent;
        reachedSent_ = true;
      }
      break;

    default: break;
  }
  if ((state == kSKPSMTPAwaitingDeliveryReply || state == kSKPSMTPAwaitingQuitReply) && hasPrefix(line, "221 ") &&
      sendState_ != kSKPSMTPSent) {
    sendState_ = kSKPSMTPSent;
    reachedSent_ = true;
  }
}

void SKPSMTPMessage::handleEhloLine(const std::string& line) {
  if (hasPrefix(line, "250-AUTH")) {
    serverAuthCRAMMD5_ |= contains(line, "CRAM-MD5");
    serverAuthPLAIN_ |= contains(line, "PLAIN");
    serverAuthLOGIN_ |= contains(line, "LOGIN");
    serverAuthDIGESTMD5_ |= contains(line, "DIGEST-MD5");
  } else if (hasPrefix(line, "250-8BITMIME")) {
    server8bitMessages_ = true;
  }
  // STARTTLS may stand on any line of the reply, the last one included.
  if (offersCapability(line, "STARTTLS")) serverStartTLS_ = true;
  if (!hasPrefix(line, "250 ")) return;

  // The whole reply is in: decide.
  if (wantsSecure_ && !isSecure_) {
    if (serverStartTLS_) {
      sendState_ = kSKPSMTPAwaitingTlsReady;
      sendCommand("STARTTLS\r\n");
    } else {
      refuseWithoutEncryption();
    }
  } else if (!requiresAuth_) {
    sendState_ = kSKPSMTPAwaitingSenderReply;
    sendCommand(MVFormatString("MAIL FROM:<%@>\r\n", SKPSMTPWithoutControls(fromEmail_)));
  } else if (serverAuthPLAIN_) {
    sendState_ = kSKPSMTPAwaitingAuthResult;
    noteClearTextPassword();
    std::string credentials = std::string(1, '\0') + login_ + std::string(1, '\0') + pass_;
    sendCommand(MVFormatString("AUTH PLAIN %@\r\n", Base64Additions::encodeBase64ForData(credentials)));
  } else if (serverAuthLOGIN_) {
    sendState_ = kSKPSMTPAwaitingUsernamePrompt;
    sendCommand("AUTH LOGIN\r\n");
  } else {
    recordFailure(SKPSMTPMessageError(kSKPSMTPErrorUnsupportedLogin));
  }
}

void SKPSMTPMessage::refuseWithoutEncryption() {
  // The user asked for encryption: without it nothing more is said.
  sendCommand("QUIT\r\n");
  recordFailure(SKPSMTPMessageError(kSKPSMTPErrorNoEncryption));
}

SKPSMTPTLSSettings SKPSMTPMessage::tlsSettings() const {
  SKPSMTPTLSSettings settings;
  settings.peerName = relayHost_;
  settings.validatesCertificateChain = validateSSLChain_;
  if (!validateSSLChain_) std::fputs("WARNING: Will not validate SSL chain!!!\n", stderr);
  return settings;
}

void SKPSMTPMessage::noteClearTextPassword() {
  if (isSecure_ || clearTextPasswordNoted_) return;
  clearTextPasswordNoted_ = true;
  MVLog::appendLog("Email password for %@ was sent to %@ without encryption (Use TLS is off)", login_, relayHost_);
}

void SKPSMTPMessage::startShortWatchdog() { startWatchdog(shortWatchdogSeconds_); }
void SKPSMTPMessage::startLongWatchdog() { startWatchdog(longWatchdogSeconds_); }

void SKPSMTPMessage::startWatchdog(double seconds) {
  stopWatchdog();
  watchdogDeadline_ = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                           std::chrono::duration<double>(seconds));
  std::weak_ptr<SKPSMTPMessage> weak = weak_from_this();
  watchdogTimer_ = MVRunLoop::main().scheduleTimer(seconds, false, [weak] {
    if (auto self = weak.lock()) self->connectionWatchdog();
  });
}

void SKPSMTPMessage::stopWatchdog() {
  if (watchdogTimer_) watchdogTimer_->invalidate();
  watchdogTimer_.reset();
}

void SKPSMTPMessage::connectionWatchdog() {
  watchdogTimer_.reset();
  cleanUpStreams();
  // A server that took the message but never answered QUIT has delivered it.
  if (sendState_ == kSKPSMTPAwaitingQuitReply)
    reportSent();
  else
    reportFailure(SKPSMTPMessageError(kSKPSMTPErrorTimeout));
}

void SKPSMTPMessage::cleanUpStreams() {
  if (inputStream_) inputStream_->close();
  inputStream_.reset();
  if (outputStream_) outputStream_->close();
  outputStream_.reset();
}

void SKPSMTPMessage::reportSent() {
  if (reported_) return;
  reported_ = true;
  if (connectTimer_) connectTimer_->invalidate();
  connectTimer_.reset();
  stopWatchdog();
  auto self = shared_from_this();
  if (delegate_) delegate_->messageSent(self);
}

void SKPSMTPMessage::reportFailure(const SKPSMTPError& error) {
  if (reported_) return;
  reported_ = true;
  if (connectTimer_) connectTimer_->invalidate();
  connectTimer_.reset();
  stopWatchdog();
  auto self = shared_from_this();
  if (delegate_) delegate_->messageFailed(self, error);
}
