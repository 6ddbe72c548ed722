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

int listBom(const std::string& file, bool longForm) {
    BomReader parser(file);
    const auto entries = parser.parse();
    if (!entries) {
        printError(file + ": " + entries.error().message);
        // Only a file that was read and found damaged is no BOM; anything else could not be read.
        return entries.error().kind == ErrorKind::invalid ? 2 : 1;
    }
    // Lines are gathered into large writes: a receipt can list a million paths.
    std::string out;
    out.reserve(flushSize + 4096);
    for (std::size_t index = 0; index < entries->size(); ++index) {
        if (longForm)
            appendLongListingLine(out, (*entries)[index]);
        else
            appendListingLine(out, (*entries)[index]);
        if (out.size() >= flushSize || index + 1 == entries->size()) {
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
