// Running the host's system tools.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quelm {

/// Where this host keeps the tools the helper runs; an absent tool has its own fallback.
struct SystemTools {
    std::string chown;
    std::string chmod;
    std::string killall;
    std::optional<std::string> kextcache;
    std::optional<std::string> nvram;

    static const SystemTools& host();
};

/// Runs the program with the arguments (no shell), waits for it and gives its exit status;
/// -1 when it could not be started or did not exit normally.
int runTool(const std::string& program, const std::vector<std::string>& arguments);

/// Starts the program and does not wait for it; the child is reaped in the background.
void startTool(const std::string& program, const std::vector<std::string>& arguments);

} // namespace quelm
