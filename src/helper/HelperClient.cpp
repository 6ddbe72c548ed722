// The application's typed calls to the helper, one function per operation.
#include "helper/HelperClient.h"

#include "support/Log.h"

namespace quelm {
namespace {

const OperationEntry& operation(std::string_view selector) {
    const auto* found = findOperation(selector);
    if (!found)
        fatalError("HelperClient FatalError: unknown operation " + std::string(selector));
    return *found;
}

template <class T> std::optional<T> valueOf(std::optional<RemoteValue> reply) {
    if (!reply)
        return std::nullopt;
    return std::get<T>(std::move(*reply));
}

} // namespace

HelperClient::HelperClient(std::shared_ptr<HelperConnection> connection)
    : connection_(std::move(connection)) {
}

template <class T>
std::optional<T> HelperClient::wait(std::string_view selector, RemoteArguments arguments) {
    return valueOf<T>(connection_->callAndWait(operation(selector), std::move(arguments)));
}

template <class T> void HelperClient::send(std::string_view selector, Reply<T> reply) {
    connection_->call(operation(selector), {},
                      [reply = std::move(reply)](std::optional<RemoteValue> value) {
                          reply(valueOf<T>(std::move(value)));
                      });
}

std::optional<std::int64_t> HelperClient::test() {
    return wait<std::int64_t>("test:", {});
}

std::optional<std::int64_t> HelperClient::test2() {
    return wait<std::int64_t>("test2:", {});
}

std::optional<std::string> HelperClient::version() {
    return wait<std::string>("getHelperBundleVersion:", {});
}

std::optional<std::vector<std::string>> HelperClient::uninstall() {
    return wait<std::vector<std::string>>("uninstallHelper:", {});
}

std::optional<std::string> HelperClient::checkWritableVolume(const Volume& volume) {
    return wait<std::string>("checkWritableTargetVolume:reply:", {volume});
}

std::optional<std::vector<Kext>> HelperClient::installKexts(const std::vector<Kext>& kexts,
                                                            const std::string& folder,
                                                            const Volume& volume) {
    return wait<std::vector<Kext>>(
        "installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:",
        {kexts, folder, volume});
}

std::optional<std::vector<Kext>> HelperClient::backUpKexts(const std::vector<Kext>& kexts,
                                                           const std::string& installedInFolder,
                                                           const Volume& volume,
                                                           const std::string& backupFolder) {
    return wait<std::vector<Kext>>(
        "backupWithKernelExtensions:installedInFolder:onTargetVolume:toDestinationFolder:reply:",
        {kexts, installedInFolder, volume, backupFolder});
}

std::optional<std::vector<ResultRecord>> HelperClient::repairPermissions(const Volume& volume) {
    return wait<std::vector<ResultRecord>>("repairDiskPermissionsOnTargetVolume:reply:", {volume});
}

std::optional<bool> HelperClient::rebuildCaches(const Volume& volume) {
    return wait<bool>("rebuildCachesOnTargetVolume:reply:", {volume});
}

std::optional<std::vector<std::string>>
HelperClient::removeKexts(const std::vector<std::string>& kexts, const Volume& volume,
                          const std::string& backupFolder) {
    return wait<std::vector<std::string>>("removeKernelExtensions:fromVolume:backupFolder:reply:",
                                          {kexts, volume, backupFolder});
}

std::optional<std::vector<std::string>>
HelperClient::restoreKexts(const std::string& backup, const Volume& volume,
                           const std::string& backupFolder) {
    return wait<std::vector<std::string>>(
        "restoreKernelExtensionsFromBackupFolder:onTargetVolume:backupFolder:reply:",
        {backup, volume, backupFolder});
}

std::optional<bool> HelperClient::repairFolder(const std::string& folder, const Volume& volume) {
    return wait<bool>("repairWithFolder:onTargetVolume:reply:", {folder, volume});
}

std::optional<bool> HelperClient::setMaximumThreads(std::int64_t count) {
    return wait<bool>("changeMaximumThreadsNumber:reply:", {count});
}

std::optional<bool> HelperClient::applyBooterConfig(std::int64_t value) {
    return wait<bool>("applyBooterConfigViaNVRAMWithNewBooterConfig:reply:", {value});
}

std::optional<bool> HelperClient::installRepairTool(const std::string& source,
                                                    const std::string& destination) {
    return wait<bool>("installRepairPermissionFromSourcePath:toDestinationPath:reply:",
                      {source, destination});
}

std::optional<bool> HelperClient::uninstallRepairTool(const std::string& path) {
    return wait<bool>("uninstallRepairPermissionsFromPath:reply:", {path});
}

void HelperClient::terminate() {
    connection_->call(operation("terminateHelper"), {});
}

void HelperClient::test(Reply<std::int64_t> reply) {
    send("test:", std::move(reply));
}

void HelperClient::version(Reply<std::string> reply) {
    send("getHelperBundleVersion:", std::move(reply));
}

void HelperClient::uninstall(Reply<std::vector<std::string>> reply) {
    send("uninstallHelper:", std::move(reply));
}

} // namespace quelm
