// The desktop notification that ends a job: on the session bus, and always in the log.
#pragma once

#include <QString>

namespace quelm {

struct UserNotification {
    QString title;
    QString subtitle;
    QString informativeText;
};

/// Writes one log line beginning with the title, then sends the notification to
/// org.freedesktop.Notifications on the session bus, now, with the default message sound.
/// False when no notification service took it (the log line is then all there is).
bool deliverUserNotification(const UserNotification& notification);

} // namespace quelm
