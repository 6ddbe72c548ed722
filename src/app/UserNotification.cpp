// The desktop notification that ends a job: on the session bus, and always in the log.
#include "app/UserNotification.h"

#include "support/Log.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>
#include <QVariantMap>

namespace quelm {

bool deliverUserNotification(const UserNotification& notification) {
    logLine(
        (notification.title + ": " + notification.subtitle + ". " + notification.informativeText)
            .toStdString());
    QDBusInterface service("org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                           "org.freedesktop.Notifications", QDBusConnection::sessionBus());
    if (!service.isValid())
        return false;
    // The subtitle leads the body: the notification service has no subtitle of its own.
    const QVariantMap hints{{"sound-name", "message-new-instant"},
                            {"urgency", QVariant::fromValue<uchar>(1)}};
    const QDBusReply<uint> reply = service.call(
        "Notify", QString("Quelm"), 0u, QString("quelm"), notification.title,
        notification.subtitle + "\n" + notification.informativeText, QStringList(), hints, -1);
    return reply.isValid();
}

} // namespace quelm
