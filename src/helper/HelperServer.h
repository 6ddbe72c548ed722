// The helper's side of the channel: reads calls, runs each on its own thread, writes replies.
#pragma once

#include "helper/QVXPCVESKHelper.h"

namespace quelm {

/// Serves calls read from in, replying on out, until the application closes the channel (0)
/// or sends something malformed (1: the channel is closed at once, calls under way finish).
/// terminateHelper ends the process with status 0 immediately.
int serveHelper(QVXPCVESKHelper& helper, int in, int out);

} // namespace quelm
