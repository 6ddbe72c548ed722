// How the machine running the application was started, worked out once per process.
#include "volumes/BootEnvironment.h"

#include "support/RawValues.h"

#include <filesystem>
#include <string>

#if defined(__APPLE__)
#include <sys/sysctl.h>
#endif

namespace quelm {
namespace {

constexpr RawValueTable<BootMode, 5> kRawValues{
    {"Normal", "Recovery/PE", "Single User", "Single User Recovery/PE", "Unknown"}};

bool singleUserFlag() {
#if defined(__APPLE__)
    // The name is assembled at run time: "kern" + "." + "singleuser".
    const std::string name = std::string("kernel").substr(0, 4) + "." + "singleuser";
    int32_t value = 0;
    size_t size = sizeof value;
    return ::sysctlbyname(name.c_str(), &value, &size, nullptr, 0) == 0 && value != 0;
#else
    // Linux has no such kernel variable: a rescue system is never taken as single-user.
    return false;
#endif
}

} // namespace

std::string_view rawValue(BootMode type) {
    return kRawValues.rawValue(type);
}

std::optional<BootMode> bootEnvironmentTypeFromRawValue(std::string_view raw) {
    return kRawValues.fromRawValue(raw);
}

BootEnvironment& BootEnvironment::shared() {
    static BootEnvironment manager("");
    return manager;
}

BootEnvironment::BootEnvironment(std::string_view hostRoot) {
    std::error_code error;
    const bool recovery =
        std::filesystem::exists(std::string(hostRoot) + "/System/Installation", error);
    const bool singleUser = singleUserFlag();
    if (recovery)
        current_ = singleUser ? BootMode::SingleUserRecovery : BootMode::Recovery;
    else
        current_ = singleUser ? BootMode::SingleUser : BootMode::Normal;
}

} // namespace quelm
