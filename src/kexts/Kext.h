// One kext bundle, known by its file URL; name, path and version are read on demand.
#pragma once

#include "support/FileURL.h"
#include "support/KeyedArchive.h"

#include <cstddef>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace quelm {

class Kext {
public:
    static constexpr std::string_view className = "QVKernelExtension";

    /// Stores the URL only; never looks at the disk.
    explicit Kext(FileURL url) : url_(std::move(url)) {}
    [[nodiscard]] static std::expected<Kext, Error> initWithCoder(const KeyedUnarchiver& coder);
    void encodeWithCoder(KeyedArchiver& coder) const;

    const FileURL& url() const { return url_; }
    void setUrl(FileURL url) { url_ = std::move(url); }

    /// The bundle folder name, extension included.
    std::string name() const { return url_.lastPathComponent(); }
    /// The path of the bundle, every escape decoded.
    std::string path() const { return url_.path(); }
    /// The first present of: version.plist's then Info.plist's "CFBundleShortVersionString",
    /// then version.plist's then Info.plist's "CFBundleVersion"; nothing when that one is
    /// not a string. Read afresh on every call.
    std::optional<std::string> version() const;

    /// The string hash of the path.
    std::size_t hash() const;
    /// Compares the hashes of the two paths, not the paths.
    bool isEqual(const Kext& other) const { return hash() == other.hash(); }
    bool operator==(const Kext& other) const { return isEqual(other); }

private:
    FileURL url_;
};

} // namespace quelm
