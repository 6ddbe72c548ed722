// How the machine running the application was started, worked out once per process.
#pragma once

#include <optional>
#include <string_view>

namespace quelm {

enum class QVBootEnvironmentType { Normal, Recovery, SingleUser, SingleUserRecovery, Unknown };

/// The raw value, which is also the display name ("Recovery/PE").
std::string_view rawValue(QVBootEnvironmentType type);
/// The case for exactly one of the five raw values, else nothing.
std::optional<QVBootEnvironmentType> bootEnvironmentTypeFromRawValue(std::string_view raw);

class QVBootEnvironmentManager {
public:
    static QVBootEnvironmentManager& shared();

    /// Detects the environment of the system whose root folder is hostRoot ("" for shared).
    explicit QVBootEnvironmentManager(std::string_view hostRoot);

    QVBootEnvironmentType currentEnvironment() const { return current_; }
    void setCurrentEnvironment(QVBootEnvironmentType type) { current_ = type; }

private:
    QVBootEnvironmentType current_ = QVBootEnvironmentType::Unknown;
};

} // namespace quelm
