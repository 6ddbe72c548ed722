// Keyed archives: an object as a dictionary of its class name under "$class" and its keys.
#include "support/KeyedArchive.h"

namespace quelm {

KeyedArchiver::KeyedArchiver(std::string_view className) {
    entries_.emplace(kArchiveClassKey, std::string(className));
}

void KeyedArchiver::encodeObject(std::string_view key, PlistValue value) {
    entries_.insert_or_assign(std::string(key), std::move(value));
}

void KeyedArchiver::encodeObject(std::string_view key, const std::optional<std::string>& value) {
    if (value)
        encodeObject(key, PlistValue(*value));
}

void KeyedArchiver::encodeInteger(std::string_view key, std::int64_t value) {
    encodeObject(key, PlistValue(value));
}

void KeyedArchiver::encodeURL(std::string_view key, const FileURL& url) {
    encodeObject(key, PlistValue(url.absoluteString()));
}

PlistValue::Dict KeyedArchiver::finish() && {
    return std::move(entries_);
}

std::expected<KeyedUnarchiver, Error>
KeyedUnarchiver::open(const PlistValue& archive,
                      std::initializer_list<std::string_view> allowedClasses) {
    const auto* entries = archive.dict();
    if (!entries)
        return std::unexpected(Error{"archived object is not a dictionary"});
    const auto* className = archive.stringForKey(kArchiveClassKey);
    if (!className)
        return std::unexpected(Error{"archived object has no class name"});
    for (const auto allowed : allowedClasses)
        if (*className == allowed)
            return KeyedUnarchiver(*entries, *className);
    return std::unexpected(Error{"class " + *className + " is not allowed here"});
}

const PlistValue* KeyedUnarchiver::entry(std::string_view key) const {
    const auto found = entries_->find(key);
    return found == entries_->end() ? nullptr : &found->second;
}

std::unexpected<Error> KeyedUnarchiver::mistyped(std::string_view key,
                                                 std::string_view expected) const {
    return std::unexpected(
        Error{className_ + ": \"" + std::string(key) + "\" is not " + std::string(expected)});
}

std::expected<std::string, Error> KeyedUnarchiver::decodeString(std::string_view key) const {
    const auto* value = entry(key);
    if (!value || !value->string())
        return mistyped(key, "a string");
    return *value->string();
}

std::expected<std::optional<std::string>, Error>
KeyedUnarchiver::decodeOptionalString(std::string_view key) const {
    const auto* value = entry(key);
    if (!value)
        return std::optional<std::string>();
    if (!value->string())
        return mistyped(key, "a string");
    return std::optional<std::string>(*value->string());
}

std::expected<std::int64_t, Error> KeyedUnarchiver::decodeInteger(std::string_view key) const {
    const auto* value = entry(key);
    if (!value)
        return 0;
    if (const auto* number = value->get<std::int64_t>())
        return *number;
    return mistyped(key, "an integer");
}

std::expected<FileURL, Error> KeyedUnarchiver::decodeURL(std::string_view key) const {
    const auto* value = entry(key);
    auto url =
        value && value->string() ? FileURL::fromAbsoluteString(*value->string()) : std::nullopt;
    if (!url)
        return mistyped(key, "a file URL");
    return *url;
}

} // namespace quelm
