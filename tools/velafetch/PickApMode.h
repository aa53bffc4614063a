#ifndef VELAFETCH_PICKAPMODE_H
#define VELAFETCH_PICKAPMODE_H

// velafetch --pick-ap NAME...: the access point picker dialog. The chosen
// name is printed on standard output and saved as the access point (the
// access point file; --iap-file says where). Needs a QApplication.

#include "Options.h"

namespace velafetch {

// Runs the mode; returns the exit status (1 when the dialog was closed
// without a choice).
[[nodiscard]] int RunPickAp(const Options& options);

}  // namespace velafetch

#endif
