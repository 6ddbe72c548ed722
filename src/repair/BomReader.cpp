// The BOM store reader: walks the "Paths" tree of a BOMStore file with every read checked.
#include "repair/BomReader.h"

#include "support/ByteReader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quelm {
namespace {

constexpr std::size_t headerSize = 32;
constexpr std::size_t nodeHeaderSize = 12;
constexpr std::size_t entrySize = 8;
constexpr std::size_t attributesSize = 14;
constexpr std::size_t attributesWithSize = 22;
constexpr std::size_t attributesWithChecksum = 27;
constexpr std::size_t attributesWithLink = 31;
constexpr std::uint8_t fileType = 1;
constexpr std::uint8_t linkType = 3;
constexpr std::size_t hugePageSize = std::size_t{2} << 20;
constexpr std::size_t minArenaChunk = std::size_t{64} << 10;
constexpr std::size_t maxArenaChunk = std::size_t{8} << 20;
// Block addresses are 32-bit: a larger file is no BOM that could be read whole.
constexpr std::uintmax_t maxFileSize = std::uintmax_t{1} << 32;
// Real BOMs hold less path text than file bytes. Far more can only come from blocks that
// alias one another, so such a file is refused rather than allowed to exhaust memory.
constexpr std::size_t maxPathTextPerFileByte = 64;

/// Anonymous memory for the parser's large arrays. From 2 MiB on it asks for transparent huge
/// pages: a million records then cost hundreds of page faults rather than tens of thousands.
class Pages {
public:
    Pages() = default;
    explicit Pages(std::size_t size);
    Pages(Pages&& other) noexcept { swap(other); }
    Pages& operator=(Pages&& other) noexcept {
        swap(other);
        return *this;
    }
    ~Pages() {
        if (mapping_)
            ::munmap(mapping_, mappedSize_);
    }

    char* data() const { return data_; }

private:
    void swap(Pages& other) noexcept {
        std::swap(mapping_, other.mapping_);
        std::swap(mappedSize_, other.mappedSize_);
        std::swap(data_, other.data_);
    }

    void* mapping_ = nullptr;
    std::size_t mappedSize_ = 0;
    char* data_ = nullptr;
};

Pages::Pages(std::size_t size) {
    if (size == 0)
        return;
    const bool huge = size >= hugePageSize;
    // Huge pages need a 2 MiB-aligned start, so map one more and start at the boundary.
    const std::size_t mappedSize = size + (huge ? hugePageSize : 0);
    void* mapping =
        ::mmap(nullptr, mappedSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        throw std::bad_alloc();
    mapping_ = mapping;
    mappedSize_ = mappedSize;
    auto address = reinterpret_cast<std::uintptr_t>(mapping);
    if (huge) {
        address = (address + hugePageSize - 1) & ~(hugePageSize - 1);
        ::madvise(reinterpret_cast<void*>(address), size, MADV_HUGEPAGE);
    }
    data_ = reinterpret_cast<char*>(address);
}

/// count objects of a trivially destructible type in Pages.
template <typename T> class PageArray {
public:
    PageArray() = default;
    explicit PageArray(std::size_t count) : pages_(count * sizeof(T)) {
        std::uninitialized_value_construct_n(data(), count);
    }

    T* data() const { return reinterpret_cast<T*>(pages_.data()); }
    T& operator[](std::size_t index) const { return data()[index]; }

private:
    Pages pages_;
};

bool readAll(int fd, char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t count = ::read(fd, data, size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        data += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

std::unexpected<Error> damaged(std::string what) {
    return std::unexpected(Error{"damaged BOM: " + std::move(what), ErrorKind::invalid});
}

std::unexpected<Error> ioFailure(std::string what) {
    return std::unexpected(Error{std::move(what) + ": " + std::strerror(errno), ErrorKind::io});
}

/// The bytes and size of the regular file open on fd, read whole.
std::expected<std::pair<Pages, std::size_t>, Error> readFile(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0)
        return ioFailure("cannot examine the file");
    if (!S_ISREG(status.st_mode))
        return std::unexpected(Error{"not a regular file", ErrorKind::refused});
    if (static_cast<std::uintmax_t>(status.st_size) > maxFileSize)
        return std::unexpected(
            Error{"larger than 4 GiB, which no BOM can be", ErrorKind::unsupported});
    const auto size = static_cast<std::size_t>(status.st_size);
    Pages pages(size);
    if (!readAll(fd, pages.data(), size))
        return std::unexpected(Error{"cannot read the file whole", ErrorKind::io});
    return std::pair{std::move(pages), size};
}

/// The container: header checked, block table located.
class BomStore {
public:
    [[nodiscard]] static std::expected<BomStore, Error> open(std::string_view bytes);

    /// The bytes of block id, when the table lists it and they lie inside the file.
    [[nodiscard]] std::optional<BigEndianSlice> block(std::uint32_t id) const {
        if (id >= blockCount_)
            return std::nullopt;
        const auto address = table_.u32(std::size_t{8} * id);
        const auto length = table_.u32(std::size_t{8} * id + 4);
        if (!address || !length)
            return std::nullopt;
        return file_.slice(*address, *length);
    }

    std::uint32_t blockCount() const { return blockCount_; }
    const BigEndianSlice& file() const { return file_; }

private:
    BigEndianSlice file_;
    BigEndianSlice table_;
    std::uint32_t blockCount_ = 0;
};

std::expected<BomStore, Error> BomStore::open(std::string_view bytes) {
    BomStore store;
    store.file_ = BigEndianSlice(bytes);
    // The magic is compared as a C string, so byte 8 (the version's high byte) must be 0.
    const auto magic = store.file_.cString(0);
    if (!magic || *magic != "BOMStore")
        return std::unexpected(
            Error{"not a BOM store: it does not begin with \"BOMStore\"", ErrorKind::invalid});
    if (bytes.size() < headerSize)
        return damaged("the header is cut short");
    const auto tableOffset = store.file_.u32(16);
    const auto count = tableOffset ? store.file_.u32(*tableOffset) : std::nullopt;
    if (!count)
        return damaged("the block table lies outside the file");
    store.table_ = BigEndianSlice(bytes.substr(*tableOffset + std::size_t{4}));
    store.blockCount_ =
        static_cast<std::uint32_t>(std::min<std::size_t>(*count, store.table_.size() / 8));
    return store;
}

struct Node {
    BigEndianSlice block;
    bool leaf;
    std::uint16_t count;
    std::uint32_t forward;
};

/// The tree node in block id, with all its entries inside the block. Block 0 is the null block.
std::optional<Node> readNode(const BomStore& store, std::uint32_t id) {
    const auto block = id != 0 ? store.block(id) : std::nullopt;
    if (!block)
        return std::nullopt;
    const auto leafFlag = block->u16(0);
    const auto count = block->u16(2);
    const auto forward = block->u32(4);
    if (!leafFlag || !count || !forward || nodeHeaderSize + entrySize * *count > block->size())
        return std::nullopt;
    return Node{*block, *leafFlag != 0, *count, *forward};
}

/// The block id of the leftmost leaf of the tree whose header is block treeId: 0 when the root
/// block is too short for a node (an empty tree).
std::expected<std::uint32_t, Error> leftmostLeaf(const BomStore& store, std::uint32_t treeId) {
    const auto tree = store.block(treeId);
    const auto rootId = tree ? tree->u32(8) : std::nullopt;
    const auto root = rootId ? store.block(*rootId) : std::nullopt;
    if (!root)
        return damaged("the Paths tree or its root lies outside the file");
    if (root->size() < nodeHeaderSize)
        return 0;
    // Every step moves one level down; more steps than blocks means the branches loop.
    std::uint32_t id = *rootId;
    for (std::uint32_t step = 0; step < store.blockCount(); ++step) {
        const auto node = readNode(store, id);
        if (node && node->leaf)
            return id;
        const auto child = node && node->count > 0 ? node->block.u32(nodeHeaderSize) : std::nullopt;
        if (!child)
            return damaged("a branch of the Paths tree lies outside the file or is empty");
        id = *child;
    }
    return damaged("the branches of the Paths tree loop");
}

/// Calls visit on each leaf from first on along the forward links, up to the first failure:
/// a damaged leaf, links that loop (more leaves than blocks), or what visit refuses.
template <typename Visit>
std::expected<void, Error> forEachLeaf(const BomStore& store, std::uint32_t first, Visit&& visit) {
    std::uint32_t visited = 0;
    for (std::uint32_t id = first; id != 0; ++visited) {
        if (visited >= store.blockCount())
            return damaged("the leaves of the Paths tree loop");
        const auto node = readNode(store, id);
        if (!node)
            return damaged("a leaf of the Paths tree lies outside the file");
        if (auto done = visit(*node); !done)
            return done;
        id = node->forward;
    }
    return {};
}

/// The first leaf of every "Paths" tree, in variable order; empty trees are left out.
std::expected<std::vector<std::uint32_t>, Error> pathsTrees(const BomStore& store) {
    const BigEndianSlice& file = store.file();
    const auto variablesOffset = file.u32(24);
    const auto count = variablesOffset ? file.u32(*variablesOffset) : std::nullopt;
    if (!count)
        return damaged("the variables lie outside the file");
    std::vector<std::uint32_t> trees;
    std::size_t offset = *variablesOffset + std::size_t{4};
    for (std::uint32_t index = 0; index < *count; ++index) {
        const auto blockId = file.u32(offset);
        const auto nameLength = file.u8(offset + 4);
        const auto name = nameLength ? file.slice(offset + 5, *nameLength) : std::nullopt;
        if (!blockId || !name)
            return damaged("variable " + std::to_string(index + 1) + " runs past the file's end");
        if (name->bytes() == "Paths") {
            const auto leaf = leftmostLeaf(store, *blockId);
            if (!leaf)
                return std::unexpected(leaf.error());
            if (*leaf != 0)
                trees.push_back(*leaf);
        }
        offset += 5 + std::size_t{*nameLength};
    }
    return trees;
}

/// The number of entries in the leaves of the trees. Each entry takes 8 bytes of a leaf and
/// leaves do not overlap, so more entries than file bytes / 8 means a damaged file.
std::expected<std::uint32_t, Error> countEntries(const BomStore& store,
                                                 const std::vector<std::uint32_t>& trees) {
    std::size_t total = 0;
    for (const std::uint32_t first : trees) {
        auto counted =
            forEachLeaf(store, first, [&](const Node& leaf) -> std::expected<void, Error> {
                total += leaf.count;
                if (total > store.file().size() / entrySize ||
                    total > std::numeric_limits<std::uint32_t>::max())
                    return damaged("the Paths tree lists more entries than the file can hold");
                return {};
            });
        if (!counted)
            return std::unexpected(counted.error());
    }
    return static_cast<std::uint32_t>(total);
}

/// Room for path text that never moves, within a total budget.
class PathArena {
public:
    /// Chunks sized for a file of fileSize bytes, whose paths may take budget bytes in all.
    PathArena(std::size_t fileSize, std::size_t budget)
        : chunkSize_(std::clamp(fileSize, minArenaChunk, maxArenaChunk)), budget_(budget) {}

    /// length bytes, or null once the budget is spent.
    [[nodiscard]] char* allocate(std::size_t length) {
        if (length > budget_)
            return nullptr;
        budget_ -= length;
        if (length > left_) {
            left_ = std::max(length, chunkSize_);
            chunks_.emplace_back(left_);
            next_ = chunks_.back().data();
        }
        char* text = next_;
        next_ += length;
        left_ -= length;
        return text;
    }

private:
    std::vector<Pages> chunks_;
    char* next_ = nullptr;
    std::size_t left_ = 0;
    std::size_t chunkSize_;
    std::size_t budget_;
};

/// The rebuilt path of each path id seen so far. Ids are dense in practice (1 to the number of
/// paths) and live in a vector; others go to a hash map. A data() of null marks an unseen id.
class PathIndex {
public:
    explicit PathIndex(std::size_t denseSize) : dense_(denseSize), denseSize_(denseSize) {}

    std::string_view find(std::uint32_t id) const {
        if (id < denseSize_)
            return dense_[id];
        const auto found = sparse_.find(id);
        return found == sparse_.end() ? std::string_view() : found->second;
    }

    /// False when id was already seen: path ids name one path each.
    [[nodiscard]] bool insert(std::uint32_t id, std::string_view path) {
        if (id >= denseSize_)
            return sparse_.try_emplace(id, path).second;
        if (dense_[id].data())
            return false;
        dense_[id] = path;
        return true;
    }

private:
    PageArray<std::string_view> dense_;
    std::size_t denseSize_;
    std::unordered_map<std::uint32_t, std::string_view> sparse_;
};

/// Where a leaf entry sits in the tree: its path id, its folder's id and its own name.
struct TreeKey {
    std::uint32_t id;
    std::uint32_t parent;
    std::string_view name;
};

/// Owner, group and mode, and what the record holds of size, checksum and link target; the
/// record is at least attributesSize long.
BomEntry readAttributes(const BigEndianSlice& record) {
    BomEntry entry;
    const std::uint8_t type = *record.u8(0);
    entry.mode = *record.u16(4);
    entry.uid = *record.u32(6);
    entry.gid = *record.u32(10);
    if (record.size() >= attributesWithSize)
        entry.size = *record.u32(18);
    if (record.size() >= attributesWithChecksum)
        entry.checksum = *record.u32(23);
    entry.hasChecksum =
        record.size() >= attributesWithChecksum &&
        ((type == fileType && S_ISREG(entry.mode)) || (type == linkType && S_ISLNK(entry.mode)));
    // The stored length counts a final NUL; a target that overruns its record is left out.
    const auto linkLength =
        record.size() >= attributesWithLink ? record.u32(27) : std::optional<std::uint32_t>();
    const auto link = type == linkType && linkLength ? record.slice(attributesWithLink, *linkLength)
                                                     : std::nullopt;
    if (link)
        entry.linkTarget = link->bytes().substr(0, link->bytes().find('\0'));
    return entry;
}

/// Entry index of a leaf: its key, and its value's attributes as an entry without its path;
/// nothing when one of them is missing or too short.
std::optional<std::pair<TreeKey, BomEntry>> readEntry(const BomStore& store, const Node& leaf,
                                                      std::size_t index) {
    const auto valueId = leaf.block.u32(nodeHeaderSize + entrySize * index);
    const auto keyId = leaf.block.u32(nodeHeaderSize + entrySize * index + 4);
    const auto key = keyId ? store.block(*keyId) : std::nullopt;
    const auto value = valueId ? store.block(*valueId) : std::nullopt;
    if (!key || !value)
        return std::nullopt;
    const auto parent = key->u32(0);
    const auto name = key->cString(4);
    const auto id = value->u32(0);
    const auto attributesId = value->u32(4);
    const auto attributes = attributesId ? store.block(*attributesId) : std::nullopt;
    if (!parent || !name || !id || !attributes || attributes->size() < attributesSize)
        return std::nullopt;
    return std::pair{TreeKey{*id, *parent, *name}, readAttributes(*attributes)};
}

/// Fills entries from the leaves of one tree, rebuilding each path as the format says: the
/// name, and before it the name of each ancestor as far as the ancestors are known when the
/// entry is listed. Receipts list every folder before its contents, so a path is its folder's
/// path, "/" and the name. Only a path listed before a folder of its own is built by walking
/// the names; a parent chain that loops is refused instead of walked forever.
class TreeFiller {
public:
    TreeFiller(const BomStore& store, PathArena& arena, BomEntry* out, std::size_t idCount)
        : store_(store), arena_(arena), out_(out), index_(idCount) {}

    [[nodiscard]] std::expected<void, Error> addLeaf(const Node& leaf) {
        for (std::size_t k = 0; k < leaf.count; ++k) {
            const auto entry = readEntry(store_, leaf, k);
            if (!entry)
                return damaged("a path's key, value or attributes lie outside the file");
            if (!add(entry->first, entry->second))
                return damaged(std::string(fault_));
        }
        return {};
    }

    /// One past the last entry filled.
    BomEntry* end() const { return out_; }

private:
    /// A path built while one of its folders was not yet listed: its name and parent, for the
    /// paths below it, which are built by walking the names again.
    struct Partial {
        std::string_view name;
        std::uint32_t parent;
    };

    /// False, with the fault noted, when the path cannot be built or its id was seen before.
    bool add(const TreeKey& key, const BomEntry& attributes) {
        // Reused from entry to entry: a million paths make no million small allocations.
        auto& pieces = pieces_;
        pieces.assign(1, key.name);
        bool complete = true;
        if (key.parent != 0 && !addAncestors(key.parent, pieces, complete))
            return fail("the folders of a path name one another");
        std::size_t length = pieces.size() - 1;
        for (const auto piece : pieces)
            length += piece.size();
        // An empty path needs an address too: a null one marks an id not seen yet.
        char* text = arena_.allocate(std::max<std::size_t>(length, 1));
        if (!text)
            return fail("its paths are longer than a file of its size can make");
        char* end = text;
        for (auto piece = pieces.rbegin(); piece != pieces.rend(); ++piece) {
            end = std::copy(piece->begin(), piece->end(), end);
            if (end != text + length)
                *end++ = '/';
        }
        const std::string_view path(text, length);
        if (!index_.insert(key.id, path) ||
            (!complete && !partial_.try_emplace(key.id, Partial{key.name, key.parent}).second))
            return fail("a path id is listed twice");
        *out_ = attributes;
        out_->path = path;
        ++out_;
        return true;
    }

    bool fail(std::string_view fault) {
        fault_ = fault;
        return false;
    }

    /// Appends the names above a path whose parent is parent, nearest first: a folder whose path
    /// was complete when it was listed gives that whole path; one never listed gives an empty
    /// name and ends the walk (the path then begins with "/"). False when the chain loops.
    bool addAncestors(std::uint32_t parent, std::vector<std::string_view>& pieces, bool& complete) {
        for (std::size_t step = 0; step <= partial_.size(); ++step) {
            const std::string_view path = index_.find(parent);
            const auto found = partial_.empty() ? partial_.end() : partial_.find(parent);
            if (!path.data() || found == partial_.end()) {
                pieces.push_back(path);
                complete = path.data() != nullptr;
                return true;
            }
            pieces.push_back(found->second.name);
            parent = found->second.parent;
        }
        return false;
    }

    const BomStore& store_;
    PathArena& arena_;
    BomEntry* out_;
    PathIndex index_;
    std::unordered_map<std::uint32_t, Partial> partial_;
    std::vector<std::string_view> pieces_;
    std::string_view fault_;
};

} // namespace

struct BomReader::State {
    State(Pages pages, std::string owned, std::size_t size)
        : filePages(std::move(pages)), ownedBytes(std::move(owned)),
          bytes(filePages.data() ? filePages.data() : ownedBytes.data(), size),
          arena(size, maxPathTextPerFileByte * size) {}

    Pages filePages;
    std::string ownedBytes;
    std::string_view bytes;
    PathArena arena;
    PageArray<BomEntry> entries;
    std::uint32_t total = 0;

    /// Lists the paths of bytes.
    [[nodiscard]] std::expected<void, Error> list();
};

std::expected<void, Error> BomReader::State::list() {
    const auto store = BomStore::open(bytes);
    if (!store)
        return std::unexpected(store.error());
    const auto trees = pathsTrees(*store);
    if (!trees)
        return std::unexpected(trees.error());
    const auto count = countEntries(*store, *trees);
    if (!count)
        return std::unexpected(count.error());
    entries = PageArray<BomEntry>(*count);
    BomEntry* out = entries.data();
    for (const std::uint32_t first : *trees) {
        TreeFiller filler(*store, arena, out, std::size_t{*count} + 1);
        auto filled =
            forEachLeaf(*store, first, [&](const Node& leaf) { return filler.addLeaf(leaf); });
        if (!filled)
            return filled;
        out = filler.end();
    }
    total = *count;
    return {};
}

BomReader::BomReader(std::string fileName) : fileName_(std::move(fileName)) {
}

BomReader::~BomReader() = default;

BomReader::Entries BomReader::parse() {
    state_.reset();
    const int fd = ::open(fileName_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return ioFailure("cannot open the file");
    auto entries = parseFile(fd);
    ::close(fd);
    return entries;
}

BomReader::Entries BomReader::parseFile(int fd) {
    state_.reset();
    auto file = readFile(fd);
    if (!file)
        return std::unexpected(file.error());
    return take(std::make_unique<State>(std::move(file->first), std::string(), file->second));
}

BomReader::Entries BomReader::parseBytes(std::string bytes) {
    state_.reset();
    const std::size_t size = bytes.size();
    return take(std::make_unique<State>(Pages(), std::move(bytes), size));
}

BomReader::Entries BomReader::take(std::unique_ptr<State> state) {
    if (auto listed = state->list(); !listed)
        return std::unexpected(listed.error());
    state_ = std::move(state);
    return std::span<const BomEntry>(state_->entries.data(), state_->total);
}

std::unique_ptr<BomFile> BomFile::initWithFileName(std::string fileName) {
    return std::unique_ptr<BomFile>(new BomFile(std::move(fileName)));
}

BomFile::BomFile(std::string fileName) : fileName_(std::move(fileName)), parser_(fileName_) {
}

void BomFile::parse() {
    take(parser_.parse());
}

void BomFile::parseFile(int fd) {
    take(parser_.parseFile(fd));
}

void BomFile::take(const BomReader::Entries& entries) {
    entries_ = entries.value_or(std::span<const BomEntry>());
}

} // namespace quelm
