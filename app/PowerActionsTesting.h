// Test seam of the post-render power actions.
//
// The alert before a power action counts down 30 or 60 seconds. Tests that
// run every action end to end may shorten that countdown; the texts of the
// alert stay as the user sees them. Not for use outside tests.
#pragma once

#include <optional>

namespace PowerActionsTesting {

// nullopt restores the real countdowns.
void setAlertIntervalOverride(std::optional<int> seconds);

}  // namespace PowerActionsTesting
