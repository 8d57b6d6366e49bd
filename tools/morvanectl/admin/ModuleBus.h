#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>

struct ModuleAction
{
    QByteArray name;
    QByteArray message; // UTF-8
    QByteArray data;
    qint32 id = -1; // of the command that is answered
};

// The modules at one administration server, wherever it runs: what they do, and commands for them.
//
// Errors:  trouble() reports what did not work.
class ModuleBus : public QObject
{
    Q_OBJECT
public:
    // Stands for one connection of a module, and never for another one.
    using Key = qint64;

    // Returns the modules with this name, or all, in the order in which they came.
    [[nodiscard]] QList<Key> modules(const QByteArray &name = {}) const
    {
        return name.isEmpty() ? names.keys() : names.keys(name);
    }
    // Safe to print, also for a module that has not announced itself.
    [[nodiscard]] QString nameOf(Key module) const;
    [[nodiscard]] QByteArray rawNameOf(Key module) const { return names.value(module); }

    // Sends to the modules with this name, or to all; returns the id of the command.
    virtual qint32 send(const QByteArray &command, const QByteArray &name) = 0;

    // What becomes of the modules when this process leaves.
    [[nodiscard]] virtual QString fateOfModules() const = 0;

Q_SIGNALS:
    void moduleCame(qint64 module);
    void moduleRenamed(qint64 module, const QByteArray &before);
    void moduleLeft(qint64 module, const QByteArray &name);
    void actionCame(qint64 module, const ModuleAction &action);
    void trouble(const QString &text);

protected:
    // The module has this name from now on.
    void noteName(Key module, const QByteArray &name);
    void noteLoss(Key module);

private:
    QMap<Key, QByteArray> names; // as last announced
};
