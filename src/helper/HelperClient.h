// The application's typed calls to the helper, one function per operation.
#pragma once

#include "helper/HelperConnection.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quelm {

/// The blocking forms wait on the calling thread: a job's worker thread, never the GUI's.
class HelperClient {
public:
    template <class T> using Reply = std::function<void(std::optional<T>)>;

    explicit HelperClient(std::shared_ptr<HelperConnection> connection);

    // Each gives nothing when the channel broke before the reply came.
    std::optional<std::int64_t> test();
    std::optional<std::int64_t> test2();
    std::optional<std::string> version();
    /// The helper's files that could not be removed.
    std::optional<std::vector<std::string>> uninstall();
    std::optional<std::string> checkWritableVolume(const Volume& volume);
    std::optional<std::vector<Kext>> installKexts(const std::vector<Kext>& kexts,
                                                  const std::string& folder, const Volume& volume);
    std::optional<std::vector<Kext>> backUpKexts(const std::vector<Kext>& kexts,
                                                 const std::string& installedInFolder,
                                                 const Volume& volume,
                                                 const std::string& backupFolder);
    std::optional<std::vector<ResultRecord>> repairPermissions(const Volume& volume);
    std::optional<bool> rebuildCaches(const Volume& volume);
    std::optional<std::vector<std::string>> removeKexts(const std::vector<std::string>& kexts,
                                                        const Volume& volume,
                                                        const std::string& backupFolder);
    std::optional<std::vector<std::string>>
    restoreKexts(const std::string& backup, const Volume& volume, const std::string& backupFolder);
    std::optional<bool> repairFolder(const std::string& folder, const Volume& volume);
    std::optional<bool> setMaximumThreads(std::int64_t count);
    std::optional<bool> applyBooterConfig(std::int64_t value);
    std::optional<bool> installRepairTool(const std::string& source,
                                          const std::string& destination);
    std::optional<bool> uninstallRepairTool(const std::string& path);
    /// Asks the helper to exit at once; nothing comes back.
    void terminate();

    // The same, the reply running on the connection's reader thread.
    void test(Reply<std::int64_t> reply);
    void version(Reply<std::string> reply);
    void uninstall(Reply<std::vector<std::string>> reply);

private:
    template <class T> std::optional<T> wait(std::string_view selector, RemoteArguments arguments);
    template <class T> void send(std::string_view selector, Reply<T> reply);

    std::shared_ptr<HelperConnection> connection_;
};

} // namespace quelm
