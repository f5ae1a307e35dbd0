#include "Report.h"

#include <nlohmann/json.hpp>

#include <iomanip>
#include <ostream>
#include <string>

namespace usedmap {

namespace {

std::uint64_t usedBytes(const Report& report) {
    return report.used.usedBlocks * report.used.blockSize;
}

std::string driverFilesLine(const Report& report) {
    constexpr const char* files = "the snapshot driver's own files";
    return report.driverFileBytes
               ? "left out    " + std::to_string(*report.driverFileBytes) + " bytes of " + files
               : std::string("counted     ") + files + ", if there are any: mounted volumes alone tell";
}

} // namespace

void printRanges(std::ostream& out, const Report& report) {
    for (const agent::BlockRange& range : report.used.ranges) {
        out << range.start << ' ' << range.length << '\n';
    }
}

void printSummary(std::ostream& out, const Report& report) {
    out << "device      " << report.device << '\n'
        << "size        " << report.deviceBytes << " bytes\n"
        << "blocks      " << report.used.mappedBlocks << " of " << report.used.blockSize << " bytes\n"
        << "used        " << report.used.usedBlocks << " blocks, " << usedBytes(report) << " bytes\n"
        << "ranges      " << report.used.ranges.size() << '\n'
        << driverFilesLine(report) << '\n'
        << "seconds     " << std::fixed << std::setprecision(3) << report.seconds << '\n';
}

void printJson(std::ostream& out, const Report& report, bool withRanges) {
    nlohmann::ordered_json document{{"device", report.device},
                                    {"deviceBytes", report.deviceBytes},
                                    {"blockSize", report.used.blockSize},
                                    {"blocks", report.used.mappedBlocks},
                                    {"usedBlocks", report.used.usedBlocks},
                                    {"usedBytes", usedBytes(report)},
                                    {"rangeCount", report.used.ranges.size()},
                                    {"driverFileBytes", nullptr},
                                    {"seconds", report.seconds}};
    if (report.driverFileBytes) {
        document["driverFileBytes"] = *report.driverFileBytes;
    }
    if (withRanges) {
        auto& ranges = document["ranges"] = nlohmann::ordered_json::array();
        for (const agent::BlockRange& range : report.used.ranges) {
            ranges.push_back({range.start, range.length});
        }
    }
    out << document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

} // namespace usedmap
