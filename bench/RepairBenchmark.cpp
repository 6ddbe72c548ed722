// Benchmarks of verify and repair over a generated volume of 100,000 paths, listed by its
// receipt in tree order (a folder's items together, as real receipts list them) or in random
// order, of the content check over 256 MB of files, and of the checksum alone.
// `quelm_repair_bench --make-volume DIR [--random-order] [--content]` only makes a volume, for
// timing quelmctl against find(1) and cksum(1).
#include "repair/BomWriter.h"
#include "repair/PermissionRepair.h"
#include "repair/PosixChecksum.h"
#include "repair/Processor.h"
#include "support/Files.h"
#include "support/PropertyList.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstring>
#include <deque>
#include <filesystem>
#include <iostream>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPathCount = 100'000;
constexpr std::size_t kFilesPerFolder = 24;
constexpr std::size_t kFoldersPerFolder = 6;
constexpr std::size_t kContentFileCount = 256;
constexpr std::size_t kContentFileSize = std::size_t{1} << 20;

enum class Order { tree, random };

/// Keeps the text of a generated path for the whole run: entries only view their paths.
std::string_view kept(std::string path) {
    static std::deque<std::string> paths;
    return paths.emplace_back(std::move(path));
}

/// Folders breadth first, each with its files, listed parents before children. In random
/// order the paths of each depth are shuffled: parents still come first, as a receipt needs.
std::vector<BomEntry> volumeRecords(Order order) {
    const std::uint32_t uid = ::getuid(), gid = ::getgid();
    const std::uint32_t empty = posixChecksum("");
    std::vector<BomEntry> records{{".", 040755, uid, gid}};
    std::vector<std::string> folders{"."};
    for (std::size_t next = 0; records.size() < kPathCount; ++next) {
        const std::string parent = folders[next];
        for (std::size_t i = 0; i < kFilesPerFolder && records.size() < kPathCount; ++i)
            records.emplace_back(kept(parent + "/file" + std::to_string(i) + ".plist"),
                                 static_cast<std::uint16_t>(i % 10 ? 0100644 : 0100755), uid, gid,
                                 0, empty);
        for (std::size_t i = 0; i < kFoldersPerFolder && records.size() < kPathCount; ++i) {
            folders.push_back(parent + "/Folder" + std::to_string(i));
            records.emplace_back(kept(folders.back()), 040755, uid, gid);
        }
    }
    if (order == Order::random) {
        std::shuffle(records.begin() + 1, records.end(), std::mt19937(42));
        std::ranges::stable_sort(records, {}, [](const BomEntry& record) {
            return std::ranges::count(record.path, '/');
        });
    }
    return records;
}

/// A folder of files of random bytes, with their real sizes and checksums.
std::vector<BomEntry> contentRecords(std::vector<std::string>& contents) {
    const std::uint32_t uid = ::getuid(), gid = ::getgid();
    std::vector<BomEntry> records{{".", 040755, uid, gid}, {"./Content", 040755, uid, gid}};
    std::mt19937_64 random(7);
    for (std::size_t i = 0; i < kContentFileCount; ++i) {
        std::string bytes(kContentFileSize, '\0');
        for (std::size_t at = 0; at < bytes.size(); at += 8) {
            const std::uint64_t word = random();
            std::memcpy(bytes.data() + at, &word, sizeof word);
        }
        records.emplace_back(kept("./Content/file" + std::to_string(i)), 0100644, uid, gid,
                             static_cast<std::uint32_t>(bytes.size()), posixChecksum(bytes));
        contents.push_back(std::move(bytes));
    }
    return records;
}

void writeOrDie(const fs::path& path, std::string_view bytes) {
    if (!writeFileAtomically(path, bytes)) {
        std::cerr << "cannot write " << path << '\n';
        std::exit(1);
    }
}

/// The volume with one receipt listing records; contents[i] is written into the i-th file.
void makeVolume(const fs::path& volume, const std::vector<BomEntry>& records,
                const std::vector<std::string>& contents = {}) {
    const auto receipts = volume / "System/Library/Receipts";
    fs::create_directories(receipts);
    fs::create_directories(volume / "System/Library/CoreServices");
    writeOrDie(volume / "System/Library/CoreServices/SystemVersion.plist",
               *serializePlist(PlistValue::Dict{{"ProductVersion", "10.12.6"},
                                                {"ProductBuildVersion", "16G29"}},
                               PlistFormat::xml));
    writeOrDie(receipts / "com.apple.pkg.Bench.plist",
               *serializePlist(PlistValue::Dict{{"PackageIdentifier", "com.apple.pkg.Bench"},
                                                {"PackageGroups",
                                                 PlistValue::Array{"com.apple.snowleopard-repair-"
                                                                   "permissions.pkg-group"}}},
                               PlistFormat::binary));
    writeOrDie(receipts / "com.apple.pkg.Bench.bom", *writeBom(records));
    std::size_t file = 0;
    for (const auto& record : records) {
        const auto path = volume / record.path;
        if (S_ISDIR(record.mode))
            fs::create_directories(path);
        else if (file < contents.size())
            writeOrDie(path, contents[file++]);
        else
            std::fclose(std::fopen(path.c_str(), "w"));
        ::chmod(path.c_str(), record.mode & 07777);
    }
}

struct BenchVolume {
    explicit BenchVolume(Order order) {
        char folder[] = "/tmp/quelm-repair-bench-XXXXXX";
        root = ::mkdtemp(folder);
        records = volumeRecords(order);
        makeVolume(root, records);
    }
    BenchVolume(const std::vector<BomEntry>& content, const std::vector<std::string>& bytes) {
        char folder[] = "/tmp/quelm-repair-bench-XXXXXX";
        root = ::mkdtemp(folder);
        records = content;
        makeVolume(root, records, bytes);
    }
    ~BenchVolume() { fs::remove_all(root); }
    Volume volume() const { return *Volume::initWithMountPoint(root.string()); }

    fs::path root;
    std::vector<BomEntry> records;
};

const BenchVolume& benchVolume(Order order) {
    static const BenchVolume tree(Order::tree);
    static const BenchVolume random(Order::random);
    return order == Order::tree ? tree : random;
}

const BenchVolume& contentVolume() {
    static const BenchVolume volume = [] {
        std::vector<std::string> contents;
        const auto records = contentRecords(contents);
        return BenchVolume(records, contents);
    }();
    return volume;
}

/// Arguments: the receipt's order (0 tree, 1 random) and the number of work items. The work
/// runs on other threads, so the times are wall-clock times.
void BM_VerifyVolume(benchmark::State& state) {
    const auto& bench = benchVolume(state.range(0) == 0 ? Order::tree : Order::random);
    Processor::shared().setMaxthread(state.range(1));
    for (auto _ : state) {
        PermissionRepair job(bench.volume(), RepairMode::verifyPermissions);
        job.run();
        benchmark::DoNotOptimize(job.results().data());
    }
    state.SetLabel(state.range(0) == 0 ? "tree order" : "random order");
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPathCount));
}
BENCHMARK(BM_VerifyVolume)
    ->ArgsProduct({{0, 1}, {1, 2}})
    ->ArgNames({"random", "threads"})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// Every 100th file damaged before each run, so that repair changes 1% of the volume.
void BM_RepairVolume(benchmark::State& state) {
    const auto& bench = benchVolume(state.range(0) == 0 ? Order::tree : Order::random);
    Processor::shared().setMaxthread(state.range(1));
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t i = 1; i < bench.records.size(); i += 100)
            ::chmod((bench.root / bench.records[i].path).c_str(), 0700);
        state.ResumeTiming();
        PermissionRepair job(bench.volume(), RepairMode::repairPermissions);
        job.run();
        benchmark::DoNotOptimize(job.results().data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPathCount));
}
BENCHMARK(BM_RepairVolume)
    ->ArgsProduct({{0, 1}, {1, 2}})
    ->ArgNames({"random", "threads"})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// Verify with the content check over 256 files of 1 MiB, read from the page cache.
void BM_VerifyContent(benchmark::State& state) {
    const auto& bench = contentVolume();
    Processor::shared().setMaxthread(state.range(0));
    for (auto _ : state) {
        PermissionRepair job(bench.volume(), RepairMode::verifyPermissions);
        job.setChecksContent(true);
        job.run();
        if (!job.results().empty())
            state.SkipWithError("the content check found differences");
    }
    state.SetBytesProcessed(state.iterations() *
                            static_cast<std::int64_t>(kContentFileCount * kContentFileSize));
}
BENCHMARK(BM_VerifyContent)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_PosixChecksum(benchmark::State& state) {
    std::string bytes(static_cast<std::size_t>(state.range(0)), '\0');
    std::mt19937 random(1);
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    for (auto _ : state)
        benchmark::DoNotOptimize(posixChecksum(bytes));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_PosixChecksum)->Arg(4096)->Arg(256 << 10)->Arg(16 << 20);

} // namespace
} // namespace quelm

int main(int argc, char** argv) {
    if (argc >= 3 && std::strcmp(argv[1], "--make-volume") == 0) {
        const auto has = [&](const char* option) {
            return std::any_of(argv + 3, argv + argc,
                               [&](const char* arg) { return std::strcmp(arg, option) == 0; });
        };
        std::vector<std::string> contents;
        if (has("--content"))
            quelm::makeVolume(argv[2], quelm::contentRecords(contents), contents);
        else
            quelm::makeVolume(argv[2],
                              quelm::volumeRecords(has("--random-order") ? quelm::Order::random
                                                                         : quelm::Order::tree));
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
