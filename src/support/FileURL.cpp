// File URLs as their absolute strings, and the way back to a path.
#include "support/FileURL.h"

#include "support/PathValidation.h"

namespace quelm {
namespace {

constexpr std::string_view kScheme = "file://";

bool isPathCharacter(unsigned char c) {
    constexpr std::string_view kMarks = "-._~!$&'()*+,;=:@/";
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           kMarks.find(static_cast<char>(c)) != std::string_view::npos;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

std::string percentDecode(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '%' && i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
        const int low = high >= 0 ? hexValue(text[i + 2]) : -1;
        if (low >= 0) {
            decoded += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

} // namespace

std::string percentEncodePath(std::string_view path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(path.size());
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (isPathCharacter(byte)) {
            encoded += c;
        } else {
            encoded += '%';
            encoded += kHex[byte >> 4];
            encoded += kHex[byte & 0xF];
        }
    }
    return encoded;
}

std::string pathFromFileURLString(std::string_view urlText) {
    if (urlText.size() <= kScheme.size())
        return {};
    return percentDecode(urlText.substr(kScheme.size()));
}

FileURL FileURL::fromPath(std::string_view path, bool isDirectory) {
    std::string absolute = absoluteNormalPath(path);
    if (isDirectory && absolute.back() != '/')
        absolute += '/';
    return FileURL(std::string(kScheme) + percentEncodePath(absolute));
}

std::optional<FileURL> FileURL::fromAbsoluteString(std::string text) {
    if (!text.starts_with(kScheme))
        return std::nullopt;
    return FileURL(std::move(text));
}

std::string FileURL::path() const {
    return pathFromFileURLString(text_);
}

std::string FileURL::lastPathComponent() const {
    std::string_view path = std::string_view(text_).substr(kScheme.size());
    if (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    const auto slash = path.rfind('/');
    return percentDecode(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string FileURL::pathExtension() const {
    const std::string name = lastPathComponent();
    const auto dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 ? std::string() : name.substr(dot + 1);
}

FileURL FileURL::appending(std::string_view component, bool isDirectory) const {
    std::string text = text_;
    if (text.back() != '/')
        text += '/';
    text += percentEncodePath(component);
    if (isDirectory && text.back() != '/')
        text += '/';
    return FileURL(std::move(text));
}

} // namespace quelm
