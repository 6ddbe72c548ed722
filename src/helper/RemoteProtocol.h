// The one table of remote operations between the application and the helper, and the
// encoding of calls, replies and their values as property lists.
#pragma once

#include "kexts/Kext.h"
#include "repair/RepairResult.h"
#include "support/BinaryPlistCheck.h"
#include "support/Error.h"
#include "support/PropertyList.h"
#include "volumes/Volume.h"

#include <array>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quelm {

enum class ValueType {
    boolean,
    integer,
    real,
    string,
    stringArray,
    volume,
    kextArray,
    resultArray
};

/// One argument or reply value as it crosses the channel.
using RemoteValue = std::variant<bool, std::int64_t, double, std::string, std::vector<std::string>,
                                 Volume, std::vector<Kext>, std::vector<ResultRecord>>;

/// Who sends a call: the application calls the helper; the helper only reports progress.
enum class Sender { application, helper };

struct RemoteOperation {
    /// The full selector, which is the operation's name on the wire.
    std::string_view selector;
    Sender sender;
    std::vector<ValueType> arguments;
    /// The type of the reply's one value; none for a one-way call.
    std::optional<ValueType> reply;
};

/// Every operation, in one place: the encoder, the decoder and the dispatcher use it.
const std::vector<RemoteOperation>& remoteOperations();
/// The operation with that selector, or null.
const RemoteOperation* findRemoteOperation(std::string_view selector);

struct RemoteCall {
    /// None for a one-way call.
    std::optional<std::int64_t> id;
    const RemoteOperation* operation;
    std::vector<RemoteValue> arguments;
};

/// A reply's id, and its value still in the frame: the value is decoded against the pending
/// call's type, an object of a list at a time.
struct RemoteReply {
    std::int64_t id;
    BinaryPlistDocument::Ref value;
};

/// {"id": n, "op": selector, "args": [...]}, without "id" for a one-way call.
PlistValue encodeCall(const RemoteCall& call);
/// {"id": n, "reply": [value]} as a binary property list, written an object of a list at a
/// time: a reply of 100,000 results never becomes one tree.
std::string encodeReplyPlist(std::int64_t id, const RemoteValue& value);

/// A call sent by sender: a known operation of that sender, a well-typed "id" exactly when it
/// expects a reply, and every argument of its type and allowed class.
[[nodiscard]] std::expected<RemoteCall, Error> decodeCall(const PlistValue& message, Sender sender);
/// The id of a reply and its value still encoded, to be decoded against the pending call.
[[nodiscard]] std::expected<RemoteReply, Error>
decodeReplyEnvelope(const BinaryPlistDocument& message);
/// A value of the given type, refusing anything else (wrong class, missing or mistyped key).
[[nodiscard]] std::expected<RemoteValue, Error> decodeValue(const PlistValue& value,
                                                            ValueType type);
/// The same for a value in a frame; the elements of a list of objects are read one by one.
[[nodiscard]] std::expected<RemoteValue, Error>
decodeValue(const BinaryPlistDocument& document, BinaryPlistDocument::Ref ref, ValueType type);

} // namespace quelm
