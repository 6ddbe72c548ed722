// The processor, and how many work items the repair engine runs at once.
#include "repair/Processor.h"

#include "support/Files.h"

#include <charconv>
#include <thread>

#if defined(__APPLE__)
#include <sys/sysctl.h>
#endif

namespace quelm {
namespace {

std::string_view trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    const auto last = text.find_last_not_of(" \t\r");
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, last - first + 1);
}

std::optional<std::int64_t> parseCount(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

#if defined(__APPLE__)
std::optional<std::int64_t> sysctlCount(const char* name) {
    int32_t value = 0;
    size_t size = sizeof value;
    if (::sysctlbyname(name, &value, &size, nullptr, 0) != 0)
        return std::nullopt;
    return value;
}
#endif

} // namespace

Processor::Processor() : maxthread_(std::max(1u, std::thread::hardware_concurrency())) {
}

Processor::Processor(const Processor& other)
    : name_(other.name_), numcore_(other.numcore_), numthread_(other.numthread_),
      maxthread_(other.maxthread_.load()) {
}

Processor& Processor::shared() {
#if defined(__APPLE__)
    static Processor cpu = [] {
        Processor made;
        char brand[256] = {};
        size_t size = sizeof brand - 1;
        if (::sysctlbyname("machdep.cpu.brand_string", brand, &size, nullptr, 0) == 0)
            made.name_ = brand;
        made.numcore_ = sysctlCount("machdep.cpu.core_count");
        made.numthread_ = sysctlCount("machdep.cpu.thread_count");
        return made;
    }();
#else
    static Processor cpu = fromCpuInfo(readFileBytes("/proc/cpuinfo", 1u << 22).value_or(""));
#endif
    return cpu;
}

Processor Processor::fromCpuInfo(std::string_view cpuInfo) {
    Processor cpu;
    // Only the first processor's block: the others repeat the same package's figures.
    cpuInfo = cpuInfo.substr(0, cpuInfo.find("\n\n"));
    for (std::size_t start = 0; start < cpuInfo.size();) {
        auto end = cpuInfo.find('\n', start);
        end = end == std::string_view::npos ? cpuInfo.size() : end;
        const auto line = cpuInfo.substr(start, end - start);
        start = end + 1;
        const auto colon = line.find(':');
        if (colon == std::string_view::npos)
            continue;
        const auto key = trim(line.substr(0, colon));
        const auto value = trim(line.substr(colon + 1));
        if (key == "model name")
            cpu.name_ = std::string(value);
        else if (key == "cpu cores")
            cpu.numcore_ = parseCount(value);
        else if (key == "siblings")
            cpu.numthread_ = parseCount(value);
    }
    return cpu;
}

std::string Processor::description() const {
    const auto count = [](std::optional<std::int64_t> value) {
        return value ? std::to_string(*value) : std::string();
    };
    return name_.value_or("Unknown") + " " + count(numcore_) + "C" + count(numthread_) + "T";
}

} // namespace quelm
