// Conversion between PlistValue and libplist nodes, and the file reading and writing.
#include "support/PropertyList.h"

#include "support/BinaryPlistCheck.h"
#include "support/BinaryPlistWriter.h"
#include "support/Files.h"
#include "support/XmlPlistCheck.h"

#include <cmath>
#include <cstdlib>
#include <memory>
#include <plist/plist.h>

namespace quelm {
namespace {

struct NodeDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

std::unexpected<Error> failure(ErrorKind kind, std::string message) {
    return std::unexpected(Error{std::move(message), kind});
}

// The conversion recurses once per level; parsePlist refused lists nested deeper than
// kMaxPlistDepth before libplist made these nodes.
std::expected<PlistValue, Error> fromNode(plist_t node);

// The iterator walks the list once; a lookup by index in an array read from binary walks it
// from the start each time.
std::expected<PlistValue, Error> fromArrayNode(plist_t node) {
    PlistValue::Array items;
    items.reserve(plist_array_get_size(node));
    plist_array_iter iter = nullptr;
    plist_array_new_iter(node, &iter);
    std::unique_ptr<void, decltype(&std::free)> iterOwner(iter, &std::free);
    for (;;) {
        plist_t value = nullptr;
        plist_array_next_item(node, iter, &value);
        if (!value)
            return PlistValue(std::move(items));
        auto item = fromNode(value);
        if (!item)
            return std::unexpected(item.error());
        items.push_back(std::move(*item));
    }
}

std::expected<PlistValue, Error> fromDictNode(plist_t node) {
    PlistValue::Dict entries;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(node, &iter);
    std::unique_ptr<void, decltype(&std::free)> iterOwner(iter, &std::free);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, iter, &key, &value);
        if (!value) {
            std::free(key);
            return PlistValue(std::move(entries));
        }
        std::string name = key ? key : "";
        std::free(key);
        auto item = fromNode(value);
        if (!item)
            return std::unexpected(item.error());
        entries.insert_or_assign(std::move(name), std::move(*item));
    }
}

std::expected<PlistValue, Error> fromScalarNode(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return PlistValue(value != 0);
    }
    case PLIST_UINT: {
        uint64_t value = 0;
        plist_get_uint_val(node, &value);
        // The format stores signed 64-bit integers; libplist hands back their bits.
        return PlistValue(static_cast<std::int64_t>(value));
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return PlistValue(value);
    }
    case PLIST_STRING: {
        uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        return PlistValue(std::string(text ? text : "", text ? length : 0));
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        PlistValue::Data data(bytes, bytes + (bytes ? length : 0));
        std::free(bytes);
        return PlistValue(std::move(data));
    }
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        return PlistValue(PlistDate{sec + usec / 1e6});
    }
    default:
        return failure(ErrorKind::unsupported, "unsupported property-list value type");
    }
}

std::expected<PlistValue, Error> fromNode(plist_t node) {
    if (!node)
        return failure(ErrorKind::invalid, "missing property-list value");
    switch (plist_get_node_type(node)) {
    case PLIST_ARRAY:
        return fromArrayNode(node);
    case PLIST_DICT:
        return fromDictNode(node);
    default:
        return fromScalarNode(node);
    }
}

plist_t toNode(const PlistValue& value);

plist_t toDateNode(PlistDate date) {
    const double whole = std::floor(date.secondsSince2001);
    return plist_new_date(static_cast<int32_t>(whole),
                          static_cast<int32_t>(std::lround((date.secondsSince2001 - whole) * 1e6)));
}

plist_t toContainerNode(const PlistValue& value) {
    if (const auto* items = value.array()) {
        plist_t node = plist_new_array();
        for (const auto& item : *items)
            plist_array_append_item(node, toNode(item));
        return node;
    }
    plist_t node = plist_new_dict();
    for (const auto& [key, item] : *value.dict())
        plist_dict_set_item(node, key.c_str(), toNode(item));
    return node;
}

plist_t toNode(const PlistValue& value) {
    if (const auto* flag = value.get<bool>())
        return plist_new_bool(*flag);
    if (const auto* number = value.get<std::int64_t>())
        return plist_new_uint(static_cast<uint64_t>(*number));
    if (const auto* real = value.get<double>())
        return plist_new_real(*real);
    if (const auto* text = value.string())
        return plist_new_string(text->c_str());
    if (const auto* data = value.get<PlistValue::Data>())
        return plist_new_data(reinterpret_cast<const char*>(data->data()), data->size());
    if (const auto* date = value.get<PlistDate>())
        return toDateNode(*date);
    return toContainerNode(value);
}

} // namespace

const PlistValue* PlistValue::find(std::string_view key) const {
    const auto* entries = dict();
    if (!entries)
        return nullptr;
    const auto found = entries->find(key);
    return found == entries->end() ? nullptr : &found->second;
}

const std::string* PlistValue::stringForKey(std::string_view key) const {
    const auto* entry = find(key);
    return entry ? entry->string() : nullptr;
}

std::expected<PlistValue, Error> parsePlist(std::string_view bytes) {
    if (bytes.empty() || bytes.size() > kMaxPlistFileSize)
        return failure(ErrorKind::invalid, "not a property list");
    // libplist took the binary parser for exactly this header, the XML one for anything else.
    if (bytes.starts_with("bplist00"))
        return readBinaryPlist(bytes);
    const auto checked = checkXmlPlist(bytes);
    if (!checked)
        return std::unexpected(checked.error());
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    if (!root)
        return failure(ErrorKind::invalid, "not a property list");
    Node owner(root);
    return fromNode(root);
}

std::expected<PlistValue, Error> readPlistFile(const std::filesystem::path& path) {
    auto bytes = readFileBytes(path, kMaxPlistFileSize);
    if (!bytes)
        return failure(ErrorKind::io, bytes.error().message);
    auto value = parsePlist(*bytes);
    if (!value)
        return failure(value.error().kind, path.string() + ": " + value.error().message);
    return value;
}

std::expected<PlistValue::Dict, Error> readPlistDictionary(const std::filesystem::path& path) {
    auto value = readPlistFile(path);
    if (!value)
        return std::unexpected(value.error());
    if (const auto* entries = value->dict())
        return *entries;
    return failure(ErrorKind::invalid, path.string() + ": not a dictionary");
}

std::expected<std::string, Error> serializePlist(const PlistValue& value, PlistFormat format) {
    if (format == PlistFormat::binary)
        return writeBinaryPlist(value);
    Node root(toNode(value));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_xml(root.get(), &bytes, &length);
    if (!bytes)
        return failure(ErrorKind::unsupported, "cannot encode the property list");
    std::string text(bytes, length);
    std::free(bytes);
    return text;
}

std::expected<void, Error> writePlistFileAtomically(const std::filesystem::path& path,
                                                    const PlistValue& value, PlistFormat format) {
    auto bytes = serializePlist(value, format);
    if (!bytes)
        return std::unexpected(bytes.error());
    if (auto written = writeFileAtomically(path, *bytes); !written)
        return failure(ErrorKind::io, written.error().message);
    return {};
}

} // namespace quelm
