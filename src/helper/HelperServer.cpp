// The helper's side of the channel: reads calls, runs each on its own thread, writes replies.
#include "helper/HelperServer.h"

#include "support/Log.h"

#include <cstdio>
#include <list>
#include <thread>
#include <unistd.h>

namespace quelm {

int serveHelper(QVXPCVESKHelper& helper, int in, int out) {
    FrameWriter writer(out);
    FrameReader reader(in);
    helper.setConnection(&writer);
    // Declared after the writer: calls still under way finish before it goes.
    std::list<std::jthread> calls;
    for (;;) {
        auto message = reader.read();
        if (message && !*message)
            break;
        auto call =
            message ? decodeCall(**message, Sender::application) : std::unexpected(message.error());
        if (!call) {
            logLine("QVXPCHelper::Error: closing the connection: " + call.error().message);
            ::close(in);
            calls.clear();
            helper.setConnection(nullptr);
            return 1;
        }
        if (call->operation->selector == "terminateHelper") {
            std::fflush(stderr);
            ::_exit(0);
        }
        calls.emplace_back([&helper, &writer, call = std::move(*call)] {
            writer.write(encodeReply(*call.id, helper.perform(call)));
        });
    }
    calls.clear();
    helper.setConnection(nullptr);
    return 0;
}

} // namespace quelm
