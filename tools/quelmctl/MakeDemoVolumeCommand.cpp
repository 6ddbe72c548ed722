// quelmctl make-demo-volume: a small macOS-shaped volume with receipts, and kexts to install.
#include "quelmctl/Commands.h"
#include "repair/BomWriter.h"
#include "support/Files.h"
#include "support/Firmlinks.h"
#include "support/PropertyList.h"

#include <filesystem>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm::ctl {
namespace {

namespace fs = std::filesystem;

struct Receipt {
    std::string file;
    std::string identifier;
    std::string group;
    PlistFormat format;
    std::vector<BomEntry> records;
};

/// What the receipts prescribe. Owners are root and wheel (admin for /Applications) when run
/// as root; otherwise the caller's own ids, so that the demo still verifies and repairs modes.
std::vector<Receipt> demoReceipts() {
    const bool root = ::geteuid() == 0;
    const std::uint32_t uid = root ? 0 : ::getuid(), wheel = root ? 0 : ::getgid();
    const std::uint32_t admin = root ? 80 : ::getgid();
    const std::string repairGroup = "com.apple.snowleopard-repair-permissions.pkg-group";
    return {
        {"com.apple.pkg.BaseSystemBinaries.plist",
         "com.apple.pkg.BaseSystemBinaries",
         repairGroup,
         PlistFormat::xml,
         {{".", 040755, uid, wheel},
          {"./bin", 040755, uid, wheel},
          {"./bin/ls", 0100755, uid, wheel},
          {"./bin/ps", 0104755, uid, wheel},
          {"./private", 040755, uid, wheel},
          {"./private/tmp", 041777, uid, wheel},
          {"./usr", 040755, uid, wheel},
          {"./usr/bin", 040755, uid, wheel},
          {"./usr/bin/login", 0104555, uid, wheel},
          {"./usr/bin/top", 0100755, uid, wheel}}},
        {"Essentials/com.apple.pkg.Essentials.plist",
         "com.apple.pkg.Essentials",
         repairGroup,
         PlistFormat::binary,
         {{".", 040755, uid, wheel},
          {"./Applications", 041775, uid, admin},
          {"./Applications/Utilities", 040755, uid, admin},
          {"./Library", 040755, uid, wheel},
          {"./Library/Extensions", 040755, uid, wheel},
          {"./System", 040755, uid, wheel},
          {"./System/Library", 040755, uid, wheel},
          {"./System/Library/Extensions", 040755, uid, wheel},
          {"./System/Library/Extensions/AppleDemo.kext", 040755, uid, wheel},
          {"./System/Library/Extensions/AppleDemo.kext/Contents", 040755, uid, wheel},
          {"./System/Library/Extensions/AppleDemo.kext/Contents/Info.plist", 0100644, uid, wheel}}},
        {"com.example.pkg.ThirdParty.plist",
         "com.example.pkg.ThirdParty",
         "com.example.group",
         PlistFormat::xml,
         {{".", 040755, uid, wheel},
          {"./usr", 040755, uid, wheel},
          {"./usr/local", 040755, uid, wheel},
          {"./usr/local/thirdparty", 0100644, uid, wheel}}},
    };
}

/// The macOS a demo stands for; from 10.15 on it is a system and a data volume.
struct DemoMacOS {
    std::string version;
    std::string build;
    bool split;
};

/// The two halves of the demo; both the same folder for a whole volume.
struct DemoHalves {
    fs::path system;
    fs::path data;
    std::vector<Firmlink> firmlinks;

    /// Where a path of the macOS lies on the disk.
    fs::path hostPath(std::string_view path) const {
        const auto onData = dataPathOf(firmlinks, path);
        return onData ? data / onData->substr(1) : system / path.substr(1);
    }
};

std::optional<DemoMacOS> demoMacOS(std::string_view name) {
    if (name == "10.12")
        return DemoMacOS{"10.12.6", "16G29", false};
    if (name == "10.15")
        return DemoMacOS{"10.15.7", "19H2", true};
    if (name == "11")
        return DemoMacOS{"11.7.10", "20G1427", true};
    if (name == "14")
        return DemoMacOS{"14.6.1", "23G93", true};
    return std::nullopt;
}

std::string systemVersion(const DemoMacOS& macOS) {
    return *serializePlist(PlistValue::Dict{{"ProductName", "Mac OS X"},
                                            {"ProductVersion", macOS.version},
                                            {"ProductBuildVersion", macOS.build}},
                           PlistFormat::xml);
}

void writeFile(const fs::path& path, std::string_view bytes) {
    fs::create_directories(path.parent_path());
    if (auto written = writeFileAtomically(path, bytes); !written)
        throw std::runtime_error(written.error().message);
}

void createListed(const DemoHalves& halves, const BomEntry& record) {
    const auto path = halves.hostPath(record.path.substr(1));
    if (S_ISDIR(record.mode))
        fs::create_directories(path);
    else if (!fs::exists(path))
        writeFile(path, "demo\n");
    // Owner first: changing it afterwards would clear setuid and setgid.
    if (::geteuid() == 0)
        ::lchown(path.c_str(), record.uid, record.gid);
    ::chmod(path.c_str(), record.mode & 07777);
}

/// The receipt in its folder on the volume, with its BOM, and the items it lists.
void writeReceipt(const DemoHalves& halves, std::string_view folder, const Receipt& receipt) {
    const auto path = halves.hostPath(folder) / receipt.file;
    const PlistValue plist = PlistValue::Dict{{"PackageIdentifier", receipt.identifier},
                                              {"PackageGroups", PlistValue::Array{receipt.group}},
                                              {"PackageVersion", "10.12.6"}};
    writeFile(path, *serializePlist(plist, receipt.format));
    auto bom = writeBom(receipt.records);
    if (!bom)
        throw std::runtime_error(bom.error().message);
    writeFile(fs::path(path).replace_extension(".bom"), *bom);
    for (const auto& record : receipt.records)
        if (record.path != ".")
            createListed(halves, record);
}

/// The damage a broken kext installation or a careless copy leaves behind.
void damage(const DemoHalves& halves) {
    const auto at = [&](std::string_view path) {
        return halves.hostPath(path);
    };
    ::chmod(at("/bin/ps").c_str(), 0755);
    ::chmod(at("/private/tmp").c_str(), 0755);
    ::chmod(at("/System/Library/Extensions").c_str(), 0777);
    ::chmod(at("/System/Library/Extensions/AppleDemo.kext/Contents/Info.plist").c_str(), 0666);
    ::chmod(at("/usr/local/thirdparty").c_str(), 0600);
    if (::geteuid() == 0) {
        ::lchown(at("/usr/bin/top").c_str(), 501, 20);
        ::lchown(at("/Library/Extensions").c_str(), 501, 0);
    }
}

/// The header a compiler writes for a 64-bit Intel kext (mach_header_64, little-endian, filetype
/// MH_KEXT_BUNDLE), without load commands: enough for the checks before installation.
std::string intelKextExecutable() {
    std::string bytes;
    for (const std::uint32_t field : {0xfeedfacfu, 0x01000007u, 3u, 0xbu, 0u, 0u, 0u, 0u})
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>((field >> shift) & 0xff);
    return bytes;
}

void writeKext(const fs::path& folder, const std::string& name, PlistValue::Dict info,
               PlistFormat format) {
    const auto bundle = folder / name;
    const std::string executable = fs::path(name).stem();
    info.emplace("CFBundlePackageType", "KEXT");
    info.emplace("CFBundleExecutable", executable);
    writeFile(bundle / "Contents/Info.plist", *serializePlist(info, format));
    writeFile(bundle / "Contents/MacOS" / executable, intelKextExecutable());
}

/// A folder the demo may fill: missing, or empty (a mount point made for it).
bool isFree(const fs::path& folder) {
    std::error_code error;
    return !fs::exists(folder, error) || fs::is_empty(folder, error);
}

/// Apple's receipts where the macOS keeps them: all in /System/Library/Receipts up to 10.14;
/// from 10.15 the system's there, the rest on the data volume.
void writeDemoReceipts(const DemoHalves& halves, bool split) {
    const auto receipts = demoReceipts();
    writeReceipt(halves, "/System/Library/Receipts", receipts[0]);
    writeReceipt(halves,
                 split ? "/Library/Apple/System/Library/Receipts" : "/System/Library/Receipts",
                 receipts[1]);
    writeReceipt(halves, split ? "/private/var/db/receipts" : "/System/Library/Receipts",
                 receipts[2]);
}

int makeDemo(const fs::path& folder, const DemoMacOS& macOS) {
    const auto volume = fs::absolute(folder) / "Macintosh HD";
    DemoHalves halves{volume, macOS.split ? fs::path(volume.string() + " - Data") : volume, {}};
    for (const auto& half : {halves.system, halves.data})
        if (!isFree(half)) {
            printError(half.string() + " already exists and is not empty; choose an empty folder");
            return 1;
        }
    writeFile(volume / "System/Library/CoreServices/SystemVersion.plist", systemVersion(macOS));
    if (macOS.split) {
        writeFile(volume / "usr/share/firmlinks", kCatalinaFirmlinks);
        halves.firmlinks = parseFirmlinks(kCatalinaFirmlinks);
        fs::create_directories(halves.data / "private/var/db");
    }
    writeDemoReceipts(halves, macOS.split);
    damage(halves);
    const auto kexts = fs::absolute(folder) / "kexts";
    writeKext(kexts, "FakeSMC.kext",
              {{"CFBundleIdentifier", "org.netkas.driver.FakeSMC"},
               {"CFBundleShortVersionString", "6.26"},
               {"CFBundleVersion", "6.26"}},
              PlistFormat::xml);
    writeKext(kexts, "IntelMausiEthernet.kext",
              {{"CFBundleIdentifier", "com.insanelymac.IntelMausiEthernet"},
               {"CFBundleVersion", "2.4.0"}},
              PlistFormat::binary);
    writeKext(kexts, "My Driver.kext",
              {{"CFBundleIdentifier", "com.example.MyDriver"}, {"CFBundleVersion", "1.0"}},
              PlistFormat::xml);
    std::cout << "volume: " << volume.string() << '\n';
    if (macOS.split)
        std::cout << "dataVolume: " << halves.data.string() << '\n';
    std::cout << "kexts: " << kexts.string() << '\n';
    if (::geteuid() != 0)
        std::cerr << "note: not root, so owners are yours and only modes are damaged\n";
    return 0;
}

} // namespace

void addMakeDemoVolumeCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "make-demo-volume",
        "Make DIR/Macintosh HD, a small macOS-shaped volume with receipts, BOMs and some damaged "
        "permissions, and DIR/kexts with kext bundles to install on it; from macOS 10.15 on, "
        "also its data volume, DIR/Macintosh HD - Data.");
    auto folder = std::make_shared<std::string>();
    auto macOS = std::make_shared<std::string>("10.12");
    command->add_option("DIR", *folder, "Folder to make the demo in")->required();
    command
        ->add_option("--macos", *macOS,
                     "The macOS it stands for: 10.12 (one volume, the default), or 10.15, 11 "
                     "or 14 (a system and a data volume)")
        ->check(CLI::IsMember({"10.12", "10.15", "11", "14"}));
    command->callback([folder, macOS, &status] {
        try {
            status = makeDemo(*folder, *demoMacOS(*macOS));
        } catch (const std::exception& error) {
            printError(std::string("cannot make the demo volume: ") + error.what());
            status = 1;
        }
    });
}

} // namespace quelm::ctl
