// What every screen shares: the English texts, whole and the same in the sources, the
// translation file and the application; alerts answered in advance; the dark palette.
#include "ui/AppearanceMode.h"
#include "ui/Translations.h"
#include "ui/ViewExtensions.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QTimer>
#include <QXmlStreamReader>
#include <QtTest>
#include <map>

namespace quelm {
namespace {

/// The source text of each message of the committed translation file by id; what is wrong
/// with a message goes to faults.
std::map<QString, QString> translationFile(QStringList& faults) {
    QFile file(QUELM_SOURCE_DIR "/src/ui/translations/quelm_en.ts");
    if (!file.open(QIODevice::ReadOnly))
        return {};
    std::map<QString, QString> sources;
    QXmlStreamReader xml(&file);
    QString id;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (xml.name() == u"message")
            id = xml.attributes().value("id").toString();
        else if (xml.name() == u"source")
            sources[id] = xml.readElementText();
        else if (xml.name() == u"oldsource")
            faults << id + " has an old text: refresh the file";
        else if (xml.name() == u"translation")
            if (const QString text = xml.readElementText(); !text.isEmpty() && text != sources[id])
                faults << id + " differs from its source";
    }
    return sources;
}

/// Each "//%" text of the sources by the id of the qtTrId or QT_TRID_NOOP that follows it,
/// with the comment lines that continue it ("//" without "%") counted as a fault.
std::map<QString, QString> sourceTexts(QStringList& faults) {
    std::map<QString, QString> texts;
    const QRegularExpression comment(R"(^\s*//%\s*(.*)$)");
    const QRegularExpression id(R"((?:qtTrId|QT_TRID_NOOP)\("([^"]+)\"\))");
    QDirIterator files(QUELM_SOURCE_DIR "/src", {"*.cpp", "*.h"}, QDir::Files,
                       QDirIterator::Subdirectories);
    while (files.hasNext()) {
        QFile file(files.next());
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const auto lines = QString::fromUtf8(file.readAll()).split('\n');
        for (qsizetype i = 0; i < lines.size(); ++i) {
            const auto match = comment.match(lines[i]);
            if (!match.hasMatch())
                continue;
            const QString literal = match.captured(1).trimmed();
            if (!literal.startsWith('"') || !literal.endsWith('"') || literal.size() < 2 ||
                (i + 1 < lines.size() && lines[i + 1].trimmed().startsWith("//") &&
                 !lines[i + 1].trimmed().startsWith("//%")))
                faults << "cut text at " + file.fileName() + ":" + QString::number(i + 1);
            for (qsizetype j = i + 1; j < lines.size() && j <= i + 4; ++j)
                if (const auto used = id.match(lines[j]); used.hasMatch()) {
                    texts[used.captured(1)] = literal.mid(1, literal.size() - 2);
                    break;
                }
        }
    }
    return texts;
}

} // namespace

class ScreenSupportTest : public QObject {
    Q_OBJECT

private slots:
    void everyTextIsWholeAndTheSameInTheSourcesTheFileAndTheApplication() {
        QVERIFY(installTranslations(*QCoreApplication::instance()));
        QStringList faults;
        const auto messages = translationFile(faults);
        const auto texts = sourceTexts(faults);
        QVERIFY2(faults.isEmpty(), qPrintable(faults.join('\n')));
        QVERIFY(messages.size() > 50);
        for (const auto& [id, source] : messages) {
            QVERIFY2(!source.endsWith('\n'), qPrintable(id + " ends in a newline"));
            QCOMPARE(qtTrId(id.toUtf8().constData()), source);
        }
        for (const auto& [id, text] : texts) {
            QVERIFY2(messages.contains(id), qPrintable(id + " is missing from the file"));
            // The sources escape what the file holds plainly.
            QCOMPARE(messages.at(id), QString(text).replace("\\\"", "\""));
        }
    }

    // Any box that appears is answered OK by the timer, so that a preset answer that fails to
    // keep its box away shows up as a wrong answer instead of a hang.
    void presetAnswersComeInOrderWithoutABoxAndWithoutOneTheBoxRunsModally() {
        QStringList seen;
        QTimer answerer;
        connect(&answerer, &QTimer::timeout, [&] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                seen << (box->icon() == QMessageBox::Critical ? "critical: " : "other: ") +
                            box->text() + "|" + box->informativeText();
                box->button(QMessageBox::Ok)->click();
            }
        });
        answerer.start(0);
        ModalAnswers::preset(QMessageBox::Cancel);
        ModalAnswers::preset(QMessageBox::No);
        QCOMPARE(showAlert(nullptr, "message", "informative"), QMessageBox::Cancel);
        QCOMPARE(showMessage(nullptr, "message", "informative"), QMessageBox::No);
        QCOMPARE(showAlert(nullptr, "Failed", "The helper stopped."), QMessageBox::Ok);
        QCOMPARE(seen, QStringList{"critical: Failed|The helper stopped."});
    }

    void darkModeGivesTheApplicationADarkPalette() {
        const auto lightness = [](QPalette::ColorRole role) {
            return qApp->palette().color(role).lightness();
        };
        applyAppearance(*qApp, AppearanceMode::DarkMode);
        QVERIFY(std::max(lightness(QPalette::Window), lightness(QPalette::Base)) < 100);
        QVERIFY(std::min(lightness(QPalette::WindowText), lightness(QPalette::Text)) > 180);
        applyAppearance(*qApp, AppearanceMode::LightMode);
        QVERIFY(lightness(QPalette::Window) > 180 && lightness(QPalette::WindowText) < 100);
    }
};

} // namespace quelm

QTEST_MAIN(quelm::ScreenSupportTest)
#include "ScreenSupportTest.moc"
