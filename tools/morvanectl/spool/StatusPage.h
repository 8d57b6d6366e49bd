#pragma once

#include <QJsonObject>
#include <QStringList>

// The status file of a module, as it has written it last.
//
// Errors:  without a file there are no values; lines that make no sense are left out.
class StatusPage
{
public:
    // The path may be empty: the module writes none.
    explicit StatusPage(const QString &path);

    // Why the file cannot be read; empty if it can, or if there is to be none.
    [[nodiscard]] QString problem() const { return reason; }

    // "records accepted  12", one line each, in the order of the file.
    [[nodiscard]] QStringList lines() const;
    [[nodiscard]] QJsonObject toJson() const;

private:
    struct Value
    {
        QString name; // as in the file, without what all have in common
        double number;
    };
    QList<Value> values;
    QString reason;
};
