// Putting the helper tool and its launch policy in place.
#pragma once

#include "helper/HelperIdentity.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace quelm {

/// The text of the launch policy for the installed tool: the template with every "@HELPER_PATH@"
/// replaced by the tool's path.
std::string launchPolicyText(const std::string& policyTemplate, const std::string& toolPath);

/// The bytes of a file that root may copy into a system folder: a regular file reached without
/// a link, owned by root or by caller, writable by no one else, no larger than maxSize. The
/// checks are made on the opened file, so it cannot be swapped between check and read.
std::optional<std::string> readTrustedFile(const std::string& path, uid_t caller,
                                           std::size_t maxSize);

/// Copies sourceTool to the helper's tool path under root (owner 0, group 0, mode 755) and
/// writes its launch policy from the template file (mode 644), each atomically; folders made
/// on the way get mode 755 whatever the umask. Both sources must pass readTrustedFile for
/// caller. Must run as root outside tests.
bool installHelperFiles(const HelperIdentity& helper, const std::string& sourceTool,
                        const std::string& policyTemplatePath, const std::string& root,
                        uid_t caller);

} // namespace quelm
