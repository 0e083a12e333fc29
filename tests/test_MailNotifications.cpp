// The e-mail and the text message that tell the user a render ended, sent by
// the controller to real peers: an aiosmtpd relay (STARTTLS on a certificate
// made for the test, AUTH PLAIN) and a gnome-keyring holding the SMTP
// password on a private session bus.
//
// Text messages always use the client's default ports (25, 465, 587), so the
// test process moves into a network namespace of its own, where the relay can
// listen on port 25 of a private loopback without meeting anything on the
// machine. A private host-name namespace lets the test choose the computer
// name that the messages quote.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "AppController.h"
#include "KeychainSecretService.h"
#include "MVEncryption.h"
#include "MVKeychain.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVRunLoop.h"
#include "PrivateSessionBus.h"
#include "QuillonPreferences.h"
#include "TestSupport.h"

extern char** environ;

using namespace quillon_test;

namespace {

constexpr const char* kSender = "sender@example.com";
constexpr const char* kRelayPassword = "relay-s3cret";
// A sender whose keychain item holds a password the relay refuses.
constexpr const char* kStaleSender = "stale@example.com";
constexpr const char* kRecipients = "editor@example.com, producer@example.com";
constexpr const char* kPhoneNumber = "+1 (555) 010-0000";
constexpr const char* kTextAddress = "15550100000@txt.example";
constexpr int kGatewayPort = 25;  // first of the client's default ports

std::string shellQuoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Stores a password the way the preferences application's item looks to the
// Secret Service, with secret-tool as an independent writer.
bool storeAgentPassword(const std::string& sender, const std::string& password) {
  std::string file = makeTempDir("secret") + "/password";
  writeFile(file, password);
  std::string name = "Quillon - " + sender;
  return shell("secret-tool store --label=" + shellQuoted(name) + " acct " + shellQuoted(sender) +
               " desc 'Email password' labl " + shellQuoted(name) + " < " + file) == 0;
}

// One message as the relay received it.
struct Delivery {
  int port = 0;
  std::string from;
  std::string options;
  std::vector<std::string> to;
  std::string raw;

  std::string header(const std::string& name) const {
    std::string head = raw.substr(0, raw.find("\r\n\r\n"));
    std::istringstream lines(head);
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.compare(0, name.size() + 1, name + ":") == 0) {
        std::string value = line.substr(name.size() + 1);
        return value.substr(std::min(value.find_first_not_of(' '), value.size()));
      }
    }
    return "<no " + name + " header>";
  }
  // The text of the one text/plain part, between its headers and the next
  // boundary line.
  std::string body() const {
    std::string type = header("Content-Type");
    auto at = type.find("boundary=");
    if (at == std::string::npos) return "<no boundary>";
    std::string boundary = "\r\n--" + type.substr(at + 9);
    auto part = raw.find("Content-Type: text/plain");
    if (part == std::string::npos) return "<no text part>";
    auto start = raw.find("\r\n\r\n", part);
    if (start == std::string::npos) return "<no part body>";
    start += 4;
    auto end = raw.find(boundary, start);
    return raw.substr(start, end == std::string::npos ? std::string::npos : end - start);
  }
};

// The relay of tests/mail/relay.py, on port 25 and on a free port, started by
// the test and stopped by its id.
class Relay {
 public:
  Relay(const std::string& certDir, const std::string& user, const std::string& password) {
    std::string dir = makeTempDir("relay");
    out_ = dir + "/messages";
    std::filesystem::create_directories(out_);
    std::string ready = dir + "/ports";
    std::vector<std::string> args{"/usr/bin/python3", std::string(QUILLON_SOURCE_DIR) + "/tests/mail/relay.py",
                                  "--cert", certDir + "/cert.pem", "--key", certDir + "/key.pem", "--out", out_,
                                  "--ready", ready, "--user", user, "--password", password,
                                  "--port", std::to_string(kGatewayPort), "--port", "0"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    log_ = dir + "/relay.log";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (pid_ > 0 && waitUntil([&] { return fileExists(ready); }, 30)) {
      std::istringstream ports(readFile(ready));
      ports >> gatewayPort_ >> ownPort_;
    }
  }
  ~Relay() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  bool isReady() const { return gatewayPort_ == kGatewayPort && ownPort_ > 0; }
  int ownPort() const { return ownPort_; }
  std::string log() const { return fileExists(log_) ? readFile(log_) : std::string(); }

  void forget() {
    for (const auto& entry : std::filesystem::directory_iterator(out_)) std::filesystem::remove(entry.path());
  }

  // In the order the relay received them.
  std::vector<Delivery> deliveries() const {
    std::vector<int> numbers;
    for (const auto& entry : std::filesystem::directory_iterator(out_))
      if (entry.path().extension() == ".envelope") numbers.push_back(std::atoi(entry.path().stem().c_str()));
    std::sort(numbers.begin(), numbers.end());
    std::vector<Delivery> all;
    for (int n : numbers) {
      std::string base = out_ + "/" + std::to_string(n);
      Delivery d;
      std::istringstream lines(readFile(base + ".envelope"));
      for (std::string line; std::getline(lines, line);) {
        auto space = line.find(' ');
        std::string key = line.substr(0, space), value = space == std::string::npos ? "" : line.substr(space + 1);
        if (key == "PORT") d.port = std::atoi(value.c_str());
        if (key == "FROM") d.from = value;
        if (key == "OPTIONS") d.options = value;
        if (key == "TO") d.to.push_back(value);
      }
      d.raw = readFile(base + ".eml");
      all.push_back(std::move(d));
    }
    return all;
  }

 private:
  pid_t pid_ = -1;
  int gatewayPort_ = 0;
  int ownPort_ = 0;
  std::string out_;
  std::string log_;
};

// The delivery whose first recipient is `recipient`, if any.
std::optional<Delivery> deliveryTo(const std::vector<Delivery>& all, const std::string& recipient) {
  for (const auto& d : all)
    if (!d.to.empty() && d.to.front() == recipient) return d;
  return std::nullopt;
}

std::string describe(const std::vector<Delivery>& all) {
  std::string text;
  for (const auto& d : all) {
    text += "port " + std::to_string(d.port) + " from " + d.from + " to";
    for (const auto& t : d.to) text += " " + t;
    text += "\n";
  }
  return text.empty() ? "(nothing delivered)" : text;
}

// The log of this test process, read from a remembered position on.
class LogReader {
 public:
  LogReader() { offset_ = all().size(); }
  std::string text() const { return all().substr(offset_); }
  // The message of every line, without its time stamp.
  std::vector<std::string> messages() const {
    static const std::regex stamped("^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [+-][0-9]{4} - (.*)$");
    std::vector<std::string> out;
    std::istringstream lines(text());
    std::smatch match;
    for (std::string line; std::getline(lines, line);)
      if (std::regex_match(line, match, stamped)) out.push_back(match[1]);
    return out;
  }
  std::size_t count(const std::string& part) const {
    std::string t = text();
    std::size_t n = 0;
    for (auto at = t.find(part); at != std::string::npos; at = t.find(part, at + part.size())) ++n;
    return n;
  }

 private:
  static std::string all() {
    MVLog::finishWriting();
    return fileExists(MVLog::currentLogPath()) ? readFile(MVLog::currentLogPath()) : std::string();
  }
  std::size_t offset_ = 0;
};

using Settings = std::map<std::string, MVPlistValue>;

void writeSettings(const Settings& settings) {
  MVPlistValue root{MVPlistValue::Dictionary{}};
  for (const auto& [key, value] : settings) root.set(key, value);
  std::filesystem::create_directories(MVLocalPaths::prefsDirectory(true));
  ASSERT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), root));
}

MVPlistValue description(const Settings& keys) {
  MVPlistValue render{MVPlistValue::Dictionary{}};
  for (const auto& [key, value] : keys) render.set(key, value);
  return render;
}

class MailNotifications : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    MVLog::createNewLog("test_MailNotifications", true);
    if (unshare(CLONE_NEWNET | CLONE_NEWUTS) != 0) {
      setupError_ = std::string("cannot enter a private network namespace: ") + std::strerror(errno);
      return;
    }
    if (shell("ip link set lo up") != 0) {
      setupError_ = "cannot bring up the private loopback";
      return;
    }
    certDir_ = makeTempDir("cert");
    if (shell("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost"
              " -addext subjectAltName=DNS:localhost -keyout " + certDir_ + "/key.pem -out " + certDir_ +
              "/cert.pem >/dev/null 2>&1") != 0) {
      setupError_ = "openssl could not make the relay's certificate";
      return;
    }
    // The agent validates the relay's chain against the system store: make
    // the test certificate that store.
    setenv("SSL_CERT_FILE", (certDir_ + "/cert.pem").c_str(), 1);

    bus_ = std::make_unique<PrivateSessionBus>();
    if (!bus_->isRunning() || !bus_->startKeyring()) {
      setupError_ = "no private bus with gnome-keyring: " + bus_->error();
      return;
    }
    if (!storeAgentPassword(kSender, kRelayPassword) || !storeAgentPassword(kStaleSender, "an-old-password")) {
      setupError_ = "secret-tool could not store the passwords";
      return;
    }
    MVKeychain::setBackend(quillon::createSecretServiceKeychain());

    relay_ = std::make_unique<Relay>(certDir_, kSender, kRelayPassword);
    if (!relay_->isReady()) {
      setupError_ = "the relay did not start:\n" + relay_->log();
      return;
    }

    carrierTable_ = makeTempDir("resources");
    std::filesystem::copy_file(std::string(QUILLON_SOURCE_DIR) + "/tests/mail/carriers.plist",
                               carrierTable_ + "/carriers.plist");
    noCarrierTable_ = makeTempDir("empty-resources");
  }

  static void TearDownTestSuite() {
    relay_.reset();
    MVKeychain::setBackend(nullptr);  // before its bus goes away
    bus_.reset();
  }

  void SetUp() override {
    ASSERT_TRUE(setupError_.empty()) << setupError_;
    relay_->forget();
    setenv("QUILLON_RESOURCES", carrierTable_.c_str(), 1);
    setHostName("studio");
    folder = makeTempDir("Renders");
  }

  void TearDown() override {
    for (auto& controller : controllers_) {
      if (waitUntil([&] { return controller->asyncJobs() <= 0; }, 60)) {
        MVRunLoop::main().runFor(0.1);  // the deferred release of the last message
        controller.reset();
      } else {
        // A session still reports to it: leave it alive.
        (void)controller.release();
      }
    }
  }

  static void setHostName(const std::string& name) { ASSERT_EQ(sethostname(name.data(), name.size()), 0); }

  // Everything the relay needs, e-mail and text message switched on.
  Settings mailSettings() const {
    std::string number = kPhoneNumber;
    MVPlistValue::Data encrypted = MVEncryption::AESEncryptData(
        std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(number.data()), number.size()),
        MVEncryption::kTextMessagePassphrase);
    return {{"notifyGrowl", 0},
            {"notifySound", 0},
            {"notifyEmail", 1},
            {"notifyText", 1},
            {"emailFromAddress", kSender},
            {"emailToAddress", kRecipients},
            {"emailServer", "localhost"},
            {"emailPort", relay_->ownPort()},
            {"emailUseAuth", 1},
            {"emailAccountName", kSender},
            {"emailUseTLS", 1},
            {"txtMessagePhoneNumber", encrypted},
            {"txtMessageNumber", kPhoneNumber}};
  }

  AppController& newController() {
    controllers_.push_back(std::make_unique<AppController>());
    return *controllers_.back();
  }

  // A finished file in the watch folder.
  MVPlistValue watchRender(const std::string& name) {
    std::string path = folder + "/" + name;
    writeFile(path, "frames of " + name);
    return description({{"type", "watchFile"}, {"fullPath", path}, {"watchFilename", name}});
  }

  static void expectEnvelope(const Delivery& d, int port, const std::vector<std::string>& to) {
    EXPECT_EQ(d.port, port);
    EXPECT_EQ(d.from, kSender);
    EXPECT_EQ(d.options, "BODY=8BITMIME");
    EXPECT_EQ(d.to, to);
  }

  std::string folder;
  static inline std::unique_ptr<Relay> relay_;
  static inline std::unique_ptr<PrivateSessionBus> bus_;
  static inline std::string setupError_;
  static inline std::string certDir_;
  static inline std::string carrierTable_;
  static inline std::string noCarrierTable_;

 private:
  std::vector<std::unique_ptr<AppController>> controllers_;
};

TEST_F(MailNotifications, FinishedWatchFolderRenderSendsTheEmailAndTheTextMessage) {
  // The folder check reports from a detached worker, which then waits for the
  // jobs by polling; other watchers report on the main thread.
  for (bool onWorker : {false, true}) {
    SCOPED_TRACE(onWorker ? "reported on a worker thread" : "reported on the main thread");
    relay_->forget();
    writeSettings(mailSettings());
    AppController& controller = newController();
    MVPlistValue render = watchRender(onWorker ? "promo.mov" : "clip.mov");
    const std::string file = onWorker ? "promo.mov" : "clip.mov";
    LogReader log;

    if (onWorker) {
      std::atomic<bool> done{false};
      std::thread worker([&] {
        controller.renderDidFinishSuccessfully(render);
        controller.waitForAsyncJobsWithTimeout(10);
        done = true;
      });
      EXPECT_TRUE(waitUntil([&] { return done.load(); }, 60));
      worker.join();
    } else {
      controller.renderDidFinishSuccessfully(render);
      controller.waitForAsyncJobsWithTimeout(10);
    }
    EXPECT_EQ(controller.asyncJobs(), 0);
    EXPECT_EQ(log.count("Async jobs timed out"), 0u) << log.text();
    EXPECT_EQ(log.count("Email sent successfully"), 2u) << log.text();
    EXPECT_EQ(log.count("Email failed"), 0u) << log.text();
    EXPECT_EQ(log.count("Render complete"), 1u);

    auto all = relay_->deliveries();
    ASSERT_EQ(all.size(), 2u) << describe(all);
    auto email = deliveryTo(all, "editor@example.com");
    auto text = deliveryTo(all, kTextAddress);
    ASSERT_TRUE(email && text) << describe(all);

    // The e-mail goes to the port of the settings, tried first; the text
    // message ignores it and takes the first default port.
    expectEnvelope(*email, relay_->ownPort(), {"editor@example.com", "producer@example.com"});
    EXPECT_EQ(email->header("Subject"), file + " Finished");
    EXPECT_EQ(email->body(), "The file \"" + file + "\" in the watch folder \"" + folder +
                                 "\" on computer \"Studio\" finished rendering.");

    expectEnvelope(*text, kGatewayPort, {kTextAddress});
    EXPECT_EQ(text->header("Subject"), file + " Finished");
    EXPECT_EQ(text->body(), "The file \"" + file + "\" on computer \"Studio\" finished rendering.");
  }
}

TEST_F(MailNotifications, FailedRenderSendsTheFailureTextsAndTheTextOnlyWithItsNumber) {
  struct Case {
    const char* name;
    std::function<MVPlistValue()> render;
    std::function<void(Settings&)> change;
    const char* subject;
    const char* emailBody;  // "%F" stands for the watch folder
    const char* textBody;   // nullptr: no text message
  };
  const std::vector<Case> cases = {
      {"watch-folder file, both numbers set", [this] { return watchRender("clip.mov"); },
       [](Settings&) {}, "clip.mov Failed",
       "The file \"clip.mov\" in the watch folder \"%F\" on computer \"Studio\" failed to render.",
       "The file \"clip.mov\" on computer \"Studio\" failed to render."},
      // A failure asks for "txtMessageNumber", not the stored number.
      {"txtMessageNumber empty", [this] { return watchRender("clip.mov"); },
       [](Settings& s) { s["txtMessageNumber"] = ""; }, "clip.mov Failed",
       "The file \"clip.mov\" in the watch folder \"%F\" on computer \"Studio\" failed to render.", nullptr},
      {"txtMessageNumber missing", [this] { return watchRender("clip.mov"); },
       [](Settings& s) { s.erase("txtMessageNumber"); }, "clip.mov Failed",
       "The file \"clip.mov\" in the watch folder \"%F\" on computer \"Studio\" failed to render.", nullptr},
      // ...but the address still comes from the stored number: none, no text.
      {"no stored number", [this] { return watchRender("clip.mov"); },
       [](Settings& s) { s.erase("txtMessagePhoneNumber"); }, "clip.mov Failed",
       "The file \"clip.mov\" in the watch folder \"%F\" on computer \"Studio\" failed to render.", nullptr},
      // The batch name is quoted as Compressor reported it, still escaped.
      {"Compressor batch",
       [] {
         return description({{"type", "qmaster"}, {"batchid", "B-7"}, {"name", "Promo%20Cut"}, {"status", "Failed"}});
       },
       [](Settings&) {}, "Promo%20Cut Batch Failed",
       "The Compressor batch \"Promo%20Cut\" on computer \"Studio\" failed to render.",
       "The Compressor batch \"Promo%20Cut\" on computer \"Studio\" failed."},
  };

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    relay_->forget();
    Settings settings = mailSettings();
    c.change(settings);
    writeSettings(settings);
    AppController& controller = newController();  // a fresh one: failures within 5 s are dropped
    MVPlistValue render = c.render();
    LogReader log;

    controller.renderDidFail(render);
    controller.waitForAsyncJobsWithTimeout(10);
    EXPECT_EQ(controller.asyncJobs(), 0);
    const std::size_t expected = c.textBody ? 2 : 1;
    EXPECT_EQ(log.count("Email sent successfully"), expected) << log.text();
    EXPECT_EQ(log.count("Email failed"), 0u) << log.text();

    auto all = relay_->deliveries();
    ASSERT_EQ(all.size(), expected) << describe(all);
    auto email = deliveryTo(all, "editor@example.com");
    ASSERT_TRUE(email) << describe(all);
    expectEnvelope(*email, relay_->ownPort(), {"editor@example.com", "producer@example.com"});
    EXPECT_EQ(email->header("Subject"), c.subject);
    std::string body = c.emailBody;
    if (auto at = body.find("%F"); at != std::string::npos) body.replace(at, 2, folder);
    EXPECT_EQ(email->body(), body);

    if (c.textBody) {
      auto text = deliveryTo(all, kTextAddress);
      ASSERT_TRUE(text) << describe(all);
      expectEnvelope(*text, kGatewayPort, {kTextAddress});
      EXPECT_EQ(text->header("Subject"), c.subject);
      EXPECT_EQ(text->body(), c.textBody);
    }
  }
}

TEST_F(MailNotifications, AFileNameCannotSteerTheMail) {
  // Everything a shared watch folder's file name could try: headers of its
  // own, the end of the data, a second transaction on the user's session.
  const std::string name =
      "clip\r\nBcc: thief@evil.example\r\n.\r\nMAIL FROM:<render@evil.example>\r\nRCPT TO:<thief@evil.example>"
      "\r\nDATA\r\nSubject: free money\n.\n.mov";
  Settings settings = mailSettings();
  settings["notifyText"] = 0;
  writeSettings(settings);
  AppController& controller = newController();
  LogReader log;

  controller.renderDidFinishSuccessfully(watchRender(name));
  controller.waitForAsyncJobsWithTimeout(10);
  EXPECT_EQ(log.count("Email sent successfully"), 1u) << log.text();

  auto all = relay_->deliveries();
  ASSERT_EQ(all.size(), 1u) << describe(all);
  expectEnvelope(all[0], relay_->ownPort(), {"editor@example.com", "producer@example.com"});
  EXPECT_EQ(all[0].header("Bcc"), "<no Bcc header>");
  // The name is there as harmless text: on one header line, and in the body
  // with its line breaks.
  EXPECT_EQ(all[0].header("Subject"),
            "clip  Bcc: thief@evil.example  .  MAIL FROM:<render@evil.example>  RCPT TO:<thief@evil.example>"
            "  DATA  Subject: free money . .mov Finished");
  EXPECT_NE(all[0].body().find("\r\n.\r\nMAIL FROM:<render@evil.example>\r\n"), std::string::npos)
      << all[0].body();
}

TEST_F(MailNotifications, EmailPortIsTriedFirstOtherwiseTheDefaultPortsServe) {
  const int ownPort = relay_->ownPort();
  struct Case {
    const char* name;
    std::optional<int> emailPort;  // nullopt: key missing
    int deliveredOn;
  };
  const std::vector<Case> cases = {
      {"the relay's own port", ownPort, ownPort},
      {"zero", 0, kGatewayPort},
      {"missing", std::nullopt, kGatewayPort},
      {"negative", -5, kGatewayPort},
      // Nothing listens there: after the connect timeout the defaults follow.
      {"a closed port", 2525, kGatewayPort},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.name);
    relay_->forget();
    Settings settings = mailSettings();
    settings["notifyText"] = 0;
    if (c.emailPort)
      settings["emailPort"] = *c.emailPort;
    else
      settings.erase("emailPort");
    writeSettings(settings);
    AppController& controller = newController();
    LogReader log;

    controller.renderDidFinishSuccessfully(watchRender("port-" + std::to_string(i) + ".mov"));
    controller.waitForAsyncJobsWithTimeout(40);
    EXPECT_EQ(controller.asyncJobs(), 0);
    EXPECT_EQ(log.count("Email sent successfully"), 1u) << log.text();

    auto all = relay_->deliveries();
    ASSERT_EQ(all.size(), 1u) << describe(all);
    EXPECT_EQ(all[0].port, c.deliveredOn);
  }
}

TEST_F(MailNotifications, RefusedOrMissingPasswordIsLoggedAndTheJobsStillEnd) {
  struct Case {
    const char* name;
    const char* sender;
    const char* logged;
  };
  const std::vector<Case> cases = {
      {"the keychain holds another password", kStaleSender, "Email failed to send - error(535): Invalid username or password."},
      // No item at all: the session goes ahead without a password and the
      // relay's refusal is what the log shows.
      {"no keychain item for the sender", "nobody@example.com",
       "Email failed to send - error(535): Invalid username or password."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    relay_->forget();
    Settings settings = mailSettings();
    settings["emailFromAddress"] = c.sender;
    writeSettings(settings);
    AppController& controller = newController();
    LogReader log;

    controller.renderDidFinishSuccessfully(watchRender(std::string(c.sender) + ".mov"));
    controller.waitForAsyncJobsWithTimeout(10);
    EXPECT_EQ(controller.asyncJobs(), 0);
    EXPECT_EQ(log.count("Async jobs timed out"), 0u);
    // Once for the e-mail, once for the text message.
    EXPECT_EQ(log.count(c.logged), 2u) << log.text();
    EXPECT_EQ(log.count("Email sent successfully"), 0u) << log.text();
    EXPECT_EQ(log.count("Render complete"), 1u);
    EXPECT_TRUE(relay_->deliveries().empty()) << describe(relay_->deliveries());
  }
}

TEST_F(MailNotifications, MissingServerOrRecipientIsLoggedAndTheAgentGoesOn) {
  struct Case {
    const char* name;
    std::function<void(Settings&)> change;
    std::size_t failures;
    bool textDelivered;
  };
  const std::vector<Case> cases = {
      {"empty server", [](Settings& s) { s["emailServer"] = ""; }, 2, false},
      {"no server", [](Settings& s) { s.erase("emailServer"); }, 2, false},
      // The text message has its own recipient: it still goes out.
      {"empty recipient", [](Settings& s) { s["emailToAddress"] = ""; }, 1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    relay_->forget();
    Settings settings = mailSettings();
    c.change(settings);
    writeSettings(settings);
    AppController& controller = newController();
    LogReader log;

    controller.renderDidFinishSuccessfully(watchRender(std::string(c.name) + ".mov"));
    controller.waitForAsyncJobsWithTimeout(10);
    EXPECT_EQ(controller.asyncJobs(), 0);
    EXPECT_EQ(log.count("Email failed to send - error("), c.failures) << log.text();
    EXPECT_EQ(log.count("Render complete"), 1u) << "the actions after the mail still ran";

    auto all = relay_->deliveries();
    if (c.textDelivered) {
      ASSERT_EQ(all.size(), 1u) << describe(all);
      EXPECT_EQ(all[0].to, std::vector<std::string>{kTextAddress});
    } else {
      EXPECT_TRUE(all.empty()) << describe(all);
    }
  }
  // The agent still works afterwards.
  relay_->forget();
  writeSettings(mailSettings());
  AppController& controller = newController();
  controller.renderDidFinishSuccessfully(watchRender("after.mov"));
  controller.waitForAsyncJobsWithTimeout(10);
  EXPECT_EQ(relay_->deliveries().size(), 2u) << describe(relay_->deliveries());
}

TEST_F(MailNotifications, CarrierTableDecidesTheGatewayAndItsAbsenceIsSilent) {
  struct Case {
    const char* name;
    bool withTable;
    std::optional<const char*> carrier;  // nullopt: key missing
    const char* textTo;                  // nullptr: no text message
  };
  const std::vector<Case> cases = {
      {"no carrier table", false, std::nullopt, nullptr},
      {"carrier not in the table", true, "verizon", nullptr},
      {"carrier without a gateway", true, "nodomain", nullptr},
      {"empty carrier means att", true, "", kTextAddress},
      {"missing carrier means att", true, std::nullopt, kTextAddress},
      {"another carrier", true, "tmobile", "15550100000@tmomail.example"},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.name);
    relay_->forget();
    setenv("QUILLON_RESOURCES", (c.withTable ? carrierTable_ : noCarrierTable_).c_str(), 1);
    Settings settings = mailSettings();
    if (c.carrier) settings["selectedTextCarrier"] = *c.carrier;
    writeSettings(settings);
    AppController& controller = newController();
    LogReader log;

    controller.renderDidFinishSuccessfully(watchRender("clip-" + std::to_string(i) + ".mov"));
    controller.waitForAsyncJobsWithTimeout(10);
    EXPECT_EQ(controller.asyncJobs(), 0);

    auto all = relay_->deliveries();
    ASSERT_EQ(all.size(), c.textTo ? 2u : 1u) << describe(all);
    EXPECT_TRUE(deliveryTo(all, "editor@example.com")) << describe(all);
    if (c.textTo) {
      EXPECT_TRUE(deliveryTo(all, c.textTo)) << describe(all);
    }
    // Without a gateway nothing is sent for the text message, and nothing is
    // said about it: the log holds the dispatch and the sent e-mails only.
    const std::vector<std::string> messages = log.messages();
    EXPECT_NE(std::find(messages.begin(), messages.end(), "Render complete"), messages.end()) << log.text();
    for (const std::string& message : messages) {
      bool expected = message.rfind("Render finished: ", 0) == 0 || message == "Render complete" ||
                      message == "Email sent successfully";
      EXPECT_TRUE(expected) << "unexpected log line: " << message;
    }
    EXPECT_EQ(log.count("Email sent successfully"), c.textTo ? 2u : 1u) << log.text();
  }
}

TEST_F(MailNotifications, MessagesNameTheComputerWithEachWordCapitalised) {
  struct Case {
    const char* host;
    const char* computer;
  };
  // Words of the host name are capitalised like any other text: a hyphen
  // starts a new word, and the rest of each word is lower case.
  const std::vector<Case> cases = {
      {"studio-mac", "Studio-Mac"},
      {"EDITBAY", "Editbay"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.host);
    relay_->forget();
    setHostName(c.host);
    Settings settings = mailSettings();
    settings["notifyText"] = 0;
    writeSettings(settings);
    AppController& controller = newController();

    controller.renderDidFail(description({{"type", "watchFile"},
                                          {"fullPath", "/Volumes/Out/clip.mov"},
                                          {"watchFilename", "clip.mov"}}));
    controller.waitForAsyncJobsWithTimeout(10);

    auto all = relay_->deliveries();
    ASSERT_EQ(all.size(), 1u) << describe(all);
    EXPECT_EQ(all[0].header("Subject"), "clip.mov Failed");
    EXPECT_EQ(all[0].body(),
              std::string("The file \"clip.mov\" in the watch folder \"/Volumes/Out\" on computer \"") + c.computer +
                  "\" failed to render.")
        << "the host name \"" << c.host << "\" must be quoted with each word capitalised";
  }
}

}  // namespace
