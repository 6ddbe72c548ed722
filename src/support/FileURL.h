// File URLs as their absolute strings, and the way back to a path.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quelm {

/// A "file://" URL, kept as its absolute string: the form in which it is archived.
class FileURL {
public:
    /// The URL for a path, made absolute from the working folder with "." and ".." resolved by
    /// name ("../X.kext"). A folder URL ends with "/". Every byte outside the URL path
    /// characters is percent-encoded.
    static FileURL fromPath(std::string_view path, bool isDirectory);
    /// Accepts only strings that begin with "file://".
    static std::optional<FileURL> fromAbsoluteString(std::string text);

    const std::string& absoluteString() const { return text_; }
    /// The path with every percent escape decoded (see pathFromFileURLString).
    std::string path() const;
    /// The last component, decoded, ignoring one trailing "/".
    std::string lastPathComponent() const;
    /// What follows the last "." of the last component ("kext"), or "".
    std::string pathExtension() const;
    /// This URL with one component added, encoded the same way.
    FileURL appending(std::string_view component, bool isDirectory) const;

    bool operator==(const FileURL&) const = default;

private:
    explicit FileURL(std::string text) : text_(std::move(text)) {}
    std::string text_;
};

/// Drops the first 7 characters ("file://") and decodes every percent escape, so that names
/// such as "Téléchargements", "#1" or "100%" are found where they are. Text of 7 characters or
/// fewer gives "".
std::string pathFromFileURLString(std::string_view urlText);

/// Percent-encodes every byte outside A-Z a-z 0-9 - . _ ~ ! $ & ' ( ) * + , ; = : @ /.
std::string percentEncodePath(std::string_view path);

} // namespace quelm
