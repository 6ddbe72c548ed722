// The helper's side of the channel: reads calls, runs each on its own thread, writes replies.
#include "helper/HelperServer.h"

#include "support/Log.h"

#include <atomic>
#include <list>
#include <memory>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace quelm {
namespace {

/// One call under way; done once its reply is written.
struct RunningCall {
    std::shared_ptr<std::atomic<bool>> done = std::make_shared<std::atomic<bool>>(false);
    std::jthread thread;
};

/// Joins the calls that have replied, so that a long session keeps no thread per call.
void joinFinished(std::list<RunningCall>& calls) {
    calls.remove_if([](const RunningCall& call) { return call.done->load(); });
}

} // namespace

bool peerIsAllowed(int channel) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(channel, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        logLine("QVXPCHelper::Error: the channel is not a socket of the application; exiting.");
        return false;
    }
    if (peer.uid != callerUid()) {
        logLine("QVXPCHelper::Error: the channel's peer (uid " + std::to_string(peer.uid) +
                ") is not the user who started the helper; exiting.");
        return false;
    }
    return true;
}

int serveHelper(HelperOperations& helper, int in, int out) {
    FrameWriter writer(out);
    FrameReader reader(in);
    helper.setConnection(&writer);
    // Declared after the writer: calls still under way finish before it goes.
    std::list<RunningCall> calls;
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
        // A one-way call (terminateHelper) acts at once, ahead of the calls under way.
        if (!call->id) {
            helper.perform(*call);
            continue;
        }
        joinFinished(calls);
        auto& running = calls.emplace_back();
        running.thread =
            std::jthread([&helper, &writer, done = running.done, call = std::move(*call)] {
                writer.writeFrame(frameOfBody(encodeReplyPlist(*call.id, helper.perform(call))));
                *done = true;
            });
    }
    calls.clear();
    helper.setConnection(nullptr);
    return 0;
}

} // namespace quelm
