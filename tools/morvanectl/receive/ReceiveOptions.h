#pragma once

#include <QHostAddress>
#include <QString>

#include <chrono>

struct ReceiveOptions
{
    QHostAddress address;
    quint16 port = 0;
    // Empty: records are only shown.
    QString directory;
    QString fileNameTemplate;
    bool overwrite = false;
    bool acknowledge = false;
    quint32 longestRecord = 0; // bytes
    // 0 in the following means: the kernel's choice, or never.
    int kernelBuffer = 0; // bytes of each connection
    qint64 leaveAfterRecords = 0;
    qint64 closeLinkAfterRecords = 0;
    qint64 stopReadingAfterRecords = 0;
    std::chrono::seconds silenceToReport{0};
    bool quiet = false;
};
