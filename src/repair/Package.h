// Package receipts: what a receipt names, and which receipts take part in repairs.
#pragma once

#include "support/PropertyList.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

enum class ReceiptKey { PackageIdentifier, PackageGroups };
std::string_view rawValue(ReceiptKey key);

/// The contents of one receipt property list.
class Package {
public:
    /// Nothing when the receipt is not a readable dictionary or a key is missing or mistyped.
    static std::optional<Package> initWithReceiptPath(const std::string& receiptPath);
    /// The same for a receipt already read from receiptPath.
    static std::optional<Package> initWithReceipt(const PlistValue& receipt,
                                                  const std::string& receiptPath);

    const std::string& identifier() const { return identifier_; }
    const std::vector<std::string>& groups() const { return groups_; }
    /// The receipt's path with "bom" for its extension.
    const std::string& bomPathString() const { return bomPathString_; }

protected:
    Package(std::string identifier, std::vector<std::string> groups, std::string bomPath);

private:
    std::string identifier_;
    std::vector<std::string> groups_;
    std::string bomPathString_;
};

/// A package of the group whose permissions the system knows how to repair.
class StandardPackage : public Package {
public:
    static constexpr std::string_view standardGroup =
        "com.apple.snowleopard-repair-permissions.pkg-group";

    /// Nothing unless the package is made and lists the standard group among its groups.
    static std::optional<StandardPackage> initWithReceiptPath(const std::string& receiptPath);
    static std::optional<StandardPackage> initWithReceipt(const PlistValue& receipt,
                                                          const std::string& receiptPath);

private:
    static std::optional<StandardPackage> standardOnly(std::optional<Package> package);
    explicit StandardPackage(Package package) : Package(std::move(package)) {}
};

} // namespace quelm
