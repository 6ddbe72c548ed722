// The BOM store reader: walks the "Paths" tree of a BOMStore file with every read checked.
#include "repair/YRBomParser.h"

#include "support/ByteReader.h"
#include "support/Files.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <unordered_map>

namespace quelm {
namespace {

constexpr std::size_t headerSize = 32;
constexpr std::size_t nodeHeaderSize = 12;
constexpr std::size_t entrySize = 8;
constexpr std::size_t attributesSize = 14;
constexpr std::size_t arenaChunkSize = std::size_t{1} << 20;
// Block addresses are 32-bit, so nothing of a BOM lies past 4 GiB.
constexpr std::uintmax_t maxFileSize = std::uintmax_t{1} << 32;
// Real BOMs hold less path text than file bytes. Far more can only come from blocks that
// alias one another, so such a file is refused rather than allowed to exhaust memory.
constexpr std::size_t maxPathTextPerFileByte = 64;

/// The container: header checked, block table located.
class BomStore {
public:
    [[nodiscard]] static std::optional<BomStore> open(std::string_view bytes);

    /// The bytes of block id, when the table lists it and they lie inside the file.
    [[nodiscard]] std::optional<ByteSlice> block(std::uint32_t id) const {
        if (id >= blockCount_)
            return std::nullopt;
        const auto address = table_.u32(std::size_t{8} * id);
        const auto length = table_.u32(std::size_t{8} * id + 4);
        if (!address || !length)
            return std::nullopt;
        return file_.slice(*address, *length);
    }

    std::uint32_t blockCount() const { return blockCount_; }
    const ByteSlice& file() const { return file_; }

private:
    ByteSlice file_;
    ByteSlice table_;
    std::uint32_t blockCount_ = 0;
};

std::optional<BomStore> BomStore::open(std::string_view bytes) {
    BomStore store;
    store.file_ = ByteSlice(bytes);
    // The magic is compared as a C string, so byte 8 (the version's high byte) must be 0.
    const auto magic = store.file_.cString(0);
    const auto tableOffset = store.file_.u32(16);
    if (!magic || *magic != "BOMStore" || bytes.size() < headerSize || !tableOffset)
        return std::nullopt;
    const auto count = store.file_.u32(*tableOffset);
    if (!count)
        return std::nullopt;
    store.table_ = ByteSlice(bytes.substr(*tableOffset + std::size_t{4}));
    store.blockCount_ =
        static_cast<std::uint32_t>(std::min<std::size_t>(*count, store.table_.size() / 8));
    return store;
}

struct Node {
    ByteSlice block;
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
/// block is too short for a node (an empty tree), nothing when the tree is damaged.
std::optional<std::uint32_t> leftmostLeaf(const BomStore& store, std::uint32_t treeId) {
    const auto tree = store.block(treeId);
    const auto rootId = tree ? tree->u32(8) : std::nullopt;
    const auto root = rootId ? store.block(*rootId) : std::nullopt;
    if (!root)
        return std::nullopt;
    if (root->size() < nodeHeaderSize)
        return 0;
    // Every step moves one level down; more steps than blocks means the branches loop.
    std::uint32_t id = *rootId;
    for (std::uint32_t step = 0; step < store.blockCount(); ++step) {
        const auto node = readNode(store, id);
        if (!node)
            return std::nullopt;
        if (node->leaf)
            return id;
        const auto child = node->count > 0 ? node->block.u32(nodeHeaderSize) : std::nullopt;
        if (!child)
            return std::nullopt;
        id = *child;
    }
    return std::nullopt;
}

/// Calls visit on each leaf from first on along the forward links; false when a leaf is
/// damaged, visit refuses it, or the links loop (more leaves than blocks).
template <typename Visit>
bool forEachLeaf(const BomStore& store, std::uint32_t first, Visit&& visit) {
    std::uint32_t visited = 0;
    for (std::uint32_t id = first; id != 0; ++visited) {
        const auto node = visited < store.blockCount() ? readNode(store, id) : std::nullopt;
        if (!node || !visit(*node))
            return false;
        id = node->forward;
    }
    return true;
}

/// The first leaf of every "Paths" tree, in variable order; empty trees are left out.
std::optional<std::vector<std::uint32_t>> pathsTrees(const BomStore& store) {
    const ByteSlice& file = store.file();
    const auto variablesOffset = file.u32(24);
    const auto count = variablesOffset ? file.u32(*variablesOffset) : std::nullopt;
    if (!count)
        return std::nullopt;
    std::vector<std::uint32_t> trees;
    std::size_t offset = *variablesOffset + std::size_t{4};
    for (std::uint32_t index = 0; index < *count; ++index) {
        const auto blockId = file.u32(offset);
        const auto nameLength = file.u8(offset + 4);
        const auto name = nameLength ? file.slice(offset + 5, *nameLength) : std::nullopt;
        if (!blockId || !name)
            return std::nullopt;
        if (name->bytes() == "Paths") {
            const auto leaf = leftmostLeaf(store, *blockId);
            if (!leaf)
                return std::nullopt;
            if (*leaf != 0)
                trees.push_back(*leaf);
        }
        offset += 5 + std::size_t{*nameLength};
    }
    return trees;
}

/// The number of entries in the leaves of the trees. Each entry takes 8 bytes of a leaf and
/// leaves do not overlap, so more entries than file bytes / 8 means a damaged file.
std::optional<std::uint32_t> countEntries(const BomStore& store,
                                          const std::vector<std::uint32_t>& trees) {
    std::size_t total = 0;
    for (const std::uint32_t first : trees) {
        const bool walked = forEachLeaf(store, first, [&](const Node& leaf) {
            total += leaf.count;
            return total <= store.file().size() / entrySize;
        });
        if (!walked)
            return std::nullopt;
    }
    return static_cast<std::uint32_t>(total);
}

/// Room for path text that never moves, within a total budget.
class PathArena {
public:
    explicit PathArena(std::size_t budget) : budget_(budget) {}

    /// length bytes, or null once the budget is spent.
    [[nodiscard]] char* allocate(std::size_t length) {
        if (length > budget_)
            return nullptr;
        budget_ -= length;
        if (length > left_) {
            left_ = std::max(length, arenaChunkSize);
            chunks_.push_back(std::make_unique_for_overwrite<char[]>(left_));
            next_ = chunks_.back().get();
        }
        char* text = next_;
        next_ += length;
        left_ -= length;
        return text;
    }

private:
    std::vector<std::unique_ptr<char[]>> chunks_;
    char* next_ = nullptr;
    std::size_t left_ = 0;
    std::size_t budget_;
};

/// The rebuilt path of each path id seen so far. Ids are dense in practice (1 to the number of
/// paths) and live in a vector; others go to a hash map. A data() of null marks an unseen id.
class PathIndex {
public:
    explicit PathIndex(std::size_t denseSize) : dense_(denseSize) {}

    std::string_view find(std::uint32_t id) const {
        if (id < dense_.size())
            return dense_[id];
        const auto found = sparse_.find(id);
        return found == sparse_.end() ? std::string_view() : found->second;
    }

    /// False when id was already seen: path ids name one path each.
    [[nodiscard]] bool insert(std::uint32_t id, std::string_view path) {
        if (id >= dense_.size())
            return sparse_.try_emplace(id, path).second;
        if (dense_[id].data())
            return false;
        dense_[id] = path;
        return true;
    }

private:
    std::vector<std::string_view> dense_;
    std::unordered_map<std::uint32_t, std::string_view> sparse_;
};

/// What one leaf entry says about its path.
struct PathEntry {
    std::uint32_t id;
    std::uint32_t parent;
    std::string_view name;
    YRFileSystemResource attributes;
};

std::optional<PathEntry> readEntry(const BomStore& store, const Node& leaf, std::size_t index) {
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
    return PathEntry{*id, *parent, *name,
                     YRFileSystemResource{nullptr, *attributes->u32(6), *attributes->u32(10),
                                          *attributes->u16(4)}};
}

/// Fills records from the leaves of one tree, rebuilding each path as the parent's path, "/"
/// and the name. A parent's path is the one rebuilt when the parent was listed: receipts list
/// every directory before its contents, so this equals prepending the names of all ancestors,
/// and since only paths already built are used, a parent chain that loops cannot hang it.
class TreeFiller {
public:
    TreeFiller(const BomStore& store, PathArena& arena, YRFileSystemResource* out,
               std::size_t idCount)
        : store_(store), arena_(arena), out_(out), index_(idCount) {}

    [[nodiscard]] bool addLeaf(const Node& leaf) {
        for (std::size_t k = 0; k < leaf.count; ++k) {
            const auto entry = readEntry(store_, leaf, k);
            if (!entry || !add(*entry))
                return false;
        }
        return true;
    }

    /// One past the last record filled.
    YRFileSystemResource* end() const { return out_; }

private:
    bool add(const PathEntry& entry) {
        // A parent never seen contributes an empty path, which gives "/" and the name.
        const bool hasParent = entry.parent != 0;
        const std::string_view parent = hasParent ? index_.find(entry.parent) : std::string_view();
        const std::size_t length = parent.size() + (hasParent ? 1 : 0) + entry.name.size();
        char* text = arena_.allocate(length + 1);
        if (!text)
            return false;
        char* end = std::copy(parent.begin(), parent.end(), text);
        if (hasParent)
            *end++ = '/';
        *std::copy(entry.name.begin(), entry.name.end(), end) = '\0';
        if (!index_.insert(entry.id, std::string_view(text, length)))
            return false;
        *out_ = entry.attributes;
        out_->path = text;
        ++out_;
        return true;
    }

    const BomStore& store_;
    PathArena& arena_;
    YRFileSystemResource* out_;
    PathIndex index_;
};

} // namespace

struct YRBomParser::State {
    explicit State(std::string bytes)
        : buffer(std::move(bytes)), arena(maxPathTextPerFileByte * buffer.size()) {}

    std::string buffer;
    PathArena arena;
    std::unique_ptr<YRFileSystemResource[]> records;
    std::uint32_t total = 0;
};

YRBomParser::YRBomParser(std::string fileName) : fileName_(std::move(fileName)) {
}

YRBomParser::~YRBomParser() = default;

YRBomParser::Status YRBomParser::parse() {
    auto bytes = readFileBytes(fileName_, maxFileSize);
    if (!bytes) {
        state_.reset();
        return unreadable;
    }
    return parseBytes(std::move(*bytes));
}

YRBomParser::Status YRBomParser::parseBytes(std::string bytes) {
    state_.reset();
    auto state = std::make_unique<State>(std::move(bytes));
    const auto store = BomStore::open(state->buffer);
    const auto trees = store ? pathsTrees(*store) : std::nullopt;
    const auto total = trees ? countEntries(*store, *trees) : std::nullopt;
    if (!total)
        return notABomStore;
    state->records = std::make_unique_for_overwrite<YRFileSystemResource[]>(*total);
    YRFileSystemResource* out = state->records.get();
    for (const std::uint32_t first : *trees) {
        TreeFiller filler(*store, state->arena, out, std::size_t{*total} + 1);
        if (!forEachLeaf(*store, first, [&](const Node& leaf) { return filler.addLeaf(leaf); }))
            return notABomStore;
        out = filler.end();
    }
    state->total = *total;
    state_ = std::move(state);
    return success;
}

std::uint32_t YRBomParser::total() const {
    return state_ ? state_->total : 0;
}

const YRFileSystemResource* YRBomParser::resources() const {
    return state_ ? state_->records.get() : nullptr;
}

std::unique_ptr<YRBomParserWrapper> YRBomParserWrapper::initWithFileName(std::string fileName) {
    return std::unique_ptr<YRBomParserWrapper>(new YRBomParserWrapper(std::move(fileName)));
}

YRBomParserWrapper::YRBomParserWrapper(std::string fileName)
    : fileName_(std::move(fileName)), parser_(fileName_) {
}

void YRBomParserWrapper::parse() {
    count_ = 0;
    results_ = nullptr;
    if (parser_.parse() != YRBomParser::success)
        return;
    count_ = parser_.total();
    results_ = parser_.resources();
}

} // namespace quelm
