// The English texts: each one in the sources reaches the user whole, as it is written there.
#include "ui/Translations.h"

#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QXmlStreamReader>
#include <QtTest>
#include <map>

namespace quelm {
namespace {

struct Message {
    QString source;
    QString translation;
    bool stale = false;
};

/// The messages of the committed translation file, by id.
std::map<QString, Message> translationFile() {
    QFile file(QUELM_SOURCE_DIR "/src/ui/translations/quelm_en.ts");
    if (!file.open(QIODevice::ReadOnly))
        return {};
    std::map<QString, Message> messages;
    QXmlStreamReader xml(&file);
    QString id;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (xml.name() == u"message")
            id = xml.attributes().value("id").toString();
        else if (xml.name() == u"source")
            messages[id].source = xml.readElementText();
        else if (xml.name() == u"translation")
            messages[id].translation = xml.readElementText();
        else if (xml.name() == u"oldsource")
            messages[id].stale = true;
    }
    return messages;
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
                faults << file.fileName() + ":" + QString::number(i + 1);
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

class TranslationsTest : public QObject {
    Q_OBJECT

private slots:
    void everyTextIsWholeAndTheSameInTheSourcesTheFileAndTheApplication() {
        QVERIFY(installTranslations(*QCoreApplication::instance()));
        const auto messages = translationFile();
        QVERIFY(messages.size() > 50);
        QStringList faults;
        const auto texts = sourceTexts(faults);
        QVERIFY2(faults.isEmpty(), qPrintable("cut texts at " + faults.join(", ")));
        for (const auto& [id, message] : messages) {
            QVERIFY2(!message.stale, qPrintable(id + " has an old text: refresh the file"));
            QVERIFY2(!message.source.endsWith('\n'), qPrintable(id + " ends in a newline"));
            QVERIFY2(message.translation.isEmpty() || message.translation == message.source,
                     qPrintable(id + " differs from its source"));
            QCOMPARE(qtTrId(id.toUtf8().constData()), message.source);
        }
        for (const auto& [id, text] : texts) {
            QVERIFY2(messages.contains(id), qPrintable(id + " is missing from the file"));
            // The sources escape what the file holds plainly.
            QCOMPARE(messages.at(id).source, QString(text).replace("\\\"", "\""));
        }
    }
};

} // namespace quelm

QTEST_MAIN(quelm::TranslationsTest)
#include "TranslationsTest.moc"
