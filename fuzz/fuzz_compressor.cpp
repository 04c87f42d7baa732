// fuzz_compressor.cpp - the data compressor's load on any file: a valid stream or an empty buffer.
#include "Compress.h"
#include "FuzzSupport.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path = fuzz::scratchPath("data.z");
    fuzz::writeFile(path, data, size);
    std::unique_ptr<DataCompressor> compressor(sp_MakeDataCompressor());
    compressor->load(YString(path.c_str()));
    if (compressor->size() < 0)
        __builtin_trap();
    // What loads must save and load again to the same bytes.
    const std::string loaded(compressor->data(), static_cast<size_t>(compressor->size()));
    const std::string again = fuzz::scratchPath("again.z");
    if (compressor->save(YString(again.c_str()))) {
        std::unique_ptr<DataCompressor> second(sp_MakeDataCompressor());
        second->load(YString(again.c_str()));
        if (std::string(second->data(), static_cast<size_t>(second->size())) != loaded)
            __builtin_trap();
    }
    return 0;
}
