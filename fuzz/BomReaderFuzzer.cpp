// libFuzzer target: the BOM reader on arbitrary bytes must refuse or list, never misbehave.
#include "repair/BomReader.h"

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <string>

namespace {
volatile std::size_t pathBytes;
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quelm::BomReader parser("fuzz input");
    const auto entries = parser.parseBytes(std::string(reinterpret_cast<const char*>(data), size));
    if (!entries)
        return 0;
    // Touch every byte of every path and target, so that a bad view shows up under
    // AddressSanitizer.
    std::size_t sum = 0;
    for (const auto& entry : *entries)
        for (const std::string_view text : {entry.path, entry.linkTarget})
            sum = std::accumulate(text.begin(), text.end(), sum);
    pathBytes = sum;
    return 0;
}
