// The whole start of the desktop application, from its command line to its event loop.
#pragma once

namespace quelm {

/// quelm [--volume PATH] [--results FILE] [KEXT...]; returns the exit status.
int runQuelm(int argc, char** argv);

} // namespace quelm
