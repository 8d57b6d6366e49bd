#pragma once

#include "BusEnds.h"
#include "Morvane.h"
#include "Workplace.h"

// A module with an administration server, its settings file and its spool.
class ModuleBench
{
public:
    // "FOLDER" in the lines stands for the folder of the test.
    explicit ModuleBench(QByteArray mainLines)
    {
        mainLines.replace("FOLDER", place.path().toUtf8());
        module.LoadSettings(place.writeFile(u"m.ini"_s,
            "[Base]\nLog=1\nLogName=" + place.path(u"test.log"_s).toUtf8()
                + "\nAdminServerName=admin\nServerName=me\n[Main]\nTempDir=" + spool.toUtf8() + '\n'
                + mainLines));
        passOf(*module.findChild<TConnector *>());
    }

    void command(const char *name, const QByteArray &data = {}, int id = 1)
    {
        QByteArray text(name), argument = data;
        module.AdminCommand(text, argument, id, nullptr);
    }

    void record(const char *kind, const QString &name, const QByteArray &payload)
    {
        QByteArray data = DataRecord{kind, name, payload}.write();
        module.NewData(1, data, nullptr);
    }

    // The messages of all "InData" actions.
    [[nodiscard]] QStringList reports() const
    {
        const QRegularExpression action(u"^202 InData (.*)  -1$"_s);
        return admin.heard().filter(action).replaceInStrings(action, u"\\1"_s);
    }

    [[nodiscard]] QStringList spooled() const
    {
        return QDir(spool).entryList(QDir::Files | QDir::Hidden, QDir::Name);
    }

    const Workplace place;
    BusServer admin{u"admin"_s};
    const QString spool = place.makeFolder(u"spool"_s);
    Morvane module;
};
