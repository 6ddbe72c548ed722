// libFuzzer target: the receipt and bundle readers on an arbitrary file, as a volume to repair
// or a kext to install may hold one, must refuse or read it, never crash; nothing read may be
// nested deeper than the check before parsing allows, and no input may make them hold more
// than a few times the budget for a list of its size.
#include "AllocationPeak.h"
#include "repair/Package.h"
#include "support/Bundle.h"
#include "support/PropertyList.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

/// A folder of this process's own for the file under test, removed at exit.
struct Scratch {
    Scratch() { std::filesystem::create_directories(folder); }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("quelm-plist-fuzz-" + std::to_string(::getpid()));
};

std::size_t depthOf(const quelm::PlistValue& value) {
    std::size_t deepest = 0;
    if (const auto* items = value.array())
        for (const auto& item : *items)
            deepest = std::max(deepest, depthOf(item));
    if (const auto* entries = value.dict())
        for (const auto& [key, entry] : *entries)
            deepest = std::max(deepest, depthOf(entry));
    return deepest + 1;
}

volatile std::size_t readBytes;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Scratch scratch;
    const quelm::fuzz::AllocationPeak peak;
    const auto path = scratch.folder / "Info.plist";
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    // XML without a plist element around its values gets that element's level for them.
    if (const auto value = quelm::readPlistFile(path);
        value && depthOf(*value) > quelm::kMaxPlistDepth + 1)
        __builtin_trap();
    std::size_t length = 0;
    if (const auto package = quelm::StandardPackage::initWithReceiptPath(path.string()))
        length += package->identifier().size() + package->bomPathString().size();
    const quelm::Bundle bundle(scratch.folder);
    for (const auto& [key, value] : bundle.infoDictionary())
        length += key.size() + (value.string() ? value.string()->size() : 0);
    readBytes = length;
    // The budget counts values, not what the allocator makes of them, and each reader above
    // holds its own copy of the file.
    peak.require(4 * quelm::plistReadBudget(size), size);
    return 0;
}
