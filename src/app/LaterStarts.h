// Later starts of quelm hand their paths, and the volume they name, to the running instance.
#pragma once

#include <QStringList>
#include <optional>
#include <string>

class QLocalServer;
class QLocalSocket;

namespace quelm {

class AppController;
class MainWindow;

/// What one later start sent: the volume it named, if any, its paths, and the data volume it
/// named, if any.
struct LaterStart {
    std::optional<std::string> volume;
    QStringList files;
    std::optional<std::string> dataVolume = std::nullopt;
};

/// Whether path is a folder that only this user can enter: owned by us, a directory and not a
/// link to one, mode 0700.
bool isPrivateFolder(const QString& path);

/// The folder of the user's instance socket: $XDG_RUNTIME_DIR when it is private, else a
/// private folder of ours in the temporary folder; none when neither can be had safely, since
/// a name in a shared folder can be taken first by another user.
std::optional<QString> instanceFolder();
/// The local socket of the user's running instance, in that folder.
std::optional<QString> instanceName();

/// Whether the process at the other end of the connected socket runs as this user.
bool peerIsThisUser(const QLocalSocket& socket);

/// "volume=PATH" and "data-volume=PATH" first when they are named, then one path a line, each
/// made absolute and normal here, where it was typed: the running instance has another working
/// folder.
QByteArray laterStartMessage(const QStringList& files, const QString& volume,
                             const QString& dataVolume = {});
LaterStart parseLaterStart(const QByteArray& message);

/// Sends the paths and the volumes to the instance listening at name; true when one of this
/// user took them. A server of another user is left without a word.
bool handToRunningInstance(const QString& name, const QStringList& files, const QString& volume,
                           const QString& dataVolume = {});

/// Kexts handed over by another process are installed only once the user has seen them, with
/// their volume, in one question and said yes. Then they join the intake, or make a job of
/// their own when a job runs or they name another volume; a start without paths brings the
/// window back.
void takeLaterStart(const LaterStart& start, AppController& controller, MainWindow& window);

/// Listens at name and takes each later start of this user, one batch per connection; a
/// connection from another user is closed unread.
void listenForLaterStarts(QLocalServer& server, const QString& name, AppController& controller,
                          MainWindow& window);

} // namespace quelm
