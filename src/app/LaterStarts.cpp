// Later starts of quelm hand their paths, and the volume they name, to the running instance.
#include "app/LaterStarts.h"

#include "app/AppDelegate.h"
#include "app/QVMainQuelmViewController.h"
#include "app/QVMainQuelmWindowController.h"
#include "support/NotificationCenter.h"
#include "support/PathValidation.h"
#include "volumes/QVOSVolumeManager.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <unistd.h>

namespace quelm {
namespace {

constexpr QLatin1StringView kVolumePrefix("volume=");

QString normalPath(const QString& path) {
    return QString::fromStdString(absoluteNormalPath(path.toStdString()));
}

} // namespace

QString instanceName() {
    return QString::fromLatin1(kIdentifierPrefix) + ".veskp.quelm." + QString::number(::getuid());
}

QByteArray laterStartMessage(const QStringList& files, const QString& volume) {
    QString message;
    if (!volume.isEmpty())
        message += kVolumePrefix + normalPath(volume) + '\n';
    for (const auto& file : files)
        message += normalPath(file) + '\n';
    return message.toUtf8();
}

LaterStart parseLaterStart(const QByteArray& message) {
    LaterStart start;
    for (const auto& line : QString::fromUtf8(message).split('\n', Qt::SkipEmptyParts)) {
        if (line.startsWith(kVolumePrefix))
            start.volume = line.mid(kVolumePrefix.size()).toStdString();
        else
            start.files << line;
    }
    return start;
}

bool handToRunningInstance(const QString& name, const QStringList& files, const QString& volume) {
    QLocalSocket socket;
    socket.connectToServer(name);
    if (!socket.waitForConnected(500))
        return false;
    socket.write(laterStartMessage(files, volume));
    socket.waitForBytesWritten(2000);
    socket.disconnectFromServer();
    return true;
}

void takeLaterStart(const LaterStart& start, AppDelegate& delegate,
                    QVMainQuelmWindowController& window) {
    if (start.files.isEmpty()) {
        delegate.applicationShouldHandleReopen();
        return;
    }
    auto* screen = window.installationScreen();
    const auto& selected = QVOSVolumeManager::shared().selectedOSVolume();
    const bool otherVolume = start.volume && (!selected || selected->mountPoint() != *start.volume);
    if (screen && (screen->jobUnderWay() || otherVolume)) {
        std::vector<std::string> paths;
        for (const auto& file : start.files)
            paths.push_back(file.toStdString());
        screen->enqueueJob(std::move(paths), start.volume);
        return;
    }
    delegate.openFiles(start.files);
}

void listenForLaterStarts(QLocalServer& server, const QString& name, AppDelegate& delegate,
                          QVMainQuelmWindowController& window) {
    QLocalServer::removeServer(name);
    server.listen(name);
    QObject::connect(&server, &QLocalServer::newConnection, &server, [&server, &delegate, &window] {
        QLocalSocket* socket = server.nextPendingConnection();
        QObject::connect(socket, &QLocalSocket::disconnected, socket, [socket, &delegate, &window] {
            takeLaterStart(parseLaterStart(socket->readAll()), delegate, window);
            socket->deleteLater();
        });
    });
}

} // namespace quelm
