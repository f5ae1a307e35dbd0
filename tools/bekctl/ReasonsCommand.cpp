#include "Commands.h"
#include "RecordTable.h"
#include "info/log/Reason.h"

#include <ostream>

namespace bekctl {

using tools::Colour;
using tools::printIndented;
using tools::printJson;

namespace {

void print(const Output& output) {
    const std::size_t columns = output.screen.columns;
    for (const agent::info::Reason& reason : agent::info::reasons) {
        output.out << output.screen.paint(Colour::bold, std::string(reason.code)) << " ("
                   << agent::info::kindName(reason.kind) << ")\n";
        for (const std::string& part : {std::string(reason.meaning), "-> " + std::string(reason.remedy)}) {
            printIndented(output.out, part, 4, columns);
        }
    }
}

} // namespace

int showReasons(const Output& output) {
    if (output.isJson) {
        Json list = Json::array();
        for (const agent::info::Reason& reason : agent::info::reasons) {
            list.push_back(jsonOf(reason));
        }
        printJson(output.out, {{"reasons", list}});
    } else {
        print(output);
    }
    return exitOk;
}

} // namespace bekctl
