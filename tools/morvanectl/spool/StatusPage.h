#pragma once

#include <QJsonObject>
#include <QStringList>

// The counters in the status file of a module.
//
// Errors:  without a file there are no values; lines of another form are left out.
class StatusPage
{
public:
    // An empty path stands for a module that writes no status file.
    explicit StatusPage(const QString &path);

    // Returns why the file cannot be read; empty if it can, or if there is none to read.
    [[nodiscard]] QString problem() const { return reason; }

    // Returns lines such as "records accepted  12", in the order of the file.
    [[nodiscard]] QStringList lines() const;
    [[nodiscard]] QJsonObject toJson() const;

private:
    struct Value
    {
        QString name; // without the prefix "morvane_" and the label "module"
        double number;
    };
    QList<Value> values;
    QString reason;
};
