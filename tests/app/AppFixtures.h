// What the application's tests share: a macOS of two volumes, and answers to folder choosers.
#pragma once

#include "KextFixtures.h"
#include "TestSupport.h"
#include "volumes/Volume.h"

#include <QApplication>
#include <QFileDialog>
#include <deque>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace quelm::test {

using Halves = std::pair<std::string, std::optional<std::string>>;

struct VolumeGroup {
    std::filesystem::path system;
    std::filesystem::path data;

    Halves halves() const { return {system.string(), data.string()}; }
};

/// The folders of the volume's system and data volumes.
inline Halves halvesOf(const Volume& volume) {
    return {volume.mountPoint(), volume.dataMountPoint()};
}

/// A macOS 10.15.7 (19H2) as its two volumes in folder: the system volume of
/// makeCatalinaVolume, whose firmlinks lead /Library and /private to the data volume.
inline VolumeGroup makeCatalinaGroup(const std::filesystem::path& folder) {
    const VolumeGroup group{folder / "Macintosh HD", folder / "Macintosh HD - Data"};
    makeCatalinaVolume(group.system);
    writeText(group.system / "usr/share/firmlinks", "/Library\tLibrary\n/private\tprivate\n");
    std::filesystem::create_directories(group.data / "Library/Extensions");
    std::filesystem::create_directories(group.data / "private/var");
    return group;
}

/// Answers each folder chooser as it opens with the next folder given, or cancels it once none
/// is left, and keeps the titles they showed.
class FolderAnswers : public QObject {
public:
    explicit FolderAnswers(std::deque<std::filesystem::path> folders) : folders_(folders) {
        QApplication::instance()->installEventFilter(this);
    }

    QStringList titles;

protected:
    bool eventFilter(QObject* object, QEvent* event) override {
        auto* chooser = qobject_cast<QFileDialog*>(object);
        if (!chooser || event->type() != QEvent::Show)
            return false;
        titles << chooser->windowTitle();
        const auto folder = folders_.empty() ? QString() : QString::fromStdString(folders_[0]);
        if (!folders_.empty())
            folders_.pop_front();
        // Answered from the dialog's own event loop, once it runs.
        QMetaObject::invokeMethod(
            chooser,
            [chooser, folder] {
                QDialog* dialog = chooser;
                chooser->setDirectory(folder);
                folder.isEmpty() ? dialog->reject() : dialog->accept();
            },
            Qt::QueuedConnection);
        return false;
    }

private:
    std::deque<std::filesystem::path> folders_;
};

} // namespace quelm::test
