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
    qint32 id = -1; // of the command that it answers
};

// The modules at one administration server, in this process or elsewhere: reports what they do, and
// sends them commands.
class ModuleBus : public QObject
{
    Q_OBJECT
public:
    // Identifies one connection of a module and is never reused.
    using Key = qint64;

    // Returns the modules with this name, or all if it is empty, in the order of their arrival.
    [[nodiscard]] QList<Key> modules(const QByteArray &name = {}) const
    {
        return name.isEmpty() ? names.keys() : names.keys(name);
    }
    // Returns a text that is safe to print, even for a module without a name.
    [[nodiscard]] QString nameOf(Key module) const;
    [[nodiscard]] QByteArray rawNameOf(Key module) const { return names.value(module); }

    // Sends to the modules with this name, or to all if it is empty. Returns the command's id.
    virtual qint32 send(const QByteArray &command, const QByteArray &name) = 0;

    // Returns what happens to the modules when this process exits, as part of a sentence.
    [[nodiscard]] virtual QString fateOfModules() const = 0;

Q_SIGNALS:
    void moduleCame(qint64 module);
    void moduleRenamed(qint64 module, const QByteArray &before);
    void moduleLeft(qint64 module, const QByteArray &name);
    void actionCame(qint64 module, const ModuleAction &action);
    void trouble(const QString &text);

protected:
    // Adds the module or changes its name.
    void noteName(Key module, const QByteArray &name);
    void noteLoss(Key module);

private:
    QMap<Key, QByteArray> names; // as last announced
};
