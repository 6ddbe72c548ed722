// The installation-folder policy and its settings keys.
#pragma once

#include <optional>
#include <string_view>

namespace quelm {

enum class QVKernelExtensionFolder {
    ExtraExtensions,
    LibraryExtensions,
    SystemLibraryExtensions,
    AskMeEveryTime,
    UseSmartTable,
};

inline constexpr std::string_view kDefaultKextInstallationFolderKey =
    "QVDefaultKextInstallationFolder";
inline constexpr std::string_view kDefaultAppearanceModeKey = "QVDefaultAppearanceMode";

/// "/Extra/Extensions/", "/Library/Extensions/", "/System/Library/Extensions/",
/// "QVKextFolderAskMeEveryTime" or "QVKextFolderUseSmartTable".
std::string_view rawValue(QVKernelExtensionFolder folder);
std::optional<QVKernelExtensionFolder> kernelExtensionFolderFromRawValue(std::string_view raw);
/// True for the three cases that name a folder of the target volume.
bool isConcreteFolder(QVKernelExtensionFolder folder);

} // namespace quelm
