// Package receipts: what a receipt names, and which receipts take part in repairs.
#include "repair/Package.h"

#include "support/FileURL.h"
#include "support/PropertyList.h"

#include <algorithm>

namespace quelm {
namespace {

/// The receipt URL with its extension replaced by "bom", turned back into a path.
std::string bomPathFor(const std::string& receiptPath) {
    const auto url = FileURL::fromPath(receiptPath, false);
    const auto extension = url.pathExtension();
    std::string text = url.absoluteString();
    if (!extension.empty())
        text.resize(text.size() - extension.size() - 1);
    return pathFromFileURLString(text + ".bom");
}

} // namespace

std::string_view rawValue(ReceiptKey key) {
    return key == ReceiptKey::PackageIdentifier ? "PackageIdentifier" : "PackageGroups";
}

Package::Package(std::string identifier, std::vector<std::string> groups, std::string bomPath)
    : identifier_(std::move(identifier)), groups_(std::move(groups)),
      bomPathString_(std::move(bomPath)) {
}

std::optional<Package> Package::initWithReceiptPath(const std::string& receiptPath) {
    const auto receipt = readPlistFile(receiptPath);
    return receipt ? initWithReceipt(*receipt, receiptPath) : std::nullopt;
}

std::optional<Package> Package::initWithReceipt(const PlistValue& receipt,
                                                const std::string& receiptPath) {
    const auto* identifier = receipt.stringForKey(rawValue(ReceiptKey::PackageIdentifier));
    const auto* groupList = receipt.find(rawValue(ReceiptKey::PackageGroups));
    if (!identifier || !groupList || !groupList->array())
        return std::nullopt;
    std::vector<std::string> groups;
    for (const auto& group : *groupList->array()) {
        if (!group.string())
            return std::nullopt;
        groups.push_back(*group.string());
    }
    return Package(*identifier, std::move(groups), bomPathFor(receiptPath));
}

std::optional<StandardPackage>
StandardPackage::initWithReceiptPath(const std::string& receiptPath) {
    return standardOnly(Package::initWithReceiptPath(receiptPath));
}

std::optional<StandardPackage> StandardPackage::initWithReceipt(const PlistValue& receipt,
                                                                const std::string& receiptPath) {
    return standardOnly(Package::initWithReceipt(receipt, receiptPath));
}

std::optional<StandardPackage> StandardPackage::standardOnly(std::optional<Package> package) {
    if (!package || std::ranges::find(package->groups(), standardGroup) == package->groups().end())
        return std::nullopt;
    return StandardPackage(std::move(*package));
}

} // namespace quelm
