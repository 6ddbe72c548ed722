// One difference found by verification or one change attempted by repair, and its report.
#include "repair/RepairResult.h"

#include "support/Strings.h"

#include <algorithm>
#include <charconv>
#include <random>

namespace quelm {
namespace {

// The labels of the six report lines, right-aligned to a common width.
constexpr std::string_view kFileLabel = "   File: ";
constexpr std::string_view kReasonLabel = " Reason: ";
constexpr std::string_view kCurrentLabel = "Current: ";
constexpr std::string_view kCorrectLabel = "Correct: ";
constexpr std::string_view kNewLabel = "    New: ";
constexpr std::string_view kStatusLabel = " Status: ";
constexpr std::string_view kNoNewAttributeText = "N/A";

} // namespace

std::string_view displayText(AttributeStatus status) {
    switch (status) {
    case AttributeStatus::verified:
        return "Verified";
    case AttributeStatus::fixed:
        return "Fixed";
    case AttributeStatus::failed:
        return "Failed";
    }
    return {};
}

std::string_view displayText(Mismatch type) {
    switch (type) {
    case Mismatch::ownerIDMismatched:
        return "Owner ID Mismatched";
    case Mismatch::groupIDMismatched:
        return "Group ID Mismatched";
    case Mismatch::posixPermissionsMismatched:
        return "POSIX Permissions Mismatched";
    case Mismatch::billOfMaterialsUnreadable:
        return "Bill of Materials Unreadable";
    case Mismatch::attributesUnreadable:
        return "Attributes Unreadable";
    case Mismatch::sizeMismatched:
        return "Size Mismatched";
    case Mismatch::checksumMismatched:
        return "Checksum Mismatched";
    case Mismatch::contentUnreadable:
        return "Content Unreadable";
    }
    return {};
}

bool isContentType(Mismatch type) {
    using Type = Mismatch;
    return type == Type::sizeMismatched || type == Type::checksumMismatched ||
           type == Type::contentUnreadable;
}

std::string makeUUIDString() {
    thread_local std::mt19937_64 random{std::random_device{}()};
    const std::uint64_t high = random(), low = random();
    // Version 4 (random) and the RFC 4122 variant, as NSUUID makes them.
    const std::uint64_t fields[2] = {(high & ~0xF000ull) | 0x4000ull,
                                     (low & ~(3ull << 62)) | (2ull << 62)};
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    for (int nibble = 0; nibble < 32; ++nibble) {
        if (nibble == 8 || nibble == 12 || nibble == 16 || nibble == 20)
            text += '-';
        const std::uint64_t word = fields[nibble / 16];
        text += kHex[(word >> (60 - 4 * (nibble % 16))) & 0xF];
    }
    return text;
}

RepairResult::RepairResult(RepairMode jobType, std::string fileSystemResourcePath,
                           Mismatch attributeMismatchedType, std::int64_t currentAttribute,
                           std::int64_t correctAttribute, std::optional<std::int64_t> newAttribute,
                           AttributeStatus attributeStatus)
    : identifier_(makeUUIDString()), jobType_(jobType), path_(std::move(fileSystemResourcePath)),
      type_(attributeMismatchedType), current_(currentAttribute), correct_(correctAttribute),
      new_(newAttribute), status_(attributeStatus) {
}

ResultRecord RepairResult::representable() const {
    return {identifier_,
            path_,
            std::string(displayText(type_)),
            current_,
            correct_,
            new_.value_or(ResultRecord::noNewAttribute),
            std::string(displayText(status_))};
}

std::expected<ResultRecord, Error> ResultRecord::initWithCoder(const KeyedUnarchiver& coder) {
    ResultRecord result;
    for (auto [key, field] :
         {std::pair{"identifier", &result.identifier},
          {"fileSystemResourcePath", &result.fileSystemResourcePath},
          {"attributeMismatchedTypeString", &result.attributeMismatchedTypeString},
          {"attributeStatusString", &result.attributeStatusString}}) {
        auto text = coder.decodeString(key);
        if (!text)
            return std::unexpected(text.error());
        *field = std::move(*text);
    }
    for (auto [key, field] : {std::pair{"currentAttribute", &result.currentAttribute},
                              {"correctAttribute", &result.correctAttribute},
                              {"newAttribute", &result.newAttribute}}) {
        auto number = coder.decodeInteger(key);
        if (!number)
            return std::unexpected(number.error());
        *field = *number;
    }
    return result;
}

void ResultRecord::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeObject("identifier", PlistValue(identifier));
    coder.encodeObject("fileSystemResourcePath", PlistValue(fileSystemResourcePath));
    coder.encodeObject("attributeMismatchedTypeString", PlistValue(attributeMismatchedTypeString));
    coder.encodeInteger("currentAttribute", currentAttribute);
    coder.encodeInteger("correctAttribute", correctAttribute);
    coder.encodeInteger("newAttribute", newAttribute);
    coder.encodeObject("attributeStatusString", PlistValue(attributeStatusString));
}

std::string reportText(const ResultRecord& result) {
    const std::string newText = result.hasNewAttribute() ? decimalText(result.newAttribute)
                                                         : std::string(kNoNewAttributeText);
    return std::string(kFileLabel) + result.fileSystemResourcePath + "\n" +
           std::string(kReasonLabel) + result.attributeMismatchedTypeString + "\n" +
           std::string(kCurrentLabel) + decimalText(result.currentAttribute) + "\n" +
           std::string(kCorrectLabel) + decimalText(result.correctAttribute) + "\n" +
           std::string(kNewLabel) + newText + "\n" + std::string(kStatusLabel) +
           result.attributeStatusString;
}

std::string reportText(const std::vector<ResultRecord>& results) {
    std::string text;
    for (const auto& result : results) {
        if (!text.empty())
            text += "\n\n";
        text += reportText(result);
    }
    return results.empty() ? text : text + "\n";
}

namespace {

/// Walks the lines of a report; the first fault is kept and every later read is skipped.
class ReportReader {
public:
    explicit ReportReader(std::string_view text) {
        if (text.ends_with('\n'))
            text.remove_suffix(1);
        for (std::size_t start = 0; !text.empty();) {
            const std::size_t end = text.find('\n', start);
            lines_.push_back(text.substr(start, end - start));
            if (end == std::string_view::npos)
                break;
            start = end + 1;
        }
    }

    std::expected<std::vector<ResultRecord>, std::string> read() {
        std::vector<ResultRecord> results;
        while (next_ < lines_.size() && !error_) {
            if (!results.empty())
                blankLine();
            results.push_back(result());
        }
        if (error_)
            return std::unexpected(*error_);
        return results;
    }

private:
    ResultRecord result() {
        ResultRecord result;
        result.identifier = makeUUIDString();
        result.fileSystemResourcePath = field(kFileLabel);
        result.attributeMismatchedTypeString = listedField(
            kReasonLabel,
            {displayText(Mismatch::ownerIDMismatched), displayText(Mismatch::groupIDMismatched),
             displayText(Mismatch::posixPermissionsMismatched),
             displayText(Mismatch::billOfMaterialsUnreadable),
             displayText(Mismatch::attributesUnreadable), displayText(Mismatch::sizeMismatched),
             displayText(Mismatch::checksumMismatched), displayText(Mismatch::contentUnreadable)});
        result.currentAttribute = integerField(kCurrentLabel);
        result.correctAttribute = integerField(kCorrectLabel);
        result.newAttribute = integerField(kNewLabel);
        result.attributeStatusString =
            listedField(kStatusLabel, {displayText(AttributeStatus::verified),
                                       displayText(AttributeStatus::fixed),
                                       displayText(AttributeStatus::failed)});
        return result;
    }

    void fail(std::size_t line, std::string_view what) {
        if (!error_)
            error_ = "line " + std::to_string(line + 1) + ": " + std::string(what);
    }

    static std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

    void blankLine() {
        if (!lines_[next_].empty())
            return fail(next_,
                        "expected a blank line between results, found " + quoted(lines_[next_]));
        if (++next_ == lines_.size())
            fail(next_,
                 "expected " + quoted(kFileLabel) + " after a blank line, but the report ends");
    }

    /// The text after the label, which must begin the next line.
    std::string field(std::string_view label) {
        if (error_)
            return {};
        if (next_ == lines_.size()) {
            fail(next_, "expected " + quoted(label) + ", but the report ends");
            return {};
        }
        if (!lines_[next_].starts_with(label)) {
            fail(next_, "expected " + quoted(label) + ", found " + quoted(lines_[next_]));
            return {};
        }
        return std::string(lines_[next_++].substr(label.size()));
    }

    std::string listedField(std::string_view label, std::initializer_list<std::string_view> texts) {
        const std::size_t line = next_;
        std::string text = field(label);
        if (!error_ && std::find(texts.begin(), texts.end(), text) == texts.end())
            fail(line, "unknown text after " + quoted(label) + ": " + quoted(text));
        return text;
    }

    std::int64_t integerField(std::string_view label) {
        const std::size_t line = next_;
        const std::string text = field(label);
        if (error_)
            return 0;
        // Verification results carry no new value and print it as "N/A".
        if (label == kNewLabel && text == kNoNewAttributeText)
            return ResultRecord::noNewAttribute;
        std::int64_t value = 0;
        const char* const last = text.data() + text.size();
        const auto [end, status] = std::from_chars(text.data(), last, value);
        if (text.empty() || status != std::errc() || end != last)
            fail(line,
                 "expected a decimal integer after " + quoted(label) + ", found " + quoted(text));
        return value;
    }

    std::vector<std::string_view> lines_;
    std::size_t next_ = 0;
    std::optional<std::string> error_;
};

} // namespace

std::expected<std::vector<ResultRecord>, std::string> parseReportText(std::string_view text) {
    return ReportReader(text).read();
}

} // namespace quelm
