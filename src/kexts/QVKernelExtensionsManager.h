// The kexts the user handed to the application, and where they go.
#pragma once

#include "kexts/QVKernelExtension.h"
#include "kexts/QVKernelExtensionFolder.h"

#include <string>
#include <vector>

namespace quelm {

class QVKernelExtensionsManager {
public:
    static QVKernelExtensionsManager& shared();

    /// Appends each URL whose extension is exactly "kext", unless an equal kext is listed.
    void addKernelExtensions(const std::vector<FileURL>& urls);
    /// The same for paths, each made a file URL (not a folder URL).
    void addKernelExtensions(const std::vector<std::string>& paths);

    /// Kexts to be installed, in the order they were added.
    std::vector<QVKernelExtension>& kextsTBI() { return kextsTBI_; }
    /// Kexts to be backed up before installation.
    std::vector<QVKernelExtension>& kextsTBB() { return kextsTBB_; }
    QVKernelExtensionFolder installationFolder() const { return installationFolder_; }
    void setInstallationFolder(QVKernelExtensionFolder folder) { installationFolder_ = folder; }
    /// Ends with "/": the backup folder's name is appended without a separator.
    const std::string& backupFolder() const { return backupFolder_; }
    void setBackupFolder(std::string folder) { backupFolder_ = std::move(folder); }

private:
    std::vector<QVKernelExtension> kextsTBI_;
    std::vector<QVKernelExtension> kextsTBB_;
    QVKernelExtensionFolder installationFolder_ = QVKernelExtensionFolder::LibraryExtensions;
    std::string backupFolder_ = "~/Desktop/";
};

} // namespace quelm
