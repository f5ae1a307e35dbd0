#include "ParserHarness.h"
#include "core/fs/xfs/XFSParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    agent::fuzz::parse<agent::core::fs::XFSParser>({data, size});
    return 0;
}
