// The helper's side of the channel: reads calls, runs each on its own thread, writes replies.
#pragma once

#include "helper/HelperOperations.h"

namespace quelm {

/// Whether the process at the other end of the channel socket is the user whom pkexec
/// authorised (PKEXEC_UID), or without pkexec the user who started the helper. Says why not.
bool peerIsAllowed(int channel);

/// Serves calls read from in, replying on out, until the application closes the channel (0)
/// or sends something malformed (1: the channel is closed at once, calls under way finish).
/// A one-way call runs at once: terminateHelper ends the process with status 0 immediately.
int serveHelper(HelperOperations& helper, int in, int out);

} // namespace quelm
