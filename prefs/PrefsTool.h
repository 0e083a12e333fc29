// quillon-prefs: the command-line preferences application of Quillon.
//
// It is the one writer of the agent's settings file: it shows and changes
// the settings, keeps the SMTP password in the secret store, stores the
// text-message number encrypted, and after every change tells a running
// agent to reload ("MVQuillonConfigUpdate" on the session bus).
//
// Exit status: 0 done, 1 the request failed (nothing was changed), 2 the
// command line was wrong.
#pragma once

#include <string>
#include <vector>

int runPrefsTool(const std::vector<std::string>& arguments);

// Starts the tool's own log ("quillon-prefs"), once, without printing its
// troubles: the shared code that the tool uses reports there.
void startToolLog();
