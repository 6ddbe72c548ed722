// The installation-folder policy and its settings keys.
#include "kexts/QVKernelExtensionFolder.h"

#include "support/RawValues.h"

namespace quelm {
namespace {

constexpr RawValueTable<QVKernelExtensionFolder, 5> kRawValues{
    {"/Extra/Extensions/", "/Library/Extensions/", "/System/Library/Extensions/",
     "QVKextFolderAskMeEveryTime", "QVKextFolderUseSmartTable"}};

} // namespace

std::string_view rawValue(QVKernelExtensionFolder folder) {
    return kRawValues.rawValue(folder);
}

std::optional<QVKernelExtensionFolder> kernelExtensionFolderFromRawValue(std::string_view raw) {
    return kRawValues.fromRawValue(raw);
}

bool isConcreteFolder(QVKernelExtensionFolder folder) {
    return folder != QVKernelExtensionFolder::AskMeEveryTime &&
           folder != QVKernelExtensionFolder::UseSmartTable;
}

} // namespace quelm
