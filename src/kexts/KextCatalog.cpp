// What kext bundles say of themselves, and the kexts installed on a volume, read through
// descriptors without following links.
#include "kexts/KextCatalog.h"

#include "support/FolderTrees.h"
#include "support/PathValidation.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

namespace quelm {
namespace {

/// Info.plist files of real kexts stay far below this; System.kext's is some 30 kB.
constexpr std::size_t kMaxInfoPlistSize = 4u << 20;

bool isRightItem(const struct stat& info) {
    const mode_t mode = info.st_mode & 07777;
    if (info.st_uid != 0 || info.st_gid != 0)
        return false;
    if (S_ISDIR(info.st_mode))
        return mode == 0755;
    return S_ISLNK(info.st_mode) || (S_ISREG(info.st_mode) && (mode == 0755 || mode == 0644));
}

bool treeIsRight(int folder, int depth) {
    struct stat info {};
    const auto names = entryNamesAt(folder);
    if (depth > kMaxTreeDepth || !names || ::fstat(folder, &info) != 0 || !isRightItem(info))
        return false;
    for (const auto& name : *names) {
        struct stat item {};
        if (::fstatat(folder, name.c_str(), &item, AT_SYMLINK_NOFOLLOW) != 0 || !isRightItem(item))
            return false;
        if (!S_ISDIR(item.st_mode))
            continue;
        const UniqueFd inner = openFolderAt(folder, name);
        if (!inner || !treeIsRight(inner.get(), depth + 1))
            return false;
    }
    return true;
}

std::optional<PlistValue::Dict> readDictionaryAt(int folder, const std::string& name) {
    const auto bytes = readFileAt(folder, name, kMaxInfoPlistSize);
    auto plist = bytes ? parsePlist(*bytes) : std::unexpected(Error{});
    if (!plist || !plist->dict())
        return std::nullopt;
    return *plist->dict();
}

bool isFolderAt(int parent, const std::string& name) {
    struct stat info {};
    return ::fstatat(parent, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(info.st_mode);
}

bool existsAt(int parent, const char* name) {
    struct stat info {};
    return ::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) == 0;
}

/// The folder that holds the bundle's Info.plist, code and plug-ins: Contents when the bundle
/// has an entry of that name (a link there opens nothing), else the bundle's top, as Apple lays
/// out System.kext, its plug-ins and some families.
UniqueFd openInfoFolder(int bundle, bool& flat) {
    flat = !existsAt(bundle, "Contents");
    return flat ? UniqueFd(::fcntl(bundle, F_DUPFD_CLOEXEC, 0)) : openFolderAt(bundle, "Contents");
}

std::vector<std::string> kextNamesIn(int folder) {
    auto names = entryNamesAt(folder).value_or(std::vector<std::string>{});
    std::erase_if(names, [&](const std::string& name) {
        return !name.ends_with(".kext") || name.starts_with(".") || !isFolderAt(folder, name);
    });
    std::ranges::sort(names);
    return names;
}

std::optional<std::expected<MachOFile, Error>> readExecutable(const Kext& kext, int infoFolder) {
    const std::string executable = kext.infoString("CFBundleExecutable");
    if (executable.empty())
        return std::nullopt;
    if (!isPlainFileName(executable))
        return std::unexpected(Error{"names no file"});
    if (kext.flat)
        return readMachOAt(infoFolder, executable);
    const UniqueFd code = openFolderAt(infoFolder, "MacOS");
    return code ? readMachOAt(code.get(), executable) : std::unexpected(Error{"cannot be opened"});
}

Kext readBundle(int parent, const std::string& name, const std::string& path, int depth) {
    Kext kext(FileURL::fromPath(path, false));
    const UniqueFd bundle = openFolderAt(parent, name);
    if (!bundle)
        return kext;
    kext.ownersAndModesRight = treeIsRight(bundle.get(), 0);
    const UniqueFd infoFolder = openInfoFolder(bundle.get(), kext.flat);
    if (!infoFolder)
        return kext;
    kext.info = readDictionaryAt(infoFolder.get(), "Info.plist");
    kext.versionList = readDictionaryAt(infoFolder.get(), "version.plist");
    kext.hasCodeSignature = isFolderAt(infoFolder.get(), "_CodeSignature");
    kext.executable = readExecutable(kext, infoFolder.get());
    const UniqueFd plugIns = openFolderAt(infoFolder.get(), "PlugIns");
    const std::string plugInsPath = path + (kext.flat ? "/PlugIns/" : "/Contents/PlugIns/");
    if (plugIns && depth < kMaxPlugInDepth)
        for (const auto& plugIn : kextNamesIn(plugIns.get()))
            kext.plugIns.push_back(
                readBundle(plugIns.get(), plugIn, plugInsPath + plugIn, depth + 1));
    return kext;
}

void collect(const Kext& kext, std::vector<const Kext*>& all) {
    all.push_back(&kext);
    for (const auto& plugIn : kext.plugIns)
        collect(plugIn, all);
}

} // namespace

Kext readKextAt(int parent, const std::string& name, const std::string& path) {
    return readBundle(parent, name, path, 0);
}

std::optional<UserPathParent> openUserPathParent(const std::string& path) {
    if (path.empty())
        return std::nullopt;
    const std::filesystem::path whole = absoluteNormalPath(path);
    UniqueFd parent = openFolder(whole.parent_path());
    std::string name = whole.filename();
    if (!parent || !isPlainFileName(name))
        return std::nullopt;
    return UserPathParent{std::move(parent), whole.parent_path().string(), std::move(name)};
}

std::optional<Kext> readKext(const std::string& path) {
    const auto place = openUserPathParent(path);
    if (!place || !isFolderAt(place->folder.get(), place->name))
        return std::nullopt;
    return readKextAt(place->folder.get(), place->name,
                      (std::filesystem::path(place->folderPath) / place->name).string());
}

std::vector<Kext> installedKexts(const Volume& volume) {
    std::vector<Kext> kexts;
    for (const auto folder : kExtensionsFolders) {
        const UniqueFd opened = openFolderOn(volume, folder);
        if (!opened)
            continue;
        for (const auto& name : kextNamesIn(opened.get()))
            kexts.push_back(readKextAt(opened.get(), name, std::string(folder) + name));
    }
    return kexts;
}

std::vector<const Kext*> withPlugIns(const std::vector<Kext>& kexts) {
    std::vector<const Kext*> all;
    for (const auto& kext : kexts)
        collect(kext, all);
    return all;
}

} // namespace quelm
