// quelmctl list-bom: every path of a BOM file with its mode and owner, one line each.
#include "quelmctl/Commands.h"
#include "repair/BomReader.h"
#include "repair/BomWriter.h"
#include "support/Files.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace quelm::ctl {
namespace {

constexpr std::size_t flushSize = std::size_t{1} << 20;

/// The record as the long listing shows it: size and checksum of files and links, a link's
/// target.
BomRecord longRecord(const BomEntry& record) {
    return BomRecord(record.path, record.mode, record.uid, record.gid, record.size, record.checksum,
                     std::string(record.linkTarget));
}

int listBom(const std::string& file, bool longForm) {
    BomReader parser(file);
    switch (parser.parse()) {
    case BomReader::success:
        break;
    case BomReader::unreadable:
        printError("cannot read " + file);
        return 1;
    case BomReader::notABomStore:
        printError(file + " is not a BOM store, or it is damaged");
        return 2;
    }
    // Lines are gathered into large writes: a receipt can list a million paths.
    std::string out;
    out.reserve(flushSize + 4096);
    const BomEntry* records = parser.resources();
    const std::uint32_t total = parser.total();
    for (std::uint32_t index = 0; index < total; ++index) {
        const BomEntry& record = records[index];
        if (longForm)
            appendLongListingLine(out, longRecord(record));
        else
            appendListingLine(out, record.path, record.mode, record.uid, record.gid);
        if (out.size() >= flushSize || index + 1 == total) {
            if (!writeAll(STDOUT_FILENO, out)) {
                printError(std::string("cannot write the listing: ") + std::strerror(errno));
                return 1;
            }
            out.clear();
        }
    }
    return 0;
}

} // namespace

void addListBomCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "list-bom", "Print every path of the BOM (bill of materials) file FILE in stored order, "
                    "one line each: PATH<TAB>MODE(octal)<TAB>UID/GID. Exit 1 when FILE cannot be "
                    "read, 2 when it is not a BOM store or is damaged.");
    auto file = std::make_shared<std::string>();
    auto longForm = std::make_shared<bool>(false);
    command->add_option("FILE", *file, "The BOM file, such as a package receipt's Bom")->required();
    command->add_flag("--long", *longForm,
                      "After UID/GID, print SIZE<TAB>CHECKSUM (POSIX cksum CRC) of plain files "
                      "and of links' targets, then a link's TARGET, as lsbom does by default");
    command->callback([file, longForm, &status] { status = listBom(*file, *longForm); });
}

} // namespace quelm::ctl
