// Benchmarks of the BOM reader and lister over a BOM shaped like a whole system volume.
#include "repair/BomReader.h"
#include "repair/BomWriter.h"
#include "support/Files.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iostream>
#include <random>

namespace quelm {
namespace {

constexpr std::size_t recordCount = 1'000'000;
constexpr std::size_t minDepth = 4;
constexpr std::size_t maxDepth = 7;

constexpr std::array folderWords{
    "System",     "Library",  "Frameworks", "PrivateFrameworks", "Resources",
    "Contents",   "Versions", "Headers",    "Modules",           "CoreServices",
    "Extensions", "PlugIns",  "en.lproj",   "Base.lproj",        "Application Support",
    "share",      "man",      "include",    "Components",        "Input Methods"};
constexpr std::array fileWords{"Info",          "version",  "Localizable", "InfoPlist", "AppIcon",
                               "CodeResources", "MainMenu", "libSystem",   "Assets",    "module"};
constexpr std::array extensions{".plist", ".strings", ".nib", ".png", ".dylib", ".tiff", ".h", ""};

struct Folder {
    std::string path;
    std::size_t depth;
};

/// Folders listed breadth first, each with its files and sub-folders, as receipts list them:
/// folders reach at least minDepth wherever the tree stops and at most maxDepth, so paths are
/// 4 to 8 names deep. The entries view their paths, which paths keeps.
std::vector<BomEntry> systemVolumeEntries(std::size_t count, std::deque<std::string>& paths) {
    std::mt19937 random(1);
    const auto pick = [&](std::size_t low, std::size_t high) {
        return std::uniform_int_distribution<std::size_t>(low, high)(random);
    };
    std::vector<BomEntry> records{{".", 040755, 0, 0}};
    std::deque<Folder> folders{{".", 0}};
    while (records.size() < count && !folders.empty()) {
        const Folder folder = std::move(folders.front());
        folders.pop_front();
        const std::size_t subfolders =
            folder.depth < minDepth ? pick(3, 7) : (folder.depth < maxDepth ? pick(2, 6) : 0);
        const std::size_t files = pick(4, 50);
        for (std::size_t index = 0; index < subfolders + files && records.size() < count; ++index) {
            const bool isFolder = index < subfolders;
            std::string name = isFolder ? folderWords[pick(0, folderWords.size() - 1)]
                                        : fileWords[pick(0, fileWords.size() - 1)];
            name += std::to_string(index) + (isFolder ? "" : extensions[pick(0, 7)]);
            const std::string& path = paths.emplace_back(folder.path + "/" + name);
            const std::uint16_t mode = isFolder ? 040755 : (pick(0, 9) == 0 ? 0100755 : 0100644);
            records.push_back({path, mode, 0, pick(0, 3) == 0 ? 80u : 0u});
            if (isFolder)
                folders.push_back({path, folder.depth + 1});
        }
    }
    return records;
}

std::filesystem::path bomFile;

void parseAndRebuild(benchmark::State& state) {
    for (auto _ : state) {
        BomReader parser(bomFile.string());
        const auto entries = parser.parse();
        if (!entries) {
            state.SkipWithError(entries.error().message.c_str());
            break;
        }
        benchmark::DoNotOptimize(entries->data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * recordCount));
}

void parseRebuildAndFormat(benchmark::State& state) {
    std::string out;
    out.reserve((std::size_t{1} << 20) + 4096);
    for (auto _ : state) {
        BomReader parser(bomFile.string());
        const auto entries = parser.parse();
        if (!entries) {
            state.SkipWithError(entries.error().message.c_str());
            break;
        }
        for (const BomEntry& entry : *entries) {
            appendListingLine(out, entry);
            if (out.size() >= std::size_t{1} << 20) {
                benchmark::DoNotOptimize(out.data());
                out.clear();
            }
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * recordCount));
}

BENCHMARK(parseAndRebuild)->Unit(benchmark::kMillisecond)->UseRealTime()->Threads(1)->Threads(2);
BENCHMARK(parseRebuildAndFormat)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Threads(1)
    ->Threads(2);

bool writeSystemVolumeBom(const std::filesystem::path& path) {
    std::deque<std::string> paths;
    const auto bom = writeBom(systemVolumeEntries(recordCount, paths));
    if (!bom) {
        std::cerr << bom.error().message << '\n';
        return false;
    }
    if (auto written = writeFileAtomically(path, *bom); !written) {
        std::cerr << written.error().message << '\n';
        return false;
    }
    return true;
}

} // namespace
} // namespace quelm

/// With --write-bom=PATH, only writes the generated BOM to PATH (for measuring quelmctl).
int main(int argc, char** argv) {
    constexpr std::string_view writeOption = "--write-bom=";
    if (argc == 2 && std::string_view(argv[1]).starts_with(writeOption))
        return quelm::writeSystemVolumeBom(argv[1] + writeOption.size()) ? 0 : 1;
    std::string folder = (std::filesystem::temp_directory_path() / "quelm-bench-XXXXXX").string();
    if (!::mkdtemp(folder.data()))
        return 1;
    quelm::bomFile = std::filesystem::path(folder) / "system.bom";
    benchmark::Initialize(&argc, argv);
    const bool written = quelm::writeSystemVolumeBom(quelm::bomFile);
    if (written)
        benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(folder);
    return written ? 0 : 1;
}
