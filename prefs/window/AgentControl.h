// AgentControl: whether the agent runs for this user, and starting it now
// and at every login.
//
// Where systemd manages the user's session the agent is the user unit
// "quillon.service", asked about and started through systemd's D-Bus
// interface on the session bus. Elsewhere the agent's single-instance lock
// tells whether it runs, it is started as a detached process, and an XDG
// autostart entry in the user's configuration starts it at login.
//
// Main thread; the bus calls are short and synchronous.
#pragma once

#include <string>

struct AgentState {
  bool running = false;
  bool startsAtLogin = false;
  bool systemd = false;  // managed by the user unit
};

class AgentControl {
 public:
  AgentControl() = delete;

  static AgentState state();
  // False with `error` set when it could not be started.
  static bool start(std::string& error);
  static bool setStartAtLogin(bool on, std::string& error);
  // The agent's program: beside this one, else the one on PATH.
  static std::string agentProgram();
};
