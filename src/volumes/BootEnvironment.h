// How the machine running the application was started, worked out once per process.
#pragma once

#include <optional>
#include <string_view>

namespace quelm {

enum class BootMode { Normal, Recovery, SingleUser, SingleUserRecovery, Unknown };

/// The raw value, which is also the display name ("Recovery/PE").
std::string_view rawValue(BootMode type);
/// The case for exactly one of the five raw values, else nothing.
std::optional<BootMode> bootEnvironmentTypeFromRawValue(std::string_view raw);

class BootEnvironment {
public:
    static BootEnvironment& shared();

    /// Detects the environment of the system whose root folder is hostRoot ("" for shared).
    explicit BootEnvironment(std::string_view hostRoot);

    BootMode currentEnvironment() const { return current_; }
    void setCurrentEnvironment(BootMode type) { current_ = type; }

private:
    BootMode current_ = BootMode::Unknown;
};

} // namespace quelm
