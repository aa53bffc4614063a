#ifndef VELAFETCH_UPLOADMODE_H
#define VELAFETCH_UPLOADMODE_H

// velafetch --upload-resumable URL-HOST KEY FILE: the resumable block upload
// of one file through one HTTP engine, with progress from the server's
// replies (how many bytes of the file it holds).

#include "Options.h"

namespace velafetch {

// Runs the mode on the current event loop; returns the exit status.
[[nodiscard]] int RunUploadResumable(const Options& options);

}  // namespace velafetch

#endif
