// quelmctl make-bom: a BOM file from a text listing, the inverse of list-bom.
#include "quelmctl/Commands.h"
#include "repair/BomWriter.h"
#include "support/Files.h"

namespace quelm::ctl {
namespace {

constexpr std::uintmax_t maxListingSize = std::uintmax_t{1} << 32;

int makeBom(const std::string& listingFile, const std::string& bomFile) {
    const auto text = readFileBytes(listingFile, maxListingSize);
    if (!text) {
        printError("cannot read the listing " + text.error().message);
        return 1;
    }
    const auto records = parseListing(*text);
    if (!records) {
        printError(listingFile + ": " + records.error().message);
        return 1;
    }
    const auto bom = writeBom(*records);
    if (!bom) {
        printError(listingFile + ": " + bom.error().message);
        return 1;
    }
    if (auto written = writeFileAtomically(bomFile, *bom); !written) {
        printError(written.error().message);
        return 1;
    }
    return 0;
}

} // namespace

void addMakeBomCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "make-bom",
        "Write the BOM (bill of materials) file OUT from the listing LISTING, whose lines read "
        "PATH<TAB>MODE(octal, with type bits such as 40755 or 100644)<TAB>UID/GID, as list-bom "
        "prints them. The first path is \".\" and every folder comes before its contents. OUT is "
        "replaced whole or not at all.");
    auto listing = std::make_shared<std::string>();
    auto out = std::make_shared<std::string>();
    command->add_option("LISTING", *listing, "The listing to read")->required();
    command->add_option("OUT", *out, "The BOM file to write")->required();
    command->callback([listing, out, &status] { status = makeBom(*listing, *out); });
}

} // namespace quelm::ctl
