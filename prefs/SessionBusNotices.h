// What the preferences tool says to the rest of the session over the bus:
// the "MVQuillonConfigUpdate" reload notice, and a look at the desktop's
// notification server for the test command.
#pragma once

#include <optional>
#include <string>

// Posts "MVQuillonConfigUpdate" and waits until the bus has taken it, so the
// notice is not lost when the tool exits at once. False, with `problem`
// set, when there is no session bus.
bool postConfigUpdate(std::string& problem);

// "name version (vendor)" of the notification server on the session bus, or
// none with `problem` set.
std::optional<std::string> notificationServerName(std::string& problem);

// Sends the pending messages of the shared session-bus connection.
void flushSessionBus();
