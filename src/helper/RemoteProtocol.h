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

/// What an argument must be: its type on the wire and what the helper accepts of it. The
/// decoder checks both, so that no operation receives a path or volume it would have to refuse.
enum class ArgumentKind {
    integer,
    /// One or more.
    positiveInteger,
    real,
    /// A clean absolute path: no "." or ".." component.
    path,
    /// A folder of a volume as the folder policy names it: "/Library/Extensions/".
    volumeFolder,
    /// A clean absolute path where nothing is yet: a backup folder about to be made.
    newFolder,
    stringList,
    kextList,
    /// The clean absolute mount point of an existing folder, with a data volume only when it is
    /// a system volume's.
    volume,
};

class HelperOperations;
using RemoteArguments = std::vector<RemoteValue>;

struct OperationEntry {
    /// The full selector, which is the operation's name on the wire.
    std::string_view selector;
    Sender sender;
    std::vector<ArgumentKind> arguments;
    /// The type of the reply's one value; none for a one-way call.
    std::optional<ValueType> reply;
    /// Runs a call that the helper serves; null for what the helper sends.
    RemoteValue (*handler)(HelperOperations&, const RemoteArguments&) = nullptr;
    /// The reply to a call whose arguments are well typed but refused: what the caller takes
    /// for failure. Null when such a call breaks the channel instead.
    RemoteValue (*refusal)(const RemoteArguments&) = nullptr;
};

/// Every operation, in one place: the encoder, the decoder and the dispatcher use it.
const std::vector<OperationEntry>& remoteOperations();
/// The operation with that selector, or null.
const OperationEntry* findOperation(std::string_view selector);

struct RemoteCall {
    /// None for a one-way call.
    std::optional<std::int64_t> id;
    const OperationEntry* operation;
    RemoteArguments arguments;
    /// Why an argument was refused, for a call that gets its operation's refusal as reply.
    std::optional<std::string> refused;
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
/// expects a reply, and every argument of its type and allowed class. An argument of the wrong
/// kind marks the call refused, or refuses it here when its operation has no refusal reply.
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
