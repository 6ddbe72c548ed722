// The one table of remote operations between the application and the helper, and the
// encoding of calls, replies and their values as property lists.
#include "helper/RemoteProtocol.h"

#include "support/BinaryPlistWriter.h"
#include "support/KeyedArchive.h"

namespace quelm {
namespace {

using enum ValueType;

std::unexpected<Error> refuse(std::string message) {
    return std::unexpected(Error{std::move(message)});
}

template <class T> PlistValue archiveArray(const std::vector<T>& objects) {
    PlistValue::Array items;
    items.reserve(objects.size());
    for (const auto& object : objects)
        items.push_back(archive(object));
    return items;
}

template <class T> std::expected<RemoteValue, Error> unarchiveArray(const PlistValue& value) {
    const auto* items = value.array();
    if (!items)
        return refuse("expected an array of " + std::string(T::className));
    std::vector<T> objects;
    objects.reserve(items->size());
    for (const auto& item : *items) {
        auto object = unarchive<T>(item);
        if (!object)
            return refuse(object.error().message);
        objects.push_back(std::move(*object));
    }
    return RemoteValue(std::move(objects));
}

std::expected<RemoteValue, Error> decodeStrings(const PlistValue& value) {
    const auto* items = value.array();
    if (!items)
        return refuse("expected an array of strings");
    std::vector<std::string> strings;
    for (const auto& item : *items) {
        if (!item.string())
            return refuse("expected an array of strings");
        strings.push_back(*item.string());
    }
    return RemoteValue(std::move(strings));
}

template <class T>
std::expected<RemoteValue, Error> scalar(const PlistValue& value, const char* what) {
    if (const auto* held = value.get<T>())
        return RemoteValue(*held);
    return refuse(std::string("expected ") + what);
}

PlistValue encodeValue(const RemoteValue& value) {
    return std::visit(
        [](const auto& held) -> PlistValue {
            using T = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<T, std::vector<std::string>>)
                return PlistValue::Array(held.begin(), held.end());
            else if constexpr (std::is_same_v<T, Volume>)
                return archive(held);
            else if constexpr (std::is_same_v<T, std::vector<Kext>> ||
                               std::is_same_v<T, std::vector<ResultRecord>>)
                return archiveArray(held);
            else
                return PlistValue(held);
        },
        value);
}

std::expected<std::vector<RemoteValue>, Error> decodeArguments(const PlistValue& message,
                                                               const RemoteOperation& operation) {
    const auto* args = message.find("args");
    if (!args || !args->array() || args->array()->size() != operation.arguments.size())
        return refuse(std::string(operation.selector) + ": wrong number of arguments");
    std::vector<RemoteValue> arguments;
    for (std::size_t i = 0; i < operation.arguments.size(); ++i) {
        auto argument = decodeValue((*args->array())[i], operation.arguments[i]);
        if (!argument)
            return refuse(std::string(operation.selector) + ": argument " + std::to_string(i + 1) +
                          ": " + argument.error().message);
        arguments.push_back(std::move(*argument));
    }
    return arguments;
}

/// Adds each object's archive and drops it before the next: the stream never holds a tree of
/// the whole list.
template <class T>
BinaryPlistStream::Ref streamArchives(BinaryPlistStream& stream, const std::vector<T>& objects) {
    std::vector<BinaryPlistStream::Ref> items;
    items.reserve(objects.size());
    for (const auto& object : objects)
        items.push_back(stream.add(archive(object)));
    return stream.addArray(items);
}

BinaryPlistStream::Ref streamValue(BinaryPlistStream& stream, const RemoteValue& value) {
    if (const auto* kexts = std::get_if<std::vector<Kext>>(&value))
        return streamArchives(stream, *kexts);
    if (const auto* results = std::get_if<std::vector<ResultRecord>>(&value))
        return streamArchives(stream, *results);
    return stream.add(encodeValue(value));
}

/// Each element of an array of objects decoded on its own, never the whole list at once.
template <class T>
std::expected<RemoteValue, Error> unarchiveItems(const BinaryPlistDocument& document,
                                                 BinaryPlistDocument::Ref ref) {
    const auto items = document.items(ref);
    if (!items)
        return refuse("expected an array of " + std::string(T::className));
    std::vector<T> objects;
    objects.reserve(items->size());
    for (const auto item : *items) {
        const auto value = document.read(item);
        auto object = value ? unarchive<T>(*value) : std::unexpected(Error{"unreadable"});
        if (!object)
            return refuse(object.error().message);
        objects.push_back(std::move(*object));
    }
    return RemoteValue(std::move(objects));
}

} // namespace

const std::vector<RemoteOperation>& remoteOperations() {
    using enum Sender;
    static const std::vector<RemoteOperation> operations{
        {"test:", application, {}, integer},
        {"terminateHelper", application, {}, std::nullopt},
        {"uninstallHelper:", application, {}, stringArray},
        {"getHelperBundleVersion:", application, {}, string},
        {"repairWithFolder:onTargetVolume:reply:", application, {string, volume}, boolean},
        {"repairDiskPermissionsOnTargetVolume:reply:", application, {volume}, resultArray},
        {"rebuildCachesOnTargetVolume:reply:", application, {volume}, boolean},
        {"test2:", application, {}, integer},
        {"installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:",
         application,
         {kextArray, string, volume},
         kextArray},
        {"backupWithKernelExtensions:installedInFolder:onTargetVolume:toDestinationFolder:reply:",
         application,
         {kextArray, string, volume, string},
         kextArray},
        {"changeMaximumThreadsNumber:reply:", application, {integer}, boolean},
        {"installRepairPermissionFromSourcePath:toDestinationPath:reply:",
         application,
         {string, string},
         boolean},
        {"uninstallRepairPermissionsFromPath:reply:", application, {string}, boolean},
        {"applyBooterConfigViaNVRAMWithNewBooterConfig:reply:", application, {integer}, boolean},
        {"checkWritableTargetVolume:reply:", application, {volume}, string},
        {"removeKernelExtensions:fromVolume:backupFolder:reply:",
         application,
         {stringArray, volume, string},
         stringArray},
        {"restoreKernelExtensionsFromBackupFolder:onTargetVolume:backupFolder:reply:",
         application,
         {string, volume, string},
         stringArray},
        {"updateProgressWithDoubleValue:", helper, {real}, std::nullopt},
    };
    return operations;
}

const RemoteOperation* findRemoteOperation(std::string_view selector) {
    for (const auto& operation : remoteOperations())
        if (operation.selector == selector)
            return &operation;
    return nullptr;
}

std::expected<RemoteValue, Error> decodeValue(const PlistValue& value, ValueType type) {
    switch (type) {
    case boolean:
        return scalar<bool>(value, "a boolean");
    case integer:
        return scalar<std::int64_t>(value, "an integer");
    case real:
        return scalar<double>(value, "a real");
    case string:
        return scalar<std::string>(value, "a string");
    case stringArray:
        return decodeStrings(value);
    case volume: {
        auto decoded = unarchive<Volume>(value);
        if (!decoded)
            return refuse(decoded.error().message);
        return RemoteValue(std::move(*decoded));
    }
    case kextArray:
        return unarchiveArray<Kext>(value);
    case resultArray:
        return unarchiveArray<ResultRecord>(value);
    }
    return refuse("unknown value type");
}

PlistValue encodeCall(const RemoteCall& call) {
    PlistValue::Array args;
    for (const auto& argument : call.arguments)
        args.push_back(encodeValue(argument));
    PlistValue::Dict message{{"op", std::string(call.operation->selector)},
                             {"args", std::move(args)}};
    if (call.id)
        message.emplace("id", *call.id);
    return message;
}

std::string encodeReplyPlist(std::int64_t id, const RemoteValue& value) {
    // Four-byte references: enough for any frame the channel takes, known before the first.
    BinaryPlistStream stream(4);
    const std::array keys{stream.addText("id"), stream.addText("reply")};
    const BinaryPlistStream::Ref reply[] = {streamValue(stream, value)};
    const std::array values{stream.add(id), stream.addArray(reply)};
    return std::move(stream).finish(stream.addDict(keys, values));
}

std::expected<RemoteCall, Error> decodeCall(const PlistValue& message, Sender sender) {
    if (!message.dict())
        return refuse("a message must be a dictionary");
    const auto* selector = message.stringForKey("op");
    const auto* operation = selector ? findRemoteOperation(*selector) : nullptr;
    if (!operation || operation->sender != sender)
        return refuse("unknown operation " + (selector ? *selector : std::string("(none)")));
    const auto* id = message.find("id");
    if (operation->reply.has_value() != (id != nullptr) || (id && !id->is<std::int64_t>()))
        return refuse(std::string(operation->selector) + ": missing or unexpected call id");
    auto arguments = decodeArguments(message, *operation);
    if (!arguments)
        return std::unexpected(arguments.error());
    return RemoteCall{id ? std::optional(*id->get<std::int64_t>()) : std::nullopt, operation,
                      std::move(*arguments)};
}

std::expected<RemoteReply, Error> decodeReplyEnvelope(const BinaryPlistDocument& message) {
    const auto idRef = message.entry(message.top(), "id");
    const auto id = idRef ? message.read(*idRef) : std::unexpected(Error{});
    const auto replyRef = message.entry(message.top(), "reply");
    const auto reply = replyRef ? message.items(*replyRef) : std::nullopt;
    if (!id || !id->is<std::int64_t>() || !reply || reply->size() != 1)
        return refuse("a reply must carry an integer id and one value");
    return RemoteReply{*id->get<std::int64_t>(), reply->front()};
}

std::expected<RemoteValue, Error> decodeValue(const BinaryPlistDocument& document,
                                              BinaryPlistDocument::Ref ref, ValueType type) {
    if (type == ValueType::kextArray)
        return unarchiveItems<Kext>(document, ref);
    if (type == ValueType::resultArray)
        return unarchiveItems<ResultRecord>(document, ref);
    const auto value = document.read(ref);
    if (!value)
        return refuse(value.error().message);
    return decodeValue(*value, type);
}

} // namespace quelm
