// SKPSMTPMessage: sends one e-mail message to one SMTP relay and tells its
// delegate once how it went.
//
// The dialogue (greeting, EHLO, optional STARTTLS, optional AUTH PLAIN or
// LOGIN, envelope, data, QUIT) is a line-driven state machine on the main
// loop. Ports are tried in the order of `relayPorts`: a port whose server has
// not greeted within `connectTimeout` seconds is abandoned for the next one.
// After every command a 20-second watchdog runs, after the message text a
// 60-second one; a server that falls silent is reported as a timeout, except
// one that never answers QUIT after accepting the message, which counts as
// sent.
//
// Threads: configure the message, then call `send` from any thread; the
// session itself, its timers and the delegate calls all run on the main
// thread. Hold the message in a shared_ptr (`create`); it must stay alive
// until the delegate hears back, and the delegate may drop its last
// reference inside the callback. Dropping it earlier ends the session
// silently.
//
// Secure connections: port 465 speaks TLS from the first byte (implicit TLS);
// every other port is upgraded with STARTTLS when `wantsSecure` is set. With
// `wantsSecure`, a server that offers no STARTTLS gets QUIT and the delegate
// hears kSKPSMTPErrorNoEncryption: neither the password nor the message is
// sent in plain text. Whatever the server sent in plain text before the TLS
// handshake is thrown away. Without `wantsSecure`, a password that goes out
// unencrypted is noted in the log once per send.
//
// Nothing from the message's texts can steer the protocol: control
// characters in header values and envelope addresses become spaces, line
// breaks of the message text are sent as CR LF and its lines that begin with
// "." are dot-stuffed, so the receiver sees the text exactly as given.
//
// On the Mac the connection is the platform's socket stream pair with its TLS
// settings; here it is a non-blocking socket with OpenSSL (SKPSMTPStreams.h).
// TLS 1.2 or newer is required. With `validateSSLChain` the system's CA store
// and the relay's host name are checked; without it a warning goes to
// standard error and nothing is verified.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "SKPSMTPError.h"
#include "SKPSMTPStreams.h"

class MVTimer;

// Keys of a message part; each key string equals its own name.
inline constexpr const char* kSKPSMTPPartContentDispositionKey = "kSKPSMTPPartContentDispositionKey";
inline constexpr const char* kSKPSMTPPartContentTypeKey = "kSKPSMTPPartContentTypeKey";
inline constexpr const char* kSKPSMTPPartContentTransferEncodingKey = "kSKPSMTPPartContentTransferEncodingKey";
inline constexpr const char* kSKPSMTPPartMessageKey = "kSKPSMTPPartMessageKey";

// One MIME part: the keys above to their values. The message value is the
// body already encoded as its transfer encoding says.
using SKPSMTPPart = std::map<std::string, std::string>;

enum SKPSMTPState : int {
  kSKPSMTPIdle = 0,
  kSKPSMTPConnecting = 1,
  kSKPSMTPAwaitingEhloReply = 2,
  kSKPSMTPAwaitingTlsReady = 3,
  kSKPSMTPAwaitingUsernamePrompt = 4,
  kSKPSMTPAwaitingPasswordPrompt = 5,
  kSKPSMTPAwaitingAuthResult = 6,
  kSKPSMTPAwaitingSenderReply = 7,
  kSKPSMTPAwaitingRecipientReply = 8,
  kSKPSMTPAwaitingDataGoAhead = 9,
  kSKPSMTPAwaitingDeliveryReply = 10,
  kSKPSMTPAwaitingQuitReply = 11,
  kSKPSMTPSent = 12,
};

// A programming error in the use of SKPSMTPMessage (sending twice, a missing
// required field). Callers are expected to let it surface in development.
class SKPSMTPAssertion : public std::logic_error {
 public:
  SKPSMTPAssertion(const std::string& reason, unsigned line) : std::logic_error(reason), line_(line) {}
  static const char* source() { return "SKPSMTPMessage"; }
  unsigned line() const { return line_; }

 private:
  unsigned line_;
};

class SKPSMTPMessage;

// Told once per send, on the main thread.
class SKPSMTPMessageDelegate {
 public:
  virtual ~SKPSMTPMessageDelegate() = default;
  virtual void messageSent(const std::shared_ptr<SKPSMTPMessage>& message) = 0;
  virtual void messageFailed(const std::shared_ptr<SKPSMTPMessage>& message, const SKPSMTPError& error) = 0;
};

// Submission over TLS from the first byte.
inline constexpr int kSKPSMTPImplicitTLSPort = 465;

class SKPSMTPMessage : public std::enable_shared_from_this<SKPSMTPMessage> {
 public:
  // Ports 25, 465 and 587, in that order, shared by every new message.
  static const std::vector<int>& defaultRelayPorts();

  static std::shared_ptr<SKPSMTPMessage> create();
  // Carries the addresses, credentials, host, subject, parts, switches and
  // delegate; not the ports (the copy gets the default list), not the
  // connect timeout (8 s again), and none of the session state.
  std::shared_ptr<SKPSMTPMessage> copy() const;
  ~SKPSMTPMessage();
  SKPSMTPMessage(const SKPSMTPMessage&) = delete;
  SKPSMTPMessage& operator=(const SKPSMTPMessage&) = delete;

  const std::string& login() const { return login_; }
  void setLogin(std::string value) { login_ = std::move(value); }
  // An empty password is a password: authentication is attempted with it
  // and the server's refusal is reported. Only one never set is missing.
  const std::string& pass() const { return pass_; }
  void setPass(std::string value) {
    pass_ = std::move(value);
    hasPass_ = true;
  }
  const std::string& relayHost() const { return relayHost_; }
  void setRelayHost(std::string value) { relayHost_ = std::move(value); }
  // Tried in order and consumed as they are tried. Entries are read as signed
  // 16-bit numbers, so 40000 reaches the socket layer as -25536 and fails.
  // Port 465 (kSKPSMTPImplicitTLSPort) is always TLS from the start.
  const std::vector<int>& relayPorts() const { return relayPorts_; }
  void setRelayPorts(std::vector<int> value) { relayPorts_ = std::move(value); }
  bool requiresAuth() const { return requiresAuth_; }
  void setRequiresAuth(bool value) { requiresAuth_ = value; }
  bool wantsSecure() const { return wantsSecure_; }
  void setWantsSecure(bool value) { wantsSecure_ = value; }
  bool validateSSLChain() const { return validateSSLChain_; }
  void setValidateSSLChain(bool value) { validateSSLChain_ = value; }
  const std::string& subject() const { return subject_; }
  void setSubject(std::string value) { subject_ = std::move(value); }
  const std::string& fromEmail() const { return fromEmail_; }
  void setFromEmail(std::string value) { fromEmail_ = std::move(value); }
  // Recipient lists, separated by ';' or ','.
  const std::string& toEmail() const { return toEmail_; }
  void setToEmail(std::string value) { toEmail_ = std::move(value); }
  const std::string& ccEmail() const { return ccEmail_; }
  void setCcEmail(std::string value) { ccEmail_ = std::move(value); }
  const std::string& bccEmail() const { return bccEmail_; }
  void setBccEmail(std::string value) { bccEmail_ = std::move(value); }
  const std::vector<SKPSMTPPart>& parts() const { return parts_; }
  void setParts(std::vector<SKPSMTPPart> value) { parts_ = std::move(value); }
  double connectTimeout() const { return connectTimeout_; }
  void setConnectTimeout(double seconds) { connectTimeout_ = seconds; }
  // Not owned; must outlive the session or be cleared first.
  SKPSMTPMessageDelegate* delegate() const { return delegate_; }
  void setDelegate(SKPSMTPMessageDelegate* value) { delegate_ = value; }

  // Starts the dialogue; called off the main thread, it hands the start to
  // the main loop and waits for it. True: a connection attempt is under way and the
  // delegate will hear the outcome. False: no port was left or no connection
  // could be described (the delegate has been told, code -3). Throws
  // SKPSMTPAssertion when sent twice or when a required field is empty.
  bool send();

  int sendState() const { return sendState_.load(); }
  bool isSecure() const { return isSecure_; }

  // Shortens the 20- and 60-second watchdogs so tests need not wait minutes.
  void setTimeoutsForTesting(double shortWatchdogSeconds, double longWatchdogSeconds);
  // Hands `bytes` to the line parser as one read from the server, on a
  // session with no connection behind it: replies move the dialogue on,
  // commands go nowhere and no watchdog starts. An idle message starts out
  // waiting for the greeting, over TLS already when its first port is 465. For the fuzzer, which feeds hostile reply
  // streams in arbitrary pieces; call it on the main thread or without one.
  void receiveBytesForTesting(std::string_view bytes);

  // Message composition.
  std::string formatAnAddress(const std::string& address) const;
  std::string formatAddresses(const std::string& addresses) const;

 private:
  struct Token {};

 public:
  explicit SKPSMTPMessage(Token);

 private:
  bool startSending();
  void handleEvent(SKPSMTPStream& stream, SKPSMTPStreamEvent event);
  void parseBuffer();
  void handleLine(const std::string& line);
  void handleEhloLine(const std::string& line);
  SKPSMTPTLSSettings tlsSettings() const;
  void noteClearTextPassword();
  void refuseWithoutEncryption();
  void sendCommand(const std::string& command);
  bool sendParts();
  void connectionConnectedCheck();
  void connectionWatchdog();
  void startShortWatchdog();
  void startLongWatchdog();
  void startWatchdog(double seconds);
  void stopWatchdog();
  void cleanUpStreams();
  void reportSent();
  void reportFailure(const SKPSMTPError& error);
  void recordFailure(const SKPSMTPError& error);

  std::string login_, pass_, relayHost_;
  bool hasPass_ = false;
  std::vector<int> relayPorts_;
  bool requiresAuth_ = false;
  bool wantsSecure_ = false;
  bool validateSSLChain_ = true;
  std::string subject_, fromEmail_, toEmail_, ccEmail_, bccEmail_;
  std::vector<SKPSMTPPart> parts_;
  double connectTimeout_ = 8.0;
  SKPSMTPMessageDelegate* delegate_ = nullptr;

  std::atomic<int> sendState_{kSKPSMTPIdle};
  bool isSecure_ = false;
  std::shared_ptr<SKPSMTPStream> inputStream_;
  std::shared_ptr<SKPSMTPStream> outputStream_;
  std::string inputString_;
  bool serverAuthCRAMMD5_ = false;
  bool serverAuthPLAIN_ = false;
  bool serverAuthLOGIN_ = false;
  bool serverAuthDIGESTMD5_ = false;
  bool server8bitMessages_ = false;
  bool serverStartTLS_ = false;
  // Set on "220" to STARTTLS: what is left of the plain-text read is dropped.
  bool discardPlainText_ = false;
  bool clearTextPasswordNoted_ = false;
  std::shared_ptr<MVTimer> connectTimer_;
  std::shared_ptr<MVTimer> watchdogTimer_;
  std::optional<std::chrono::steady_clock::time_point> watchdogDeadline_;
  double shortWatchdogSeconds_ = 20.0;
  double longWatchdogSeconds_ = 60.0;

  // Per parseBuffer pass.
  bool pendingFailure_ = false;
  SKPSMTPError pendingError_;
  bool reachedSent_ = false;
  // Set once the delegate has been told; nothing of this send reports again.
  bool reported_ = false;
};

// The error reported for one of the session's own codes. `context` picks
// between the two meanings of 550: kSKPSMTPAwaitingDeliveryReply gives
// "Failed to logout.", anything else "To address rejected.".
SKPSMTPError SKPSMTPMessageError(long code, int context = kSKPSMTPAwaitingRecipientReply);

// `text` with every control character (CR, LF, NUL, DEL and the rest of C0)
// replaced by a space: what goes into a header line or a command must not
// be able to end it.
std::string SKPSMTPWithoutControls(std::string_view text);
