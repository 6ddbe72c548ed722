// One kext bundle: known by its file URL, and once read from the disk, what it says of itself.
#include "kexts/Kext.h"

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

std::size_t Kext::hash() const {
    return std::hash<std::string>{}(path());
}

std::string Kext::infoString(std::string_view key) const {
    if (!info)
        return "";
    const auto found = info->find(key);
    return found != info->end() && found->second.string() ? *found->second.string() : "";
}

std::optional<std::string> Kext::version() const {
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

std::vector<std::string> Kext::cpuTypes() const {
    std::vector<std::string> names;
    if (executable && *executable)
        for (const auto& slice : (*executable)->slices)
            names.push_back(cpuTypeName(slice));
    return names;
}

} // namespace quelm
