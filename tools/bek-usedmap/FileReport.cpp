#include "FileReport.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <ostream>

namespace usedmap {

void printRanges(std::ostream& out, const FileReport& report) {
    for (const auto& run : report.file.runs) {
        out << run.first << ' ' << run.count << '\n';
    }
}

void printJson(std::ostream& out, const FileReport& report) {
    auto ranges = nlohmann::ordered_json::array();
    std::uint64_t blocks = 0;
    for (const auto& run : report.file.runs) {
        ranges.push_back({run.first, run.count});
        blocks += run.count;
    }
    const nlohmann::ordered_json document{{"device", report.device},
                                          {"file", report.path},
                                          {"blockSize", report.file.blockSize},
                                          {"fileBlocks", blocks},
                                          {"rangeCount", report.file.runs.size()},
                                          {"ranges", ranges}};
    out << document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

} // namespace usedmap
