// libFuzzer target: the channel's frame and message decoders on arbitrary bytes, as the
// helper reads calls and as the application reads replies, must refuse or decode, never crash,
// and never hold more than a few times the budget for a list of the input's size.
#include "AllocationPeak.h"
#include "helper/Channel.h"
#include "helper/RemoteProtocol.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

void decodeEveryWay(const std::string& body) {
    const auto message = quelm::BinaryPlistDocument::open(body);
    if (!message)
        return;
    if (const auto whole = message->read(message->top())) {
        (void)quelm::decodeCall(*whole, quelm::Sender::application);
        (void)quelm::decodeCall(*whole, quelm::Sender::helper);
    }
    const auto reply = quelm::decodeReplyEnvelope(*message);
    if (!reply)
        return;
    for (const auto& operation : quelm::remoteOperations())
        if (operation.reply)
            (void)quelm::decodeValue(*message, reply->value, *operation.reply);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const quelm::fuzz::AllocationPeak peak;
    std::string buffer(reinterpret_cast<const char*>(data), size);
    for (;;) {
        auto frame = quelm::takeFrameBody(buffer);
        if (!frame || !*frame)
            break;
        decodeEveryWay(**frame);
    }
    // Each frame is decoded whole, then again as each reply type; no frame is larger than
    // the input.
    peak.require(4 * quelm::plistReadBudget(size), size);
    return 0;
}
