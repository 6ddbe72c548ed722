// Checks of XML property lists made before libplist parses them.
#pragma once

#include "support/PropertyList.h"

#include <expected>
#include <string_view>

namespace quelm {

/// Refuses XML that libplist must not see: values nested deeper than kMaxPlistDepth (the plist
/// element around them aside), more than kMaxXmlPlistElements elements, unmatched tags, a DOCTYPE
/// with an internal subset or any other declaration, and quoted '<' or '>' inside markup, where
/// this scan and libplist could disagree about where the markup ends.
[[nodiscard]] std::expected<void, Error> checkXmlPlist(std::string_view text);

} // namespace quelm
