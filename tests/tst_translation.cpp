#include "ModuleProcess.h"

// What a translation must keep: the white space at the end and, in any order, the places of values.
static QStringList fixedParts(const QString &text)
{
    QStringList parts;
    for (const auto &match : QRegularExpression(u"%\\d|\\s+$"_s).globalMatch(text))
        parts.append(match.captured());
    parts.sort();
    return parts;
}

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
    QDir::setCurrent(QStringLiteral(PROJECT_FOLDER));
    const QStringList arguments =
        u"module plugin transfer supportlib -silent -no-obsolete -ts"_s.split(u' ');
    QCOMPARE(QProcess::execute(QStringLiteral(LUPDATE), arguments + QStringList{copy}), 0);

    const QString text = QString::fromUtf8(place.readFile(u"copy.ts"_s));
    const QRegularExpression message(
        u"<source>(.*?)</source>.*?<translation(.*?)>(.*?)</translation>"_s,
        QRegularExpression::DotMatchesEverythingOption);
    qsizetype count = text.count(u"<message"_s);
    QVERIFY(count > 0);
    for (const QRegularExpressionMatch &match : message.globalMatch(text)) {
        const QString source = match.captured(1), state = match.captured(2);
        QVERIFY2(state.isEmpty() && match.captured(3) != source, qPrintable(source));
        QCOMPARE(fixedParts(match.captured(3)), fixedParts(source));
        --count;
    }
    QCOMPARE(count, 0);
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
