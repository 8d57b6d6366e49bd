// Fuzzes the settings loader. The input is the settings file.
#include "Fuzzing.h"
#include "Morvane.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Fuzzing fuzzing;
    // Settings may put the log anywhere, but a fuzzer must not write outside its folder.
    QByteArray bytes = bytesOf(data, size);
    bytes.replace('/', '|').replace('\\', '|').replace('%', '|');
    Morvane().LoadSettings(fuzzing.writeFile(u"m.ini"_s, bytes));
    QFile::remove(pLog->filePath());
    delete std::exchange(pLog, &fuzzing.log);
    return 0;
}
