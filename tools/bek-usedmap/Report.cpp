#include "Report.h"

#include <nlohmann/json.hpp>

#include <iomanip>
#include <ostream>

namespace usedmap {

namespace {

std::uint64_t usedBytes(const Report& report) {
    return report.used.usedBlocks * report.used.blockSize;
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
        << "blocks      " << report.used.knownBlocks << " of " << report.used.blockSize << " bytes\n"
        << "used        " << report.used.usedBlocks << " blocks, " << usedBytes(report) << " bytes\n"
        << "ranges      " << report.used.ranges.size() << '\n'
        << "seconds     " << std::fixed << std::setprecision(3) << report.seconds << '\n';
}

void printJson(std::ostream& out, const Report& report, bool withRanges) {
    nlohmann::ordered_json document{{"device", report.device},
                                    {"deviceBytes", report.deviceBytes},
                                    {"blockSize", report.used.blockSize},
                                    {"blocks", report.used.knownBlocks},
                                    {"usedBlocks", report.used.usedBlocks},
                                    {"usedBytes", usedBytes(report)},
                                    {"rangeCount", report.used.ranges.size()},
                                    {"seconds", report.seconds}};
    if (withRanges) {
        auto& ranges = document["ranges"] = nlohmann::ordered_json::array();
        for (const agent::BlockRange& range : report.used.ranges) {
            ranges.push_back({range.start, range.length});
        }
    }
    out << document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

} // namespace usedmap
