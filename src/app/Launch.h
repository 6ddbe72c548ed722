// The whole start of the desktop application, from its command line to its event loop.
#pragma once

#include <QString>
#include <QStringList>

namespace quelm {

/// What quelm's command line asks for.
struct LaunchArguments {
    QString volume;
    QString dataVolume;
    QString results;
    QString helperRoot;
    QStringList files;
};

/// Parses quelm's command line, the program first; --help, --version and a wrong option print
/// and end the process.
LaunchArguments parseLaunchArguments(const QStringList& arguments);

/// Where no macOS runs the host, selects the volume named, with its data volume, else the last
/// one used. False when a named one is not a macOS volume.
bool chooseStartingVolume(const LaunchArguments& arguments);

/// quelm [--volume PATH] [--data-volume PATH] [--results FILE] [KEXT...]; returns the exit
/// status.
int runQuelm(int argc, char** argv);

} // namespace quelm
