#ifndef VELAFETCH_FETCHMODE_H
#define VELAFETCH_FETCHMODE_H

// velafetch [options] URL...: every URL through one pool, bodies to standard
// output (in URL order, one at a time) or to files (in parallel).

#include "Options.h"

#include <QString>

namespace velafetch {

// Exit statuses of the program.
enum ExitStatus
{
    KExitOk = 0,
    KExitFailed = 1,  // a transfer (or the mode's work) failed
    KExitUsage = 2,   // bad command line or unusable setting
};

// Applies the settings shared by the HTTP modes (DNS cache directory, DNS
// gateway, CA certificates, proxies); false with the reason in error.
[[nodiscard]] bool ApplyNetworkSettings(const Options& options, QString& error);
// The proxy setting from the environment, then -x and --noproxy over it.
[[nodiscard]] bool ApplyProxySettings(const Options& options, QString& error);

// Runs the fetch mode on the current event loop; returns the exit status.
[[nodiscard]] int RunFetch(const Options& options);

// One line on stderr: "velafetch: " + text.
void PrintError(const QString& text);

}  // namespace velafetch

#endif
