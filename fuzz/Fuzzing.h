#pragma once

#include "Workplace.h"

#include <QCoreApplication>

#include <cstdlib>

// The environment of every fuzzer: an application, a log that writes nothing, and a temporary
// folder that is also the working directory.
struct Fuzzing : Folder
{
    Fuzzing()
    {
        qputenv("TMPDIR", path().toLocal8Bit());
        qunsetenv("XDG_RUNTIME_DIR");
        qputenv("QT_LOGGING_RULES", "*=false");
        QDir::setCurrent(path());
        pLog = &log;
    }

    int argc = 1;
    char name[5] = "fuzz";
    char *argv[2] = {name, nullptr};
    QCoreApplication application{argc, argv};
    TLog log{u"fuzz"_s};
};

// Aborts unless `claim` holds, whatever the input was.
inline void require(bool claim)
{
    if (!claim)
        std::abort();
}

inline QByteArray bytesOf(const uint8_t *data, size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), qsizetype(size));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
