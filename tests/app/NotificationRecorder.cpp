// A stand-in desktop notification service for the end-to-end test: owns
// org.freedesktop.Notifications on the session bus and appends each notification to a file.
// Usage: quelm_notification_recorder FILE READY: writes a line to READY (a FIFO the test waits
// on) once the name is owned, and ends with the process that started it.
#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QFile>
#include <QStringList>
#include <QVariantMap>
#include <csignal>
#include <fstream>
#include <sys/prctl.h>
#include <unistd.h>

class NotificationService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    explicit NotificationService(QString path) : path_(std::move(path)) {}

public slots:
    uint Notify(const QString& application, uint, const QString&, const QString& summary,
                const QString& body, const QStringList&, const QVariantMap& hints, int) {
        QFile file(path_);
        if (file.open(QIODevice::Append))
            file.write((application + "\t" + summary + "\t" + QString(body).replace('\n', " | ") +
                        "\t" + hints.value("sound-name").toString() + "\n")
                           .toUtf8());
        return ++count_;
    }
    QStringList GetCapabilities() { return {"body", "sound"}; }

private:
    QString path_;
    uint count_ = 0;
};

int main(int argc, char** argv) {
    // A test that fails or times out must not leave its recorder behind.
    const pid_t parent = ::getppid();
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || ::getppid() != parent)
        return 1;
    QCoreApplication application(argc, argv);
    if (argc != 3)
        return 2;
    NotificationService service(QString::fromLocal8Bit(argv[1]));
    auto bus = QDBusConnection::sessionBus();
    if (!bus.registerObject("/org/freedesktop/Notifications", &service,
                            QDBusConnection::ExportAllSlots) ||
        !bus.registerService("org.freedesktop.Notifications"))
        return 1;
    std::ofstream(argv[2]) << "ready\n";
    return QCoreApplication::exec();
}

#include "NotificationRecorder.moc"
