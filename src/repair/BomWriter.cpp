// The BOM store writer, and the text listing both the writer and the lister speak.
#include "repair/BomWriter.h"

#include "support/ByteWriter.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <unordered_map>

namespace quelm {
namespace {

constexpr std::size_t headerSize = 32;
constexpr std::size_t nodeSize = 4096;
constexpr std::size_t smallNodeSize = 128;
constexpr std::size_t entriesPerNode = (nodeSize - 12) / 8;
constexpr std::uint16_t architecture = 0x000f;

std::unexpected<Error> failure(std::string message) {
    return std::unexpected(Error{std::move(message)});
}

std::uint8_t fileType(std::uint16_t mode) {
    switch (mode & 0170000) {
    case 0040000:
        return 2;
    case 0120000:
        return 3;
    case 0020000:
    case 0060000:
        return 4;
    default:
        return 1;
    }
}

/// The file's bytes as blocks appended one after another, and the table that finds them.
class BlockFile {
public:
    BlockFile() : bytes_(headerSize, '\0'), blocks_{{0, 0}} {}

    /// Appends a block whose bytes fill writes; returns its id.
    template <typename Fill> std::uint32_t add(Fill&& fill) {
        const std::size_t address = bytes_.size();
        BigEndianWriter out(bytes_);
        fill(out);
        blocks_.push_back({address, bytes_.size() - address});
        return static_cast<std::uint32_t>(blocks_.size() - 1);
    }

    std::uint32_t nextId() const { return static_cast<std::uint32_t>(blocks_.size()); }

    /// The whole file: variables and block table appended, header filled in.
    std::expected<std::string, Error>
    finish(const std::vector<std::pair<std::string, std::uint32_t>>& variables);

private:
    struct Block {
        std::size_t address;
        std::size_t length;
    };
    std::string bytes_;
    std::vector<Block> blocks_;
};

std::expected<std::string, Error>
BlockFile::finish(const std::vector<std::pair<std::string, std::uint32_t>>& variables) {
    const std::size_t variablesOffset = bytes_.size();
    BigEndianWriter out(bytes_);
    out.u32(static_cast<std::uint32_t>(variables.size()));
    for (const auto& [name, id] : variables) {
        out.u32(id);
        out.u8(static_cast<std::uint8_t>(name.size()));
        out.bytes(name);
    }
    const std::size_t tableOffset = bytes_.size();
    out.u32(static_cast<std::uint32_t>(blocks_.size()));
    for (const Block& block : blocks_) {
        out.u32(static_cast<std::uint32_t>(block.address));
        out.u32(static_cast<std::uint32_t>(block.length));
    }
    out.u32(0); // an empty free list
    if (bytes_.size() > std::numeric_limits<std::uint32_t>::max())
        return failure("too many paths: a BOM file cannot exceed 4 GiB");
    std::string header = "BOMStore";
    BigEndianWriter head(header);
    for (const std::size_t value :
         {std::size_t{1}, blocks_.size() - 1, tableOffset, bytes_.size() - tableOffset,
          variablesOffset, tableOffset - variablesOffset})
        head.u32(static_cast<std::uint32_t>(value));
    bytes_.replace(0, headerSize, header);
    return std::move(bytes_);
}

/// A tree node; entries are (value, key) in a leaf and (child, key) in a branch.
std::uint32_t addNode(BlockFile& file, bool leaf,
                      std::span<const std::pair<std::uint32_t, std::uint32_t>> entries,
                      std::uint32_t forward, std::uint32_t backward, std::size_t size) {
    return file.add([&](BigEndianWriter& out) {
        out.u16(leaf ? 1 : 0);
        out.u16(static_cast<std::uint16_t>(entries.size()));
        out.u32(forward);
        out.u32(backward);
        for (const auto& [first, second] : entries) {
            out.u32(first);
            out.u32(second);
        }
        out.bytes(std::string(size - 12 - 8 * entries.size(), '\0'));
    });
}

std::uint32_t addTree(BlockFile& file, std::uint32_t root, std::size_t blockSize,
                      std::size_t pathCount) {
    return file.add([&](BigEndianWriter& out) {
        out.bytes("tree");
        out.u32(1);
        out.u32(root);
        out.u32(static_cast<std::uint32_t>(blockSize));
        out.u32(static_cast<std::uint32_t>(pathCount));
        out.u8(0);
    });
}

std::uint32_t addEmptyTree(BlockFile& file, std::size_t blockSize) {
    return addTree(file, addNode(file, true, {}, 0, 0, blockSize), blockSize, 0);
}

/// The leaves holding entries in order, linked both ways, then branch levels up to one root.
std::uint32_t addPathsTree(BlockFile& file,
                           std::span<const std::pair<std::uint32_t, std::uint32_t>> entries) {
    using Entry = std::pair<std::uint32_t, std::uint32_t>;
    const std::size_t leafCount =
        std::max<std::size_t>(1, (entries.size() + entriesPerNode - 1) / entriesPerNode);
    const std::uint32_t firstLeaf = file.nextId();
    // A branch entry names a child and the last key under it.
    std::vector<Entry> level;
    for (std::size_t leaf = 0; leaf < leafCount; ++leaf) {
        const auto part =
            entries.subspan(leaf * entriesPerNode,
                            std::min(entriesPerNode, entries.size() - leaf * entriesPerNode));
        const auto id = static_cast<std::uint32_t>(firstLeaf + leaf);
        addNode(file, true, part, leaf + 1 < leafCount ? id + 1 : 0, leaf > 0 ? id - 1 : 0,
                nodeSize);
        level.emplace_back(id, part.empty() ? 0 : part.back().second);
    }
    while (level.size() > 1) {
        std::vector<Entry> above;
        for (std::size_t start = 0; start < level.size(); start += entriesPerNode) {
            const auto children =
                std::span(level).subspan(start, std::min(entriesPerNode, level.size() - start));
            above.emplace_back(addNode(file, false, children, 0, 0, nodeSize),
                               children.back().second);
        }
        level = std::move(above);
    }
    return addTree(file, level.front().first, nodeSize, entries.size());
}

std::uint32_t addAttributes(BlockFile& file, const BomEntry& entry) {
    return file.add([&](BigEndianWriter& out) {
        out.u8(fileType(entry.mode));
        out.u8(1);
        out.u16(architecture);
        out.u16(entry.mode);
        out.u32(entry.uid);
        out.u32(entry.gid);
        out.u32(0); // modification time
        out.u32(entry.size);
        out.u8(1);
        out.u32(entry.checksum);
        const bool link = fileType(entry.mode) == 3;
        // The stored length counts the final NUL.
        out.u32(link ? static_cast<std::uint32_t>(entry.linkTarget.size() + 1) : 0);
        if (link) {
            out.bytes(entry.linkTarget);
            out.u8(0);
        }
    });
}

/// The path id of each entry's parent, 0 for "."; the error names the entry at fault.
std::expected<std::vector<std::uint32_t>, Error> parentIds(std::span<const BomEntry> entries) {
    if (entries.empty() || entries.front().path != ".")
        return failure("the first path must be \".\", the root of the volume");
    std::unordered_map<std::string_view, std::uint32_t> ids;
    ids.reserve(entries.size());
    std::vector<std::uint32_t> parents;
    parents.reserve(entries.size());
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const std::string_view path = entries[index].path;
        const std::size_t slash = path.rfind('/');
        const auto name = slash == std::string_view::npos ? path : path.substr(slash + 1);
        if (name.empty() || name.find_first_of(std::string_view("\0\t\n", 3)) != name.npos)
            return failure(std::string(path) + ": a name must be non-empty, without NUL, tab or "
                                               "line break");
        const auto parent =
            slash == std::string_view::npos ? ids.end() : ids.find(path.substr(0, slash));
        if (index > 0 && parent == ids.end())
            return failure(std::string(path) + ": its folder is not listed before it");
        if (!ids.try_emplace(path, static_cast<std::uint32_t>(index + 1)).second)
            return failure(std::string(path) + ": listed twice");
        parents.push_back(index > 0 ? parent->second : 0);
    }
    return parents;
}

template <typename Number> std::optional<Number> parseNumber(std::string_view text, int base) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

/// The fields of a long listing after UID/GID: SIZE<TAB>CHECKSUM, then a link's TARGET.
std::optional<std::string> parseContent(std::string_view text, BomEntry& entry) {
    const std::size_t checksumTab = text.find('\t');
    const std::size_t targetTab =
        text.find('\t', checksumTab == text.npos ? text.size() : checksumTab + 1);
    const auto size = parseNumber<std::uint32_t>(text.substr(0, checksumTab), 10);
    const auto checksum = checksumTab == text.npos
                              ? std::nullopt
                              : parseNumber<std::uint32_t>(
                                    text.substr(checksumTab + 1, targetTab - checksumTab - 1), 10);
    if (!size || !checksum)
        return "expected SIZE<TAB>CHECKSUM in decimal after the owner";
    entry.size = *size;
    entry.checksum = *checksum;
    if (targetTab != text.npos)
        entry.linkTarget = text.substr(targetTab + 1);
    return std::nullopt;
}

std::expected<BomEntry, std::string> parseLine(std::string_view line) {
    const std::size_t modeTab = line.find('\t');
    const std::size_t ownerTab = line.find('\t', modeTab == line.npos ? line.size() : modeTab + 1);
    if (ownerTab == line.npos)
        return std::unexpected("expected PATH<TAB>MODE<TAB>UID/GID");
    const std::size_t contentTab = line.find('\t', ownerTab + 1);
    const auto modeText = line.substr(modeTab + 1, ownerTab - modeTab - 1);
    const auto owner = line.substr(ownerTab + 1, contentTab - ownerTab - 1);
    const std::size_t slash = owner.find('/');
    const auto mode = parseNumber<std::uint16_t>(modeText, 8);
    const auto uid = parseNumber<std::uint32_t>(owner.substr(0, slash), 10);
    const auto gid = slash == owner.npos ? std::nullopt
                                         : parseNumber<std::uint32_t>(owner.substr(slash + 1), 10);
    if (modeTab == 0)
        return std::unexpected("the path is empty");
    if (!mode)
        return std::unexpected("the mode \"" + std::string(modeText) +
                               "\" is not an octal number up to 177777");
    if (!uid || !gid)
        return std::unexpected("the owner \"" + std::string(owner) +
                               "\" is not UID/GID in decimal");
    BomEntry entry{line.substr(0, modeTab), *mode, *uid, *gid};
    if (contentTab != line.npos)
        if (auto fault = parseContent(line.substr(contentTab + 1), entry))
            return std::unexpected(std::move(*fault));
    return entry;
}

} // namespace

std::expected<std::string, Error> writeBom(std::span<const BomEntry> entries) {
    const auto parents = parentIds(entries);
    if (!parents)
        return std::unexpected(parents.error());
    BlockFile file;
    const std::uint32_t info = file.add([&](BigEndianWriter& out) {
        out.u32(1);
        out.u32(static_cast<std::uint32_t>(entries.size()));
        out.u32(0);
    });
    std::vector<std::pair<std::uint32_t, std::uint32_t>> treeEntries;
    treeEntries.reserve(entries.size());
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const std::uint32_t attributes = addAttributes(file, entries[index]);
        const std::uint32_t value = file.add([&](BigEndianWriter& out) {
            out.u32(static_cast<std::uint32_t>(index + 1));
            out.u32(attributes);
        });
        const std::uint32_t key = file.add([&](BigEndianWriter& out) {
            out.u32((*parents)[index]);
            const std::string_view path = entries[index].path;
            out.bytes(path.substr(path.rfind('/') + 1));
            out.u8(0);
        });
        treeEntries.emplace_back(value, key);
    }
    const std::uint32_t paths = addPathsTree(file, treeEntries);
    const std::uint32_t hardLinks = addEmptyTree(file, nodeSize);
    const std::uint32_t vindexTree = addEmptyTree(file, smallNodeSize);
    const std::uint32_t vindex = file.add([&](BigEndianWriter& out) {
        out.u32(1);
        out.u32(vindexTree);
        out.u32(0);
        out.u8(0);
    });
    const std::uint32_t sizes = addEmptyTree(file, nodeSize);
    return file.finish({{"BomInfo", info},
                        {"Paths", paths},
                        {"HLIndex", hardLinks},
                        {"VIndex", vindex},
                        {"Size64", sizes}});
}

std::expected<std::vector<BomEntry>, Error> parseListing(std::string_view text) {
    std::vector<BomEntry> entries;
    for (std::size_t lineNumber = 1; !text.empty(); ++lineNumber) {
        const std::size_t end = text.find('\n');
        auto entry = parseLine(text.substr(0, end));
        if (!entry)
            return failure("line " + std::to_string(lineNumber) + ": " + entry.error());
        entries.push_back(std::move(*entry));
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
    return entries;
}

void appendListingLine(std::string& out, const BomEntry& entry) {
    // Two tabs, six octal digits, two ten-digit ids, a slash and a line break at most.
    constexpr std::size_t longestFields = 2 + 6 + 10 + 1 + 10 + 1;
    const std::size_t start = out.size();
    out.resize_and_overwrite(start + entry.path.size() + longestFields,
                             [&](char* data, std::size_t size) {
                                 char* const last = data + size;
                                 char* end = std::ranges::copy(entry.path, data + start).out;
                                 *end++ = '\t';
                                 end = std::to_chars(end, last, entry.mode, 8).ptr;
                                 *end++ = '\t';
                                 end = std::to_chars(end, last, entry.uid).ptr;
                                 *end++ = '/';
                                 end = std::to_chars(end, last, entry.gid).ptr;
                                 *end++ = '\n';
                                 return static_cast<std::size_t>(end - data);
                             });
}

void appendLongListingLine(std::string& out, const BomEntry& entry) {
    appendListingLine(out, entry);
    const auto type = entry.mode & 0170000;
    if (type != 0100000 && type != 0120000)
        return;
    out.pop_back();
    out += '\t' + std::to_string(entry.size) + '\t' + std::to_string(entry.checksum);
    if (type == 0120000)
        (out += '\t') += entry.linkTarget;
    out += '\n';
}

} // namespace quelm
