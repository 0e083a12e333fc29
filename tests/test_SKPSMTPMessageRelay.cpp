// The SMTP session against a real relay (aiosmtpd): STARTTLS on a certificate
// made for the test, AUTH PLAIN and LOGIN, and the exact bytes delivered.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <regex>

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
