// Putting the helper tool and its launch policy in place.
#pragma once

#include "helper/QVXPCHelper.h"

#include <string>

namespace quelm {

/// The text of the launch policy for the installed tool: the template with every "@HELPER_PATH@"
/// replaced by the tool's path.
std::string launchPolicyText(const std::string& policyTemplate, const std::string& toolPath);

/// Copies sourceTool to the helper's tool path under root (owner 0, group 0, mode 755) and
/// writes its launch policy (mode 644), each atomically. Must run as root outside tests.
bool installHelperFiles(const QVXPCHelper& helper, const std::string& sourceTool,
                        const std::string& policyTemplate, const std::string& root);

} // namespace quelm
