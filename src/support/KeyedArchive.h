// Keyed archives: an object as a dictionary of its class name under "$class" and its keys.
#pragma once

#include "support/Error.h"
#include "support/FileURL.h"
#include "support/PropertyList.h"

#include <cstdint>
#include <expected>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

inline constexpr std::string_view kArchiveClassKey = "$class";

/// Collects the keys of one object; an absent optional value writes no key at all.
class KeyedArchiver {
public:
    explicit KeyedArchiver(std::string_view className);

    void encodeObject(std::string_view key, PlistValue value);
    void encodeObject(std::string_view key, const std::optional<std::string>& value);
    void encodeInteger(std::string_view key, std::int64_t value);
    void encodeURL(std::string_view key, const FileURL& url);

    PlistValue::Dict finish() &&;

private:
    PlistValue::Dict entries_;
};

/// Reads the keys of one archived object whose class was among those allowed.
class KeyedUnarchiver {
public:
    /// Refuses anything that is not a dictionary whose "$class" is one of allowedClasses.
    [[nodiscard]] static std::expected<KeyedUnarchiver, Error>
    open(const PlistValue& archive, std::initializer_list<std::string_view> allowedClasses);

    const std::string& className() const { return className_; }

    /// A string that must be present.
    [[nodiscard]] std::expected<std::string, Error> decodeString(std::string_view key) const;
    /// A string that may be absent; present but of another type is an error.
    [[nodiscard]] std::expected<std::optional<std::string>, Error>
    decodeOptionalString(std::string_view key) const;
    /// An integer; a missing key decodes as 0.
    [[nodiscard]] std::expected<std::int64_t, Error> decodeInteger(std::string_view key) const;
    /// A file URL travelling as its absolute string; must be present.
    [[nodiscard]] std::expected<FileURL, Error> decodeURL(std::string_view key) const;

private:
    KeyedUnarchiver(const PlistValue::Dict& entries, std::string className)
        : entries_(&entries), className_(std::move(className)) {}
    const PlistValue* entry(std::string_view key) const;
    std::unexpected<Error> mistyped(std::string_view key, std::string_view expected) const;

    const PlistValue::Dict* entries_;
    std::string className_;
};

/// The archive of an object whose class provides className and encodeWithCoder.
template <class T> PlistValue archive(const T& object) {
    KeyedArchiver archiver(T::className);
    object.encodeWithCoder(archiver);
    return std::move(archiver).finish();
}

/// The object of class T from its archive, or why it was refused.
template <class T> [[nodiscard]] std::expected<T, Error> unarchive(const PlistValue& archive) {
    auto coder = KeyedUnarchiver::open(archive, {T::className});
    if (!coder)
        return std::unexpected(coder.error());
    return T::initWithCoder(*coder);
}

} // namespace quelm
