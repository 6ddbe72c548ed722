// The one table of remote operations between the application and the helper, and the
// encoding of calls, replies and their values as property lists.
#include "helper/RemoteProtocol.h"

#include "helper/HelperOperations.h"
#include "support/BinaryPlistWriter.h"
#include "support/KeyedArchive.h"
#include "support/PathValidation.h"

#include <filesystem>
#include <utility>

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

ValueType typeOf(ArgumentKind kind) {
    switch (kind) {
    case ArgumentKind::integer:
    case ArgumentKind::positiveInteger:
        return integer;
    case ArgumentKind::real:
        return real;
    case ArgumentKind::path:
    case ArgumentKind::volumeFolder:
    case ArgumentKind::newFolder:
        return string;
    case ArgumentKind::stringList:
        return stringArray;
    case ArgumentKind::kextList:
        return kextArray;
    case ArgumentKind::volume:
        return volume;
    }
    return string;
}

bool isAcceptableVolume(const Volume& volume) {
    std::error_code error;
    const auto& data = volume.dataMountPoint();
    // A data volume is joined only to a system volume, and must be one itself.
    return isCleanAbsolutePath(volume.mountPoint()) &&
           std::filesystem::is_directory(volume.mountPoint(), error) &&
           (!data || (volume.isSystemVolume() && isCleanAbsolutePath(*data) &&
                      Volume::kindOf(*data) == VolumeKind::data));
}

bool isNewFolder(const std::string& path) {
    std::error_code error;
    return isCleanAbsolutePath(path) && !path.ends_with("/") &&
           !std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

/// Why an argument of the right type is still not one of its kind; nothing when it is.
std::optional<std::string> kindRefusal(ArgumentKind kind, const RemoteValue& value) {
    const auto* text = std::get_if<std::string>(&value);
    switch (kind) {
    case ArgumentKind::positiveInteger:
        if (std::get<std::int64_t>(value) < 1)
            return "not a positive integer";
        break;
    case ArgumentKind::path:
        if (!isCleanAbsolutePath(*text))
            return *text + " is not a clean absolute path";
        break;
    case ArgumentKind::volumeFolder:
        if (!isVolumeFolder(*text))
            return *text + " is not a folder of a volume such as /Library/Extensions/";
        break;
    case ArgumentKind::newFolder:
        if (!isNewFolder(*text))
            return *text + " is not a clean absolute path where nothing is yet";
        break;
    case ArgumentKind::volume:
        if (!isAcceptableVolume(std::get<Volume>(value)))
            return std::get<Volume>(value).mountPoint() +
                   " is not a folder that can be the target volume";
        break;
    default:
        break;
    }
    return std::nullopt;
}

std::expected<RemoteArguments, Error> decodeArguments(const PlistValue& message,
                                                      const OperationEntry& operation) {
    const auto* args = message.find("args");
    if (!args || !args->array() || args->array()->size() != operation.arguments.size())
        return refuse(std::string(operation.selector) + ": wrong number of arguments");
    RemoteArguments arguments;
    for (std::size_t i = 0; i < operation.arguments.size(); ++i) {
        auto argument = decodeValue((*args->array())[i], typeOf(operation.arguments[i]));
        if (!argument)
            return refuse(std::string(operation.selector) + ": argument " + std::to_string(i + 1) +
                          ": " + argument.error().message);
        arguments.push_back(std::move(*argument));
    }
    return arguments;
}

/// The first argument not of its kind, in words; nothing when all are.
std::optional<std::string> argumentRefusal(const OperationEntry& operation,
                                           const RemoteArguments& arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i)
        if (auto refusal = kindRefusal(operation.arguments[i], arguments[i]))
            return std::string(operation.selector) + ": argument " + std::to_string(i + 1) + ": " +
                   *refusal;
    return std::nullopt;
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

/// A handler that passes the decoded arguments, in order, to the method of that name.
template <class Result, class... Parameters>
RemoteValue invoke(HelperOperations& helper,
                   Result (HelperOperations::*method)(Parameters...) const,
                   const RemoteArguments& arguments) {
    return [&]<std::size_t... i>(std::index_sequence<i...>) {
        return RemoteValue(
            (helper.*method)(std::get<std::remove_cvref_t<Parameters>>(arguments[i])...));
    }
    (std::index_sequence_for<Parameters...>{});
}

template <auto method>
RemoteValue handle(HelperOperations& helper, const RemoteArguments& arguments) {
    return invoke(helper, method, arguments);
}

RemoteValue terminateHelper(HelperOperations& helper, const RemoteArguments&) {
    helper.terminate();
}

RemoteValue refuseWithFalse(const RemoteArguments&) {
    return false;
}

RemoteValue refuseWithNoResults(const RemoteArguments&) {
    return std::vector<ResultRecord>{};
}

/// Every kext or path of the first argument failed.
RemoteValue refuseAllOfTheFirst(const RemoteArguments& arguments) {
    return arguments.front();
}

RemoteValue refuseTheBackup(const RemoteArguments& arguments) {
    return std::vector{std::get<std::string>(arguments.front())};
}

RemoteValue refuseTheVolume(const RemoteArguments& arguments) {
    return std::get<Volume>(arguments.front()).mountPoint() +
           " is not a folder that can be the target volume.";
}

} // namespace

const std::vector<OperationEntry>& remoteOperations() {
    using enum Sender;
    using enum ArgumentKind;
    using H = HelperOperations;
    static const std::vector<OperationEntry> operations{
        {"test:", application, {}, ValueType::integer, handle<&H::test>},
        {"terminateHelper", application, {}, std::nullopt, terminateHelper},
        {"uninstallHelper:", application, {}, stringArray, handle<&H::uninstall>},
        {"getHelperBundleVersion:", application, {}, string, handle<&H::version>},
        {"repairWithFolder:onTargetVolume:reply:",
         application,
         {volumeFolder, volume},
         boolean,
         handle<&H::repairFolder>,
         refuseWithFalse},
        {"repairDiskPermissionsOnTargetVolume:reply:",
         application,
         {volume},
         resultArray,
         handle<&H::repairPermissions>,
         refuseWithNoResults},
        {"rebuildCachesOnTargetVolume:reply:",
         application,
         {volume},
         boolean,
         handle<&H::rebuildCaches>,
         refuseWithFalse},
        {"test2:", application, {}, ValueType::integer, handle<&H::test2>},
        {"installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:",
         application,
         {kextList, volumeFolder, volume},
         kextArray,
         handle<&H::installKexts>,
         refuseAllOfTheFirst},
        {"backupWithKernelExtensions:installedInFolder:onTargetVolume:toDestinationFolder:reply:",
         application,
         {kextList, volumeFolder, volume, newFolder},
         kextArray,
         handle<&H::backUpKexts>,
         refuseAllOfTheFirst},
        // Zero threads would stop the next pass: refused rather than let a later job die.
        {"changeMaximumThreadsNumber:reply:",
         application,
         {positiveInteger},
         boolean,
         handle<&H::setMaximumThreads>,
         refuseWithFalse},
        {"installRepairPermissionFromSourcePath:toDestinationPath:reply:",
         application,
         {path, path},
         boolean,
         handle<&H::installRepairTool>,
         refuseWithFalse},
        {"uninstallRepairPermissionsFromPath:reply:",
         application,
         {path},
         boolean,
         handle<&H::uninstallRepairTool>,
         refuseWithFalse},
        {"applyBooterConfigViaNVRAMWithNewBooterConfig:reply:",
         application,
         {ArgumentKind::integer},
         boolean,
         handle<&H::applyBooterConfig>},
        {"checkWritableTargetVolume:reply:",
         application,
         {volume},
         string,
         handle<&H::checkWritableVolume>,
         refuseTheVolume},
        {"removeKernelExtensions:fromVolume:backupFolder:reply:",
         application,
         {stringList, volume, newFolder},
         stringArray,
         handle<&H::removeKexts>,
         refuseAllOfTheFirst},
        {"restoreKernelExtensionsFromBackupFolder:onTargetVolume:backupFolder:reply:",
         application,
         {path, volume, newFolder},
         stringArray,
         handle<&H::restoreKexts>,
         refuseTheBackup},
        {"updateProgressWithDoubleValue:", helper, {ArgumentKind::real}, std::nullopt},
    };
    return operations;
}

const OperationEntry* findOperation(std::string_view selector) {
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
    const auto* operation = selector ? findOperation(*selector) : nullptr;
    if (!operation || operation->sender != sender)
        return refuse("unknown operation " + (selector ? *selector : std::string("(none)")));
    const auto* id = message.find("id");
    if (operation->reply.has_value() != (id != nullptr) || (id && !id->is<std::int64_t>()))
        return refuse(std::string(operation->selector) + ": missing or unexpected call id");
    auto arguments = decodeArguments(message, *operation);
    if (!arguments)
        return std::unexpected(arguments.error());
    auto refused = argumentRefusal(*operation, *arguments);
    if (refused && !operation->refusal)
        return refuse(*refused);
    return RemoteCall{id ? std::optional(*id->get<std::int64_t>()) : std::nullopt, operation,
                      std::move(*arguments), std::move(refused)};
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
