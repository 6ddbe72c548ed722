// Package receipts: what a receipt names, and which receipts take part in repairs.
#include "repair/QVPackage.h"

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

std::string_view rawValue(QVPackageDataKey key) {
    return key == QVPackageDataKey::PackageIdentifier ? "PackageIdentifier" : "PackageGroups";
}

QVPackage::QVPackage(std::string identifier, std::vector<std::string> groups, std::string bomPath)
    : identifier_(std::move(identifier)), groups_(std::move(groups)),
      bomPathString_(std::move(bomPath)) {
}

std::optional<QVPackage> QVPackage::initWithReceiptPath(const std::string& receiptPath) {
    const auto receipt = readPlistFile(receiptPath);
    return receipt ? initWithReceipt(*receipt, receiptPath) : std::nullopt;
}

std::optional<QVPackage> QVPackage::initWithReceipt(const PlistValue& receipt,
                                                    const std::string& receiptPath) {
    const auto* identifier = receipt.stringForKey(rawValue(QVPackageDataKey::PackageIdentifier));
    const auto* groupList = receipt.find(rawValue(QVPackageDataKey::PackageGroups));
    if (!identifier || !groupList || !groupList->array())
        return std::nullopt;
    std::vector<std::string> groups;
    for (const auto& group : *groupList->array()) {
        if (!group.string())
            return std::nullopt;
        groups.push_back(*group.string());
    }
    return QVPackage(*identifier, std::move(groups), bomPathFor(receiptPath));
}

std::optional<QVStandardPackage>
QVStandardPackage::initWithReceiptPath(const std::string& receiptPath) {
    return standardOnly(QVPackage::initWithReceiptPath(receiptPath));
}

std::optional<QVStandardPackage>
QVStandardPackage::initWithReceipt(const PlistValue& receipt, const std::string& receiptPath) {
    return standardOnly(QVPackage::initWithReceipt(receipt, receiptPath));
}

std::optional<QVStandardPackage> QVStandardPackage::standardOnly(std::optional<QVPackage> package) {
    if (!package || std::ranges::find(package->groups(), standardGroup) == package->groups().end())
        return std::nullopt;
    return QVStandardPackage(std::move(*package));
}

} // namespace quelm
