#include "PasswordInput.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <iterator>

namespace {

// Turns terminal echo off for its lifetime, and back on even when the
// user interrupts the prompt with an exception or return path.
class EchoOff {
 public:
  explicit EchoOff(int fd) : fd_(fd) {
    if (::tcgetattr(fd_, &saved_) != 0) return;
    termios quiet = saved_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    active_ = ::tcsetattr(fd_, TCSAFLUSH, &quiet) == 0;
  }
  ~EchoOff() {
    if (active_) ::tcsetattr(fd_, TCSAFLUSH, &saved_);
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  int fd_;
  termios saved_{};
  bool active_ = false;
};

std::optional<std::string> promptOnce(const std::string& prompt) {
  std::fprintf(stderr, "%s", prompt.c_str());
  std::fflush(stderr);
  EchoOff quiet(STDIN_FILENO);
  std::string line;
  if (!std::getline(std::cin, line)) return std::nullopt;
  return line;
}

}  // namespace

std::optional<std::string> readSecret(const std::string& prompt, std::string& error) {
  if (!::isatty(STDIN_FILENO)) {
    std::string all((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    if (!all.empty() && all.back() == '\n') all.pop_back();
    if (!all.empty() && all.back() == '\r') all.pop_back();
    if (all.empty()) {
      error = "no password on standard input";
      return std::nullopt;
    }
    return all;
  }
  auto first = promptOnce(prompt + ": ");
  if (!first || first->empty()) {
    error = "no password entered";
    return std::nullopt;
  }
  auto second = promptOnce("Again, to confirm: ");
  if (!second || *second != *first) {
    error = "the two entries differ";
    return std::nullopt;
  }
  return first;
}
