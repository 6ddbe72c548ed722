// Benchmarks of resource creation, verify and repair over a generated volume of 100,000 paths.
// `quelm_repair_bench --make-volume DIR` only makes the volume, for timing quelmctl against find.
#include "repair/BomWriter.h"
#include "repair/QVCPU.h"
#include "repair/YRRepairPermissions.h"
#include "support/Files.h"
#include "support/PropertyList.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPathCount = 100'000;
constexpr std::size_t kFilesPerFolder = 24;
constexpr std::size_t kFoldersPerFolder = 6;

/// Folders breadth first, each with its files, listed parents before children.
std::vector<BomRecord> volumeRecords() {
    const std::uint32_t uid = ::getuid(), gid = ::getgid();
    std::vector<BomRecord> records{{".", 040755, uid, gid}};
    std::vector<std::string> folders{"."};
    for (std::size_t next = 0; records.size() < kPathCount; ++next) {
        const std::string parent = folders[next];
        for (std::size_t i = 0; i < kFilesPerFolder && records.size() < kPathCount; ++i)
            records.push_back({parent + "/file" + std::to_string(i) + ".plist",
                               static_cast<std::uint16_t>(i % 10 ? 0100644 : 0100755), uid, gid});
        for (std::size_t i = 0; i < kFoldersPerFolder && records.size() < kPathCount; ++i) {
            folders.push_back(parent + "/Folder" + std::to_string(i));
            records.push_back({folders.back(), 040755, uid, gid});
        }
    }
    return records;
}

void writeOrDie(const fs::path& path, std::string_view bytes) {
    if (!writeFileAtomically(path, bytes)) {
        std::cerr << "cannot write " << path << '\n';
        std::exit(1);
    }
}

void makeVolume(const fs::path& volume, const std::vector<BomRecord>& records) {
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
    for (const auto& record : records) {
        const auto path = volume / record.path;
        if (S_ISDIR(record.mode))
            fs::create_directories(path);
        else
            std::fclose(std::fopen(path.c_str(), "w"));
        ::chmod(path.c_str(), record.mode & 07777);
    }
}

struct BenchVolume {
    BenchVolume() {
        char folder[] = "/tmp/quelm-repair-bench-XXXXXX";
        root = ::mkdtemp(folder);
        records = volumeRecords();
        makeVolume(root, records);
    }
    ~BenchVolume() { fs::remove_all(root); }
    QVOSVolume volume() const { return *QVOSVolume::initWithMountPoint(root.string()); }

    fs::path root;
    std::vector<BomRecord> records;
};

const BenchVolume& benchVolume() {
    static const BenchVolume volume;
    return volume;
}

void BM_VerifyVolume(benchmark::State& state) {
    const auto& bench = benchVolume();
    QVCPU::shared().setMaxthread(state.range(0));
    for (auto _ : state) {
        YRRepairPermissions job(bench.volume(), QVRepairPermissionsJobType::verifyPermissions);
        job.run();
        benchmark::DoNotOptimize(job.results().data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPathCount));
}
BENCHMARK(BM_VerifyVolume)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

/// Every 100th file damaged before each run, so that repair changes 1% of the volume.
void BM_RepairVolume(benchmark::State& state) {
    const auto& bench = benchVolume();
    QVCPU::shared().setMaxthread(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t i = 1; i < bench.records.size(); i += 100)
            ::chmod((bench.root / bench.records[i].path).c_str(), 0700);
        state.ResumeTiming();
        YRRepairPermissions job(bench.volume(), QVRepairPermissionsJobType::repairPermissions);
        job.run();
        benchmark::DoNotOptimize(job.results().data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPathCount));
}
BENCHMARK(BM_RepairVolume)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace quelm

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--make-volume") == 0) {
        quelm::makeVolume(argv[2], quelm::volumeRecords());
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
