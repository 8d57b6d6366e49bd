#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

struct SendOptions
{
    struct Item
    {
        QString file;
        QString name;
    };
    QString module;
    QList<Item> items;
    QByteArray kind;
    uchar dataVersion = 1;
    int listenWaitSeconds = 0;
    int standstillLimitSeconds = 0; // 0: none
    QByteArray ownBusName;
    bool quiet = false;
};
