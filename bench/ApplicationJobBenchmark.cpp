// The whole desktop job against the command line's repair, on a volume of 100,000 paths whose
// every mode is wrong: the application must not spend more than the repair plus its fixed
// waits (the intake's seconds and the helper's start). As root only: the job needs its helper.
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

struct Workspace {
    Workspace() {
        char folder[] = "/tmp/quelm-job-bench-XXXXXX";
        root = ::mkdtemp(folder);
        volume = root / "Macintosh HD";
        fs::create_directories(root / "tmp");
        fs::create_directories(root / "Bench.kext/Contents");
        // A kext that passes the checks, so that the job asks nothing; the smart table does
        // not list it, so the job installs nothing and goes on to the repair.
        std::ofstream(root / "Bench.kext/Contents/Info.plist")
            << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
               "<key>CFBundleIdentifier</key><string>org.quelm.bench</string>"
               "<key>CFBundlePackageType</key><string>KEXT</string>"
               "<key>CFBundleVersion</key><string>1.0</string></dict></plist>\n";
        made = run(std::string(QUELM_REPAIR_BENCH_PATH) + " --make-volume '" + volume.string() +
                   "'") == 0;
    }
    ~Workspace() { fs::remove_all(root); }

    static int run(const std::string& command) {
        return std::system((command + " >/dev/null 2>&1").c_str());
    }

    /// Every mode off by one bit: each path of the receipt becomes a result.
    void damage() const {
        for (const auto& entry : fs::recursive_directory_iterator(volume / "Folder0"))
            ::chmod(entry.path().c_str(), entry.is_directory() ? 0775 : 0664);
        for (const auto& entry : fs::directory_iterator(volume))
            if (entry.is_regular_file())
                ::chmod(entry.path().c_str(), 0664);
    }

    fs::path root;
    fs::path volume;
    bool made = false;
};

const Workspace& workspace() {
    static const Workspace shared;
    return shared;
}

template <class Job> void timeEach(benchmark::State& state, Job job) {
    if (::geteuid() != 0 || !workspace().made) {
        state.SkipWithError("needs root and a volume made by quelm_repair_bench");
        return;
    }
    for (auto _ : state) {
        workspace().damage();
        const auto start = std::chrono::steady_clock::now();
        if (job() != 0) {
            state.SkipWithError("the job failed");
            return;
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
}

void BM_CommandLineRepair(benchmark::State& state) {
    timeEach(state, [] {
        return Workspace::run(std::string(QUELMCTL_PATH) + " repair-permissions --volume '" +
                              workspace().volume.string() + "'");
    });
}

void BM_ApplicationJob(benchmark::State& state) {
    timeEach(state, [] {
        const auto& root = workspace().root;
        return Workspace::run("env QT_QPA_PLATFORM=offscreen DBUS_SESSION_BUS_ADDRESS=disabled: "
                              "XDG_DATA_HOME='" +
                              (root / "data").string() + "' XDG_CONFIG_HOME='" +
                              (root / "config").string() + "' TMPDIR='" + (root / "tmp").string() +
                              "' " + QUELM_PATH + " --volume '" + workspace().volume.string() +
                              "' --helper-root '" + (root / "helper").string() + "' '" +
                              (root / "Bench.kext").string() + "'");
    });
}

BENCHMARK(BM_CommandLineRepair)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_ApplicationJob)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
