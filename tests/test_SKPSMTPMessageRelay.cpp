// The SMTP session against a real relay (aiosmtpd): STARTTLS on a certificate
// made for the test, AUTH PLAIN and LOGIN, the exact bytes delivered, and the
// promise of "use TLS": encryption or no send.
//
// The process moves into a network namespace of its own, so that a relay
// can listen on port 465 of a private loopback.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>

#include "Base64.h"
#include "MVLog.h"
#include "MVRunLoop.h"
#include "SKPSMTPMessage.h"
#include "TestSupport.h"

extern char** environ;

using namespace quillon_test;

namespace {

// One relay process, started by the test and stopped by its id.
class Relay {
 public:
  Relay(const std::string& dir, const std::string& name, std::vector<std::string> extra = {}) {
    out_ = dir + "/" + name;
    std::string ready = out_ + ".port";
    std::vector<std::string> args{"/usr/bin/python3", std::string(QUILLON_SOURCE_DIR) + "/tests/smtp/relay.py",
                                  "--cert", dir + "/cert.pem", "--key", dir + "/key.pem", "--out", out_,
                                  "--ready", ready};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    // The relay's own log (tracebacks of refused handshakes) goes beside its output.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, (out_ + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (waitUntil([&] { return fileExists(ready); }, 20)) port_ = std::atoi(readFile(ready).c_str());
  }
  ~Relay() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  int port() const { return port_; }
  std::string message() const { return readFile(out_ + ".eml"); }
  std::string envelope() const { return readFile(out_ + ".envelope"); }
  // Every byte the relay received, decrypted where TLS was used.
  std::string wire() const { return readFile(out_ + ".wire"); }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  std::string out_;
};

struct Recorder : SKPSMTPMessageDelegate {
  std::shared_ptr<SKPSMTPMessage> message;
  int sent = 0;
  std::vector<SKPSMTPError> failures;
  void messageSent(const std::shared_ptr<SKPSMTPMessage>&) override {
    ++sent;
    message.reset();
  }
  void messageFailed(const std::shared_ptr<SKPSMTPMessage>&, const SKPSMTPError& error) override {
    failures.push_back(error);
    message.reset();
  }
  int reports() const { return sent + static_cast<int>(failures.size()); }
};

class SKPSMTPMessageRelay : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    MVLog::createNewLog("test_SKPSMTPMessageRelay", true);
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "no private network namespace: " << std::strerror(errno);
    ASSERT_EQ(shell("ip link set lo up"), 0);
    dir_ = new std::string(makeTempDir("relay"));
    int rc = shell("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost"
                   " -addext subjectAltName=DNS:localhost -keyout " + *dir_ + "/key.pem -out " + *dir_ +
                   "/cert.pem >/dev/null 2>&1");
    ASSERT_EQ(rc, 0);
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }

  void sendAndWait(Recorder& recorder, std::shared_ptr<SKPSMTPMessage> message) {
    message->setDelegate(&recorder);
    message->setTimeoutsForTesting(10, 10);
    recorder.message = message;
    message.reset();
    ASSERT_TRUE(recorder.message->send());
    EXPECT_TRUE(waitUntil([&] { return recorder.reports() > 0; }, 30));
    MVRunLoop::main().runFor(0.5);
    EXPECT_EQ(recorder.reports(), 1);
  }

  static std::shared_ptr<SKPSMTPMessage> makeMessage(const std::string& host, int port) {
    auto message = SKPSMTPMessage::create();
    message->setRelayHost(host);
    message->setRelayPorts({port});
    message->setRequiresAuth(true);
    message->setWantsSecure(true);
    message->setLogin("ali");
    message->setPass("sesame");
    message->setFromEmail("render@studio.example");
    message->setToEmail("editor@studio.example, producer@studio.example");
    message->setBccEmail("archive@studio.example");
    message->setSubject("clip.mov Finished");
    message->setParts({{{kSKPSMTPPartContentTypeKey, "text/plain"},
                        {kSKPSMTPPartContentTransferEncodingKey, "8bit"},
                        {kSKPSMTPPartMessageKey, "The render of clip.mov finished on Studio-Mac."}}});
    return message;
  }

  static std::string* dir_;
};
std::string* SKPSMTPMessageRelay::dir_ = nullptr;

}  // namespace

TEST_F(SKPSMTPMessageRelay, DeliversOverStartTlsWithAuthPlainExactly) {
  setenv("TZ", "UTC", 1);
  Relay relay(*dir_, "plain");
  ASSERT_GT(relay.port(), 0);
  Recorder recorder;
  auto message = makeMessage("127.0.0.1", relay.port());
  message->setValidateSSLChain(false);
  testing::internal::CaptureStderr();
  sendAndWait(recorder, message);
  std::string errors = testing::internal::GetCapturedStderr();
  EXPECT_EQ(recorder.sent, 1);
  EXPECT_NE(errors.find("WARNING: Will not validate SSL chain!!!\n"), std::string::npos);

  EXPECT_EQ(relay.envelope(),
            "FROM render@studio.example\n"
            "OPTIONS BODY=8BITMIME\n"
            "TO editor@studio.example\n"
            "TO producer@studio.example\n"
            "TO archive@studio.example\n");
  const std::string pattern =
      "Date: [A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} \\+0000\r\n"
      "Message-id: <[0-9A-F]{32}@127\\.0\\.0\\.1>\r\n"
      "From:render@studio\\.example\r\n"
      "To:editor@studio\\.example, producer@studio\\.example\r\n"
      "Content-Type: multipart/mixed; boundary=SKPSMTPMessage--Separator--Delimiter\r\n"
      "Mime-Version: 1\\.0 \\(SKPSMTPMessage 1\\.0\\)\r\n"
      "Subject:clip\\.mov Finished\r\n"
      "\r\n"
      "--SKPSMTPMessage--Separator--Delimiter\r\n"
      "Content-Type: text/plain\r\n"
      "Content-Transfer-Encoding: 8bit\r\n"
      "\r\n"
      "The render of clip\\.mov finished on Studio-Mac\\.\r\n"
      "--SKPSMTPMessage--Separator--Delimiter\r\n"
      "\r\n";
  EXPECT_TRUE(std::regex_match(relay.message(), std::regex(pattern))) << relay.message();
}

TEST_F(SKPSMTPMessageRelay, ValidatesTheChainAndHostNameWhenAsked) {
  // The system CA store, here pointed at the test's own certificate.
  setenv("SSL_CERT_FILE", (*dir_ + "/cert.pem").c_str(), 1);
  Relay relay(*dir_, "login", {"--exclude", "PLAIN"});
  ASSERT_GT(relay.port(), 0);

  // "localhost" matches the certificate; only LOGIN is offered, so LOGIN is used.
  Recorder trusted;
  sendAndWait(trusted, makeMessage("localhost", relay.port()));
  EXPECT_EQ(trusted.sent, 1);
  EXPECT_NE(relay.envelope().find("TO archive@studio.example\n"), std::string::npos);

  // The same certificate does not name 127.0.0.1: the handshake fails and the
  // stream's own error is reported.
  Recorder mismatched;
  sendAndWait(mismatched, makeMessage("127.0.0.1", relay.port()));
  ASSERT_EQ(mismatched.failures.size(), 1u);
  EXPECT_EQ(mismatched.failures[0].domain, "OpenSSLErrorDomain");
  EXPECT_NE(mismatched.failures[0].localizedDescription.find("certificate"), std::string::npos)
      << mismatched.failures[0].localizedDescription;
  unsetenv("SSL_CERT_FILE");

  // Without SSL_CERT_FILE the self-signed certificate is not trusted at all.
  Recorder untrusted;
  sendAndWait(untrusted, makeMessage("localhost", relay.port()));
  ASSERT_EQ(untrusted.failures.size(), 1u);
  EXPECT_EQ(untrusted.failures[0].domain, "OpenSSLErrorDomain");
}

TEST_F(SKPSMTPMessageRelay, RefusedCredentialsAndAuthWithoutTls) {
  Relay relay(*dir_, "refusals");
  ASSERT_GT(relay.port(), 0);

  Recorder wrongPassword;
  auto message = makeMessage("127.0.0.1", relay.port());
  message->setValidateSSLChain(false);
  message->setPass("open sesame");
  testing::internal::CaptureStderr();
  sendAndWait(wrongPassword, message);
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(wrongPassword.failures.size(), 1u);
  EXPECT_EQ(wrongPassword.failures[0].code, 535);

  // The relay offers AUTH only after STARTTLS; without TLS no mechanism is left.
  Recorder plainText;
  message = makeMessage("127.0.0.1", relay.port());
  message->setWantsSecure(false);
  sendAndWait(plainText, message);
  ASSERT_EQ(plainText.failures.size(), 1u);
  EXPECT_EQ(plainText.failures[0].code, -2);
  EXPECT_EQ(relay.message(), "");
}

TEST_F(SKPSMTPMessageRelay, UseTlsMeansEncryptionOrNoSend) {
  const std::string plainCredentials = Base64Additions::encodeBase64ForData(std::string("\0ali\0sesame", 11));
  struct Case {
    const char* name;
    std::vector<std::string> relayOptions;
    int port;  // 0: the relay's own
    bool wantsSecure;
    long expectedCode;  // 0: delivered
    const char* onTheWire;  // a command that must have reached the relay
    const char* neverOnTheWire;
  };
  const Case cases[] = {
      {"STARTTLS on the last line of the EHLO reply, in mixed case", {"--starttls-last"}, 0, true, 0, "STARTTLS",
       nullptr},
      // The plain-text noise offers PLAIN; the relay, over TLS, only LOGIN.
      {"plain text right after 220 is ignored", {"--noise-after-starttls", "--exclude", "PLAIN"}, 0, true, 0,
       "AUTH LOGIN", "AUTH PLAIN"},
      {"no STARTTLS offered: QUIT, no password", {"--no-starttls"}, 0, true, kSKPSMTPErrorNoEncryption, "QUIT",
       "AUTH"},
      {"port 465 is TLS from the first byte", {"--implicit-tls", "--port", "465"}, 465, true, 0, "EHLO", nullptr},
      {"port 465 without use TLS is still TLS", {"--implicit-tls", "--port", "465"}, 465, false, 0, "EHLO", nullptr},
      {"use TLS off: AUTH in plain text, as asked", {"--no-starttls"}, 0, false, 0, "AUTH PLAIN", nullptr},
  };
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Relay relay(*dir_, "variant" + std::to_string(++index), c.relayOptions);
    ASSERT_GT(relay.port(), 0);
    auto message = makeMessage("127.0.0.1", c.port ? c.port : relay.port());
    message->setWantsSecure(c.wantsSecure);
    message->setValidateSSLChain(false);
    std::string logBefore = MVLog::currentLogPath();
    MVLog::finishWriting();
    std::size_t logOffset = fileExists(logBefore) ? readFile(logBefore).size() : 0;
    Recorder recorder;
    testing::internal::CaptureStderr();
    sendAndWait(recorder, message);
    testing::internal::GetCapturedStderr();
    MVLog::finishWriting();
    std::string log = readFile(MVLog::currentLogPath()).substr(logOffset);

    std::string wire = relay.wire();
    EXPECT_NE(wire.find(c.onTheWire), std::string::npos) << wire;
    if (c.neverOnTheWire) {
      EXPECT_EQ(wire.find(c.neverOnTheWire), std::string::npos) << wire;
    }
    if (c.expectedCode == 0) {
      EXPECT_EQ(recorder.sent, 1) << (recorder.failures.empty() ? "" : recorder.failures[0].localizedDescription);
      EXPECT_NE(relay.envelope().find("TO archive@studio.example\n"), std::string::npos);
    } else {
      ASSERT_EQ(recorder.failures.size(), 1u);
      EXPECT_EQ(recorder.failures[0].code, c.expectedCode);
      EXPECT_EQ(recorder.failures[0].localizedDescription, "The server offered no encryption.");
      EXPECT_NE(recorder.failures[0].localizedRecoverySuggestion.find("Neither your password nor the message"),
                std::string::npos);
      EXPECT_EQ(wire.find(plainCredentials), std::string::npos) << wire;
      EXPECT_EQ(relay.message(), "");
    }
    // A password sent in plain text is said so once; an encrypted one never.
    bool clearText = c.expectedCode == 0 && std::string(c.onTheWire) == "AUTH PLAIN";
    EXPECT_EQ(log.find("without encryption") != std::string::npos, clearText) << log;
  }

  // Implicit TLS checks the certificate as STARTTLS does: the name
  // 127.0.0.1 is not on it, and the refusal is reported as such.
  setenv("SSL_CERT_FILE", (*dir_ + "/cert.pem").c_str(), 1);
  Relay relay(*dir_, "implicit", {"--implicit-tls", "--port", "465"});
  ASSERT_GT(relay.port(), 0);
  Recorder trusted;
  sendAndWait(trusted, makeMessage("localhost", 465));
  EXPECT_EQ(trusted.sent, 1);
  Recorder mismatched;
  sendAndWait(mismatched, makeMessage("127.0.0.1", 465));
  unsetenv("SSL_CERT_FILE");
  ASSERT_EQ(mismatched.failures.size(), 1u);
  EXPECT_EQ(mismatched.failures[0].domain, "OpenSSLErrorDomain");
  EXPECT_NE(mismatched.failures[0].localizedDescription.find("certificate"), std::string::npos)
      << mismatched.failures[0].localizedDescription;
}
