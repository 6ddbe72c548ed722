// The kexts the user handed to the application, and where they go.
#pragma once

#include "kexts/Kext.h"
#include "kexts/KextFolder.h"

#include <string>
#include <vector>

namespace quelm {

class KextIntake {
public:
    static KextIntake& shared();

    /// Appends each URL whose extension is exactly "kext", unless an equal kext is listed.
    void addKernelExtensions(const std::vector<FileURL>& urls);
    /// The same for paths, each made a file URL (not a folder URL).
    void addKernelExtensions(const std::vector<std::string>& paths);

    /// Kexts to be installed, in the order they were added.
    std::vector<Kext>& kextsToInstall() { return kextsToInstall_; }
    /// Kexts to be backed up before installation.
    std::vector<Kext>& kextsToBackUp() { return kextsToBackUp_; }
    KextFolder installationFolder() const { return installationFolder_; }
    void setInstallationFolder(KextFolder folder) { installationFolder_ = folder; }
    /// Ends with "/": the backup folder's name is appended without a separator.
    const std::string& backupFolder() const { return backupFolder_; }
    void setBackupFolder(std::string folder) { backupFolder_ = std::move(folder); }

private:
    std::vector<Kext> kextsToInstall_;
    std::vector<Kext> kextsToBackUp_;
    KextFolder installationFolder_ = KextFolder::LibraryExtensions;
    std::string backupFolder_ = "~/Desktop/";
};

} // namespace quelm
