#include "AgentPaths.h"
#include "Commands.h"
#include "Database.h"
#include "tools/common/Json.h"

#include <ostream>

namespace bekctl {

using tools::Json;
using tools::plain;
using tools::printJson;
using tools::textOrNull;

namespace {

void print(std::ostream& out, const Database& database) {
    if (database.pairing) {
        out << "Paired with device " << database.pairing->device;
        if (!database.pairing->address.empty()) {
            out << " at " << plain(database.pairing->address);
        }
        out << ".\n";
    } else {
        out << "Not paired: no appliance can order a backup.\n";
    }
}

} // namespace

int showPairing(const Output& output) {
    const Database database = readDatabase(databasePath());
    const auto& pairing = database.pairing;
    if (output.isJson) {
        printJson(output.out, {{"paired", pairing.has_value()},
                               {"deviceId", pairing ? Json(pairing->device) : Json()},
                               {"address", pairing ? textOrNull(pairing->address) : Json()},
                               {"agentUuid", textOrNull(database.agentUuid)}});
    } else {
        print(output.out, database);
    }
    return pairing ? exitOk : exitProblem;
}

} // namespace bekctl
