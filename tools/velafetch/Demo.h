#ifndef VELAFETCH_DEMO_H
#define VELAFETCH_DEMO_H

// velafetch --demo: starts the sample site (DemoServer) and loads it the way
// the browser does: the page under the page id (whose redirect the pool only
// reports, so the demo requests the new location itself), then the style
// sheet, the images and the download under their ids, with cookies enabled
// and saved and a DNS cache, both in temporary directories. Prints a
// transcript, checks every body against the site, and ends with a summary.

#include "Options.h"

namespace velafetch {

// Runs the demo on the current event loop; 0 when everything worked.
[[nodiscard]] int RunDemo(const Options& options);

}  // namespace velafetch

#endif
