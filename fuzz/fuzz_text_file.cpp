// fuzz_text_file.cpp - text-format detection on the buffer and on a file, and loading in every mode.
#include "FuzzSupport.h"
#include "TextFile.h"

#include <QString>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    bool wide, dos, mac, little;
    sp_DetectTextFileFormat(reinterpret_cast<const char*>(data), static_cast<int>(size), wide, dos, mac, little);
    const std::string path = fuzz::scratchPath("text.txt");
    fuzz::writeFile(path, data, size);
    const QString qpath = QString::fromStdString(path);
    bool fileWide = false;
    // The scratch file was just written; only the classification is compared.
    (void)sp_DetectTextFileFormat(qpath, &fileWide, nullptr, nullptr, nullptr);
    if (size <= 1024 && fileWide != wide)
        __builtin_trap();
    for (const char* encoding : {"auto", "locale", "UTF-8", "UTF-16", "UTF-16BE", "ISO-8859-1", "no-such-codec"}) {
        bool ok = false;
        const QString text = sp_LoadFile(qpath, encoding, &ok);
        if (!ok)
            __builtin_trap();
        (void)text;
    }
    YString copy;
    if (sp_ConvertWideTextFile(YString(path.c_str()), &copy))
        (void)unlink_utf8(copy.c_str()); // scratch copy: a failed removal is harmless
    return 0;
}
