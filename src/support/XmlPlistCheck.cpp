// Checks of XML property lists made before libplist parses them.
#include "support/XmlPlistCheck.h"

#include <algorithm>
#include <vector>

namespace quelm {
namespace {

// XML shares no values, so it needs no count of what it decodes to: each value is an element
// of four characters or more, so n bytes decode to at most n plus kPlistValueCost for each of
// n / 4 elements, 17 n, within plistReadBudget(n); the element limit keeps the largest file
// within the budget's ceiling.
static_assert(kMaxPlistFileSize + kMaxXmlPlistElements * kPlistValueCost <=
              plistReadBudget(kMaxPlistFileSize));

std::unexpected<Error> refuse(ErrorKind kind, std::string message) {
    return std::unexpected(Error{"XML property list " + std::move(message), kind});
}

/// One pass over the text that keeps the names of the open elements. It reads markup as
/// libplist does: comments, CDATA and processing instructions hide what they hold, and double
/// quotes count only after an element's name.
class XmlScan {
public:
    explicit XmlScan(std::string_view text) : text_(text) {}

    std::expected<void, Error> run() {
        while ((pos_ = text_.find('<', pos_)) != std::string_view::npos)
            if (auto read = markup(); !read)
                return read;
        if (!open_.empty())
            return refuse(ErrorKind::invalid, "ends inside an element");
        return {};
    }

private:
    std::expected<void, Error> markup() {
        const auto rest = text_.substr(pos_);
        if (rest.starts_with("<!--"))
            return skipPast(4, "-->");
        if (rest.starts_with("<![CDATA["))
            return skipPast(9, "]]>");
        if (rest.starts_with("<?"))
            return moveTo(markupEnd(pos_ + 1, "?>"));
        if (rest.starts_with("<!DOCTYPE")) {
            const auto subset = rest.find_first_of("[>");
            if (subset != std::string_view::npos && rest[subset] == '[')
                return refuse(ErrorKind::unsupported, "declares entities or elements");
            return moveTo(markupEnd(pos_ + 9, ">"));
        }
        if (rest.starts_with("<!"))
            return refuse(ErrorKind::unsupported, "has a declaration");
        return tag(rest.starts_with("</"));
    }

    std::expected<void, Error> skipPast(std::size_t openerSize, std::string_view closer) {
        const auto at = text_.find(closer, pos_ + openerSize);
        if (at == std::string_view::npos)
            return refuse(ErrorKind::invalid, "has an unterminated comment or CDATA");
        pos_ = at + closer.size();
        return {};
    }

    std::expected<void, Error> moveTo(const std::expected<std::size_t, Error>& end) {
        if (!end)
            return std::unexpected(end.error());
        pos_ = *end;
        return {};
    }

    /// Just past the closer, which ends in '>', found outside double quotes from from on.
    std::expected<std::size_t, Error> markupEnd(std::size_t from, std::string_view closer) {
        bool quoted = false;
        for (std::size_t i = from; i < text_.size(); ++i) {
            const char c = text_[i];
            if (c == '"')
                quoted = !quoted;
            else if (c == '<' || (quoted && c == '>'))
                return refuse(ErrorKind::unsupported, "has '<' or a quoted '>' in markup");
            else if (c == '>' && text_.substr(0, i + 1).ends_with(closer))
                return i + 1;
        }
        return refuse(ErrorKind::invalid, "has unterminated markup");
    }

    std::expected<void, Error> tag(bool closing) {
        const std::size_t nameStart = pos_ + (closing ? 2 : 1);
        const std::size_t nameEnd =
            std::min(text_.find_first_of(" \t\r\n<>", nameStart), text_.size());
        auto end = markupEnd(nameEnd, ">");
        if (!end)
            return std::unexpected(end.error());
        pos_ = *end;
        const bool empty = text_[*end - 2] == '/';
        auto name = text_.substr(nameStart, nameEnd - nameStart);
        if (empty && name.ends_with('/'))
            name.remove_suffix(1);
        if (closing)
            return close(name);
        if (++elements_ > kMaxXmlPlistElements)
            return refuse(ErrorKind::unsupported, "has too many elements");
        // The plist element wraps the values, so it adds a level of its own.
        if (open_.size() > kMaxPlistDepth)
            return refuse(ErrorKind::unsupported, "is nested too deeply");
        if (!empty)
            open_.push_back(name);
        return {};
    }

    std::expected<void, Error> close(std::string_view name) {
        if (open_.empty() || open_.back() != name)
            return refuse(ErrorKind::invalid, "has an unmatched closing tag");
        open_.pop_back();
        return {};
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    std::vector<std::string_view> open_;
    std::size_t elements_ = 0;
};

} // namespace

std::expected<void, Error> checkXmlPlist(std::string_view text) {
    return XmlScan(text).run();
}

} // namespace quelm
