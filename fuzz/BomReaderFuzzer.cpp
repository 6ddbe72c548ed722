// libFuzzer target: the BOM reader on arbitrary bytes must refuse or list, never misbehave.
#include "repair/BomReader.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace {
volatile std::size_t pathBytes;
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quelm::BomReader parser("fuzz input");
    if (parser.parseBytes(std::string(reinterpret_cast<const char*>(data), size)) !=
        quelm::BomReader::success)
        return 0;
    // Touch every path so that a bad pointer or a missing NUL shows up under AddressSanitizer.
    std::size_t length = 0;
    for (std::uint32_t index = 0; index < parser.total(); ++index)
        length += std::strlen(parser.resources()[index].path);
    pathBytes = length;
    return 0;
}
