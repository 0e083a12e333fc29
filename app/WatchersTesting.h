// Test seam of the render-source watchers: the Premiere preview folders are
// looked up again every 600 seconds, which no test can wait out.
#pragma once

namespace quillon {

// The interval of the Premiere refresh timers armed from now on; a value of
// 0 or less restores the 600 seconds.
void setPremiereRefreshSecondsForTesting(double seconds);

}  // namespace quillon
