// quelmctl make-demo-volume: a small macOS-shaped volume with receipts, and kexts to install.
#include "quelmctl/Commands.h"
#include "repair/BomWriter.h"
#include "support/Files.h"
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
    std::vector<BomRecord> records;
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

std::string systemVersion() {
    return *serializePlist(PlistValue::Dict{{"ProductName", "Mac OS X"},
                                            {"ProductVersion", "10.12.6"},
                                            {"ProductBuildVersion", "16G29"}},
                           PlistFormat::xml);
}

void writeFile(const fs::path& path, std::string_view bytes) {
    fs::create_directories(path.parent_path());
    if (auto written = writeFileAtomically(path, bytes); !written)
        throw std::runtime_error(written.error().message);
}

void createListed(const fs::path& volume, const BomRecord& record) {
    const auto path = volume / record.path;
    if (S_ISDIR(record.mode))
        fs::create_directories(path);
    else if (!fs::exists(path))
        writeFile(path, "demo\n");
    // Owner first: changing it afterwards would clear setuid and setgid.
    if (::geteuid() == 0)
        ::lchown(path.c_str(), record.uid, record.gid);
    ::chmod(path.c_str(), record.mode & 07777);
}

void writeReceipt(const fs::path& volume, const Receipt& receipt) {
    const auto path = volume / "System/Library/Receipts" / receipt.file;
    const PlistValue plist = PlistValue::Dict{{"PackageIdentifier", receipt.identifier},
                                              {"PackageGroups", PlistValue::Array{receipt.group}},
                                              {"PackageVersion", "10.12.6"}};
    writeFile(path, *serializePlist(plist, receipt.format));
    auto bom = writeBom(receipt.records);
    if (!bom)
        throw std::runtime_error(bom.error().message);
    writeFile(fs::path(path).replace_extension(".bom"), *bom);
    for (const auto& record : receipt.records)
        createListed(volume, record);
}

/// The damage a broken kext installation or a careless copy leaves behind.
void damage(const fs::path& volume) {
    ::chmod((volume / "bin/ps").c_str(), 0755);
    ::chmod((volume / "private/tmp").c_str(), 0755);
    ::chmod((volume / "System/Library/Extensions").c_str(), 0777);
    ::chmod((volume / "System/Library/Extensions/AppleDemo.kext/Contents/Info.plist").c_str(),
            0666);
    ::chmod((volume / "usr/local/thirdparty").c_str(), 0600);
    if (::geteuid() == 0) {
        ::lchown((volume / "usr/bin/top").c_str(), 501, 20);
        ::lchown((volume / "Library/Extensions").c_str(), 501, 0);
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

int makeDemo(const fs::path& folder) {
    const auto volume = fs::absolute(folder) / "Macintosh HD";
    if (fs::exists(volume)) {
        printError((volume).string() + " already exists; choose an empty folder");
        return 1;
    }
    writeFile(volume / "System/Library/CoreServices/SystemVersion.plist", systemVersion());
    for (const auto& receipt : demoReceipts())
        writeReceipt(volume, receipt);
    damage(volume);
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
    std::cout << "volume: " << volume.string() << '\n' << "kexts: " << kexts.string() << '\n';
    if (::geteuid() != 0)
        std::cerr << "note: not root, so owners are yours and only modes are damaged\n";
    return 0;
}

} // namespace

void addMakeDemoVolumeCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "make-demo-volume",
        "Make DIR/Macintosh HD, a small macOS-shaped volume with receipts, BOMs and some damaged "
        "permissions, and DIR/kexts with kext bundles to install on it.");
    auto folder = std::make_shared<std::string>();
    command->add_option("DIR", *folder, "Folder to make the demo in")->required();
    command->callback([folder, &status] {
        try {
            status = makeDemo(*folder);
        } catch (const std::exception& error) {
            printError(std::string("cannot make the demo volume: ") + error.what());
            status = 1;
        }
    });
}

} // namespace quelm::ctl
