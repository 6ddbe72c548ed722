// One kext bundle, known by its file URL; name, path and version are read on demand.
#include "kexts/Kext.h"

#include "kexts/KextCatalog.h"

#include <array>
#include <functional>

namespace quelm {

std::expected<Kext, Error> Kext::initWithCoder(const KeyedUnarchiver& coder) {
    auto url = coder.decodeURL("url");
    if (!url)
        return std::unexpected(url.error());
    return Kext(std::move(*url));
}

void Kext::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeURL("url", url_);
}

std::optional<std::string> Kext::version() const {
    const auto info = readKextPlist(path(), "Info.plist");
    const auto versionList = readKextPlist(path(), "version.plist");
    const auto entry = [](const auto& list, std::string_view key) -> const PlistValue* {
        if (!list)
            return nullptr;
        const auto found = list->find(key);
        return found == list->end() ? nullptr : &found->second;
    };
    const std::array candidates{
        entry(versionList, "CFBundleShortVersionString"),
        entry(info, "CFBundleShortVersionString"),
        entry(versionList, "CFBundleVersion"),
        entry(info, "CFBundleVersion"),
    };
    for (const auto* candidate : candidates)
        if (candidate)
            return candidate->string() ? std::optional(*candidate->string()) : std::nullopt;
    return std::nullopt;
}

std::size_t Kext::hash() const {
    return std::hash<std::string>{}(path());
}

} // namespace quelm
