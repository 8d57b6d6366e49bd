#include "ModuleProcess.h"

#include <QRegularExpression>

namespace {

// What a translation must not change: the blanks and line feeds at the end, and the places of
// values, in any order.
QString fixedParts(const QString &text)
{
    QString parts = text.sliced(text.trimmed().size());
    for (const QString &value : {u"%0"_s, u"%1"_s, u"%2"_s, u"%3"_s})
        parts += value.repeated(text.count(value));
    return parts;
}

} // namespace

class TestTranslation : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void everyTextOfTheProgramIsTranslated();
    void moduleSpeaksTheLanguageOfItsWorkingDirectory();
};

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

    const QString text = QString::fromUtf8(place.readFile(u"copy.ts"_s));
    const QRegularExpression message(
        u"<source>(.*?)</source>.*?<translation(.*?)>(.*?)</translation>"_s,
        QRegularExpression::DotMatchesEverythingOption);
    qsizetype count = 0;
    for (const QRegularExpressionMatch &match : message.globalMatch(text)) {
        const QString source = match.captured(1), state = match.captured(2);
        QVERIFY2(state.isEmpty() && match.captured(3) != source, qPrintable(source));
        QCOMPARE(fixedParts(match.captured(3)), fixedParts(source));
        ++count;
    }
    QVERIFY(count > 0);
    QCOMPARE(count, text.count(u"<message"_s));
}

void TestTranslation::moduleSpeaksTheLanguageOfItsWorkingDirectory()
{
    ModuleProcess module;
    QVERIFY(QFile::copy(QStringLiteral(TRANSLATION), module.place.path(u"Morvane.qm"_s)));
    module.startWith({u"-settings"_s, module.writeSettings(u"m.ini"_s, "AdminServerName=\n", "")});
    QTRY_COMPARE(module.place.logged(u"morvane.log"_s).mid(0, 2),
        QStringList({u"Предупреждение: нет соединений "_s, u"Start Ok!"_s}));
}

QTEST_GUILESS_MAIN(TestTranslation)
#include "tst_translation.moc"
