// Later starts of quelm hand their paths, and the volume they name, to the running instance.
#pragma once

#include <QStringList>
#include <optional>
#include <string>

class QLocalServer;

namespace quelm {

class AppDelegate;
class QVMainQuelmWindowController;

/// What one later start sent: the volume it named, if any, and its paths.
struct LaterStart {
    std::optional<std::string> volume;
    QStringList files;
};

/// The local socket of the user's running instance.
QString instanceName();

/// "volume=PATH" first when a volume is named, then one path a line, each made absolute and
/// normal here, where it was typed: the running instance has another working folder.
QByteArray laterStartMessage(const QStringList& files, const QString& volume);
LaterStart parseLaterStart(const QByteArray& message);

/// Sends the paths and the volume to the instance listening at name; true when one took them.
bool handToRunningInstance(const QString& name, const QStringList& files, const QString& volume);

/// One later start's paths join the intake, or make a job of their own when a job runs or
/// they name another volume; a start without paths brings the window back.
void takeLaterStart(const LaterStart& start, AppDelegate& delegate,
                    QVMainQuelmWindowController& window);

/// Listens at name and takes each later start, one batch per connection.
void listenForLaterStarts(QLocalServer& server, const QString& name, AppDelegate& delegate,
                          QVMainQuelmWindowController& window);

} // namespace quelm
