#include "Workplace.h"

#include <QCoreApplication>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>
#include <QXmlStreamReader>

using namespace Qt::StringLiterals;

namespace {

struct Message
{
    QString source, translation;
    bool isFinished = true;
};

QList<Message> readMessages(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(path));
    QList<Message> messages;
    QXmlStreamReader xml(&file);
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement())
            continue;
        if (xml.name() == "source"_L1) {
            messages.append(Message{xml.readElementText(), {}});
        } else if (xml.name() == "translation"_L1) {
            messages.last().isFinished = !xml.attributes().hasAttribute("type"_L1);
            messages.last().translation = xml.readElementText();
        }
    }
    return messages;
}

// What a translation must not change: the places of values, in any order, and the blanks and line
// feeds at the end.
QStringList fixedParts(const QString &text)
{
    QStringList parts;
    QRegularExpressionMatchIterator places = QRegularExpression(u"%\\d"_s).globalMatch(text);
    while (places.hasNext())
        parts.append(places.next().captured());
    parts.sort();
    const QString end = text.isEmpty() ? text : text.sliced(text.trimmed().size());
    return parts << end;
}

} // namespace

class TestTranslation : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void everyTextKeepsItsValuesAndEnd();
    void everyTextOfTheProgramIsTranslated();
    void moduleSpeaksTheLanguageOfItsWorkingDirectory();
};

void TestTranslation::everyTextKeepsItsValuesAndEnd()
{
    const QList<Message> messages = readMessages(QStringLiteral(TRANSLATION_SOURCE));
    QVERIFY(!messages.isEmpty());
    for (const Message &message : messages) {
        QVERIFY2(message.isFinished, qPrintable(message.source));
        QVERIFY2(message.translation != message.source, qPrintable(message.source));
        QCOMPARE(fixedParts(message.translation), fixedParts(message.source));
    }
}

void TestTranslation::everyTextOfTheProgramIsTranslated()
{
    const Folder place;
    const QString copy = place.path(u"copy.ts"_s);
    QVERIFY(QFile::copy(QStringLiteral(TRANSLATION_SOURCE), copy));
    QProcess update;
    update.setWorkingDirectory(QStringLiteral(PROJECT_FOLDER));
    update.start(QStringLiteral(LUPDATE),
        {u"module"_s, u"plugin"_s, u"transfer"_s, u"supportlib"_s, u"-locations"_s, u"none"_s,
            u"-no-obsolete"_s, u"-ts"_s, copy});
    QVERIFY(update.waitForFinished());
    QCOMPARE(update.exitCode(), 0);
    const QList<Message> messages = readMessages(copy);
    for (const Message &message : messages)
        QVERIFY2(message.isFinished, qPrintable(message.source));
}

void TestTranslation::moduleSpeaksTheLanguageOfItsWorkingDirectory()
{
    const Folder place;
    QVERIFY(QFile::copy(QStringLiteral(TRANSLATION), place.path(u"Morvane.qm"_s)));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"TMPDIR"_s, place.path());
    environment.remove(u"XDG_RUNTIME_DIR"_s);
    QProcess module;
    module.setProcessEnvironment(environment);
    module.setWorkingDirectory(place.path());
    module.start(QCoreApplication::applicationDirPath() + u"/morvane"_s,
        {u"-settings"_s,
            place.writeFile(
                u"m.ini"_s, "[Base]\nLog=1\nServerName=me\nAdminServerName=\n[Main]\nPort=1\n")});
    QTRY_COMPARE(place.logged(u"morvane.log"_s),
        QStringList({u"Предупреждение: нет соединений "_s, u"Start Ok!"_s}));
    module.kill();
    QVERIFY(module.waitForFinished());
}

QTEST_GUILESS_MAIN(TestTranslation)
#include "tst_translation.moc"
