// The kexts of a volume as `quelmctl kexts` lists them, and the checks of a job against them, on
// a volume of 400 kexts as macOS 10.15 holds them: some flat (Info.plist and code at the top),
// most in Contents, a fifth with two plug-ins, each with a 64 KiB x86_64 executable.
#include "kexts/KextCatalog.h"
#include "kexts/KextChecks.h"
#include "support/PropertyList.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;

constexpr int kKextCount = 400;

void writeFile(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

/// A thin x86_64 Mach-O kext file: its header, then zeros.
std::string executable() {
    std::string bytes(64u << 10, '\0');
    const std::uint32_t header[] = {0xfeedfacf, 0x01000007, 3, 0xb};
    std::memcpy(bytes.data(), header, sizeof header);
    return bytes;
}

PlistValue::Dict info(const std::string& identifier, const std::string& executableName) {
    return {{"CFBundlePackageType", "KEXT"},
            {"CFBundleIdentifier", identifier},
            {"CFBundleVersion", "19.6.0"},
            {"CFBundleExecutable", executableName},
            {"OSBundleCompatibleVersion", "8.0.0b1"},
            {"OSBundleLibraries", PlistValue::Dict{{"com.apple.kpi.iokit", "8.0.0"}}}};
}

void makeKext(const fs::path& bundle, const std::string& identifier, bool flat) {
    const std::string name = bundle.stem();
    const fs::path top = flat ? bundle : bundle / "Contents";
    writeFile(top / "Info.plist", *serializePlist(info(identifier, name), PlistFormat::xml));
    writeFile(flat ? top / name : top / "MacOS" / name, executable());
}

/// The volume, made once per run in a temporary folder.
class KextVolume {
public:
    KextVolume() {
        root_ = fs::temp_directory_path() / ("quelm-kexts-bench-" + std::to_string(::getpid()));
        writeFile(root_ / "System/Library/CoreServices/SystemVersion.plist",
                  *serializePlist(PlistValue::Dict{{"ProductVersion", "10.15.7"},
                                                   {"ProductBuildVersion", "19H2"}},
                                  PlistFormat::xml));
        for (int i = 0; i < kKextCount; ++i) {
            const std::string name = "Kext" + std::to_string(i);
            const fs::path bundle =
                root_ / (i % 4 == 0 ? "Library/Extensions" : "System/Library/Extensions") /
                (name + ".kext");
            makeKext(bundle, "com.example." + name, i % 3 == 0);
            if (i % 5 == 0)
                for (int p = 0; p < 2; ++p)
                    makeKext(bundle / (i % 3 == 0 ? "PlugIns" : "Contents/PlugIns") /
                                 (name + "Plug" + std::to_string(p) + ".kext"),
                             "com.example." + name + ".plug" + std::to_string(p), false);
        }
        makeKext(root_ / "System/Library/Extensions/IOKit.kext", "com.apple.kpi.iokit", true);
    }
    ~KextVolume() { fs::remove_all(root_); }
    quelm::Volume volume() const { return *quelm::Volume::initWithMountPoint(root_.string()); }
    const fs::path& root() const { return root_; }

private:
    fs::path root_;
};

const KextVolume& sharedVolume() {
    static const KextVolume volume;
    return volume;
}

void BM_ListKexts(benchmark::State& state) {
    const auto volume = sharedVolume().volume();
    std::size_t listed = 0;
    for (auto _ : state) {
        const auto kexts = installedKexts(volume);
        listed = withPlugIns(kexts).size();
        benchmark::DoNotOptimize(listed);
    }
    state.counters["kexts"] = static_cast<double>(listed);
}
BENCHMARK(BM_ListKexts)->Unit(benchmark::kMillisecond);

void BM_CheckAJobOfTenKexts(benchmark::State& state) {
    const auto volume = sharedVolume().volume();
    std::vector<std::string> paths;
    for (int i = 1; i <= 10; ++i)
        paths.push_back((sharedVolume().root() / "System/Library/Extensions" /
                         ("Kext" + std::to_string(i) + ".kext"))
                            .string());
    for (auto _ : state)
        benchmark::DoNotOptimize(checkKexts(paths, volume));
}
BENCHMARK(BM_CheckAJobOfTenKexts)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace quelm

BENCHMARK_MAIN();
