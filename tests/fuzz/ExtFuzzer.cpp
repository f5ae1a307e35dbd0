#include "ParserHarness.h"
#include "core/fs/ext/EXTParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    agent::fuzz::parse<agent::core::fs::EXTParser>({data, size});
    return 0;
}
