// The target volume as the user names it: a whole macOS, or either volume of a macOS of 10.15
// or later, which is a system and a data volume.
#include "app/TargetVolume.h"

#include "support/PathValidation.h"
#include "ui/UserDefaults.h"
#include "volumes/VolumePairing.h"

namespace quelm {
namespace {

QString qString(const std::string& text) {
    return QString::fromStdString(text);
}

} // namespace

std::optional<NamedVolume> namedVolume(const std::optional<std::string>& path,
                                       const std::optional<std::string>& dataPath) {
    if (!path && !dataPath)
        return std::nullopt;
    return NamedVolume{path.value_or(dataPath.value_or("")), dataPath};
}

std::expected<Volume, QString> openTargetVolume(const NamedVolume& named) {
    const auto dataPath =
        named.dataPath ? std::optional(absoluteNormalPath(*named.dataPath)) : std::nullopt;
    auto volume = openMacOS(absoluteNormalPath(named.path), dataPath);
    if (!volume)
        return std::unexpected(qString(volume.error().message));
    if (!volume->majorVersion())
        //% "%1 holds a macOS whose build version Quelm cannot read."
        return std::unexpected(qtTrId("kQVTargetVolumeUnreadableBuild").arg(qString(named.path)));
    return std::move(*volume);
}

std::optional<NamedVolume> lastTargetVolume() {
    const auto path = userDefaultString(kLastTargetVolumeKey);
    if (!path || path->empty())
        return std::nullopt;
    return NamedVolume{*path, userDefaultString(kLastTargetDataVolumeKey)};
}

void rememberTargetVolume(const Volume& volume) {
    setUserDefaultString(kLastTargetVolumeKey, volume.mountPoint());
    if (volume.dataMountPoint())
        setUserDefaultString(kLastTargetDataVolumeKey, *volume.dataMountPoint());
    else
        removeUserDefault(kLastTargetDataVolumeKey);
}

QString volumeDescription(const Volume& volume) {
    const QString name = qString(volume.getFullNameVersionString());
    if (!volume.isSystemVolume())
        return name;
    if (!volume.dataMountPoint())
        //% "%1 — system: %2, data volume not found"
        return qtTrId("kQVTargetVolumeSystemOnly").arg(name, qString(volume.mountPoint()));
    //% "%1 — system: %2, data: %3"
    return qtTrId("kQVTargetVolumeSystemAndData")
        .arg(name, qString(volume.mountPoint()), qString(*volume.dataMountPoint()));
}

} // namespace quelm
