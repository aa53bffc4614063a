#ifndef VELAFETCH_TCPMODE_H
#define VELAFETCH_TCPMODE_H

// velafetch --tcp HOST:PORT: one raw long-lived connection from the
// connection factory. Lines read from standard input are sent as they are,
// received bytes go to standard output unchanged, and the peer's close ends
// the program.

#include "Options.h"

namespace velafetch {

// Runs the mode on the current event loop; returns the exit status.
[[nodiscard]] int RunTcp(const Options& options);

}  // namespace velafetch

#endif
