// Later starts of quelm hand their paths, and the volume they name, to the running instance.
#include "app/LaterStarts.h"

#include "app/AppController.h"
#include "app/JobScreen.h"
#include "app/MainWindow.h"
#include "app/TargetVolume.h"
#include "support/Log.h"
#include "support/NotificationCenter.h"
#include "support/PathValidation.h"
#include "ui/ViewExtensions.h"
#include "volumes/VolumeManager.h"

#include <QDir>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPushButton>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

constexpr QLatin1StringView kVolumePrefix("volume=");
constexpr QLatin1StringView kDataVolumePrefix("data-volume=");

QString normalPath(const QString& path) {
    return QString::fromStdString(absoluteNormalPath(path.toStdString()));
}

QString baseName() {
    return QString::fromLatin1(kIdentifierPrefix) + ".veskp.quelm";
}

/// Our own folder in the temporary folder, made when it is missing.
std::optional<QString> ownTemporaryFolder() {
    const QString folder = QDir::tempPath() + '/' + baseName() + '-' + QString::number(::geteuid());
    // A name that is already there is used only when the check below finds it ours and private.
    ::mkdir(QFile::encodeName(folder).constData(), 0700);
    if (isPrivateFolder(folder))
        return folder;
    logLine("quelm: " + folder.toStdString() +
            " is not a private folder of this user; this start has no instance socket.");
    return std::nullopt;
}

std::optional<NamedVolume> selectedVolume() {
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    return volume ? std::optional(NamedVolume{volume->mountPoint(), volume->dataMountPoint()})
                  : std::nullopt;
}

QString confirmationText(const std::optional<NamedVolume>& volume) {
    if (volume)
        //% "Install these kexts onto %1?"
        return qtTrId("kQVLaterStartInstallOnto").arg(QString::fromStdString(volume->path));
    //% "Install these kexts onto the volume you choose next?"
    return qtTrId("kQVLaterStartInstallOntoChosen");
}

/// One question that names the volume and every kext; true when the user says to install them.
bool confirmHandedOver(const QStringList& files, const std::optional<NamedVolume>& volume,
                       QWidget* parent) {
    QMessageBox box(QMessageBox::Question, "Quelm", confirmationText(volume),
                    QMessageBox::Yes | QMessageBox::Cancel, parent);
    //% "Another program handed them to Quelm. Install them only if you chose them yourself:"
    box.setInformativeText(qtTrId("kQVLaterStartHandedOver") + '\n' + files.join('\n'));
    //% "Install"
    box.button(QMessageBox::Yes)->setText(qtTrId("kQVLaterStartInstall"));
    //% "Cancel"
    box.button(QMessageBox::Cancel)->setText(qtTrId("kQVLaterStartCancel"));
    box.setDefaultButton(QMessageBox::Cancel);
    return ModalAnswers::run(box) == QMessageBox::Yes;
}

void takeConnection(QLocalSocket* socket, AppController& controller, MainWindow& window) {
    if (!peerIsThisUser(*socket)) {
        logLine("quelm: refused a later start from another user.");
        socket->abort();
        socket->deleteLater();
        return;
    }
    QObject::connect(socket, &QLocalSocket::disconnected, socket, [socket, &controller, &window] {
        takeLaterStart(parseLaterStart(socket->readAll()), controller, window);
        socket->deleteLater();
    });
}

} // namespace

bool isPrivateFolder(const QString& path) {
    struct stat status {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_uid == ::geteuid() && (status.st_mode & 07777) == 0700;
}

std::optional<QString> instanceFolder() {
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (QDir::isAbsolutePath(runtime) && isPrivateFolder(runtime))
        return runtime;
    return ownTemporaryFolder();
}

std::optional<QString> instanceName() {
    const auto folder = instanceFolder();
    return folder ? std::optional(*folder + '/' + baseName()) : std::nullopt;
}

bool peerIsThisUser(const QLocalSocket& socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return ::getsockopt(static_cast<int>(socket.socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &peer,
                        &size) == 0 &&
           peer.uid == ::geteuid();
}

QByteArray laterStartMessage(const QStringList& files, const QString& volume,
                             const QString& dataVolume) {
    QString message;
    if (!volume.isEmpty())
        message += kVolumePrefix + normalPath(volume) + '\n';
    if (!dataVolume.isEmpty())
        message += kDataVolumePrefix + normalPath(dataVolume) + '\n';
    for (const auto& file : files)
        message += normalPath(file) + '\n';
    return message.toUtf8();
}

LaterStart parseLaterStart(const QByteArray& message) {
    LaterStart start;
    for (const auto& line : QString::fromUtf8(message).split('\n', Qt::SkipEmptyParts)) {
        if (line.startsWith(kVolumePrefix))
            start.volume = line.mid(kVolumePrefix.size()).toStdString();
        else if (line.startsWith(kDataVolumePrefix))
            start.dataVolume = line.mid(kDataVolumePrefix.size()).toStdString();
        else
            start.files << line;
    }
    return start;
}

bool handToRunningInstance(const QString& name, const QStringList& files, const QString& volume,
                           const QString& dataVolume) {
    QLocalSocket socket;
    socket.connectToServer(name);
    if (!socket.waitForConnected(500))
        return false;
    if (!peerIsThisUser(socket)) {
        logLine("quelm: " + name.toStdString() +
                " belongs to another user; nothing was handed to it.");
        socket.abort();
        return false;
    }
    socket.write(laterStartMessage(files, volume, dataVolume));
    socket.waitForBytesWritten(2000);
    socket.disconnectFromServer();
    return true;
}

void takeLaterStart(const LaterStart& start, AppController& controller, MainWindow& window) {
    if (start.files.isEmpty()) {
        controller.reopen();
        return;
    }
    const auto named = namedVolume(start.volume, start.dataVolume);
    const auto volume = named ? named : selectedVolume();
    if (!confirmHandedOver(start.files, volume, &window)) {
        logLine("quelm: the kexts handed over by another start were declined; nothing changed.");
        return;
    }
    // The question may have waited while the intake ended or another volume was chosen.
    const auto* screen = window.installationScreen();
    if (volume == selectedVolume() && !(screen && screen->jobUnderWay())) {
        controller.openFiles(start.files);
        return;
    }
    controller.queueJob(start.files, volume);
}

void listenForLaterStarts(QLocalServer& server, const QString& name, AppController& controller,
                          MainWindow& window) {
    QLocalServer::removeServer(name);
    server.setSocketOptions(QLocalServer::UserAccessOption);
    server.listen(name);
    QObject::connect(&server, &QLocalServer::newConnection, &server,
                     [&server, &controller, &window] {
                         while (QLocalSocket* socket = server.nextPendingConnection())
                             takeConnection(socket, controller, window);
                     });
}

} // namespace quelm
