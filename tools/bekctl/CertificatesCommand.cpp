#include "Commands.h"
#include "Identity.h"
#include "tools/common/Json.h"
#include "tools/common/Table.h"

#include <ctime>

namespace bekctl {

using tools::Cell;
using tools::Colour;
using tools::Json;
using tools::localText;
using tools::printJson;
using tools::Table;
using tools::textOrNull;
using tools::utcText;

namespace {

Json jsonOf(const IdentityPart& part, std::time_t now) {
    Json document{{"name", part.name}, {"path", part.path}, {"problem", textOrNull(part.problem)}};
    if (part.certificate) {
        document["subject"] = part.certificate->subject;
        document["issuer"] = part.certificate->issuer;
        document["notBefore"] = utcText(part.certificate->begin);
        document["notAfter"] = utcText(part.certificate->end);
        document["daysLeft"] = part.certificate->daysLeft(now);
        document["validity"] = validityOf(*part.certificate, now);
    }
    return document;
}

Json jsonOf(const Identity& identity, std::time_t now) {
    const auto orNull = [](const std::optional<bool>& value) { return value ? Json(*value) : Json(); };
    return {{"certificates", {jsonOf(identity.agent, now), jsonOf(identity.authority, now)}},
            {"keyBelongsToCertificate", orNull(identity.keyMatches)},
            {"keyProblem", textOrNull(identity.keyProblem)},
            {"certificateIsFromAuthority", orNull(identity.isSignedByAuthority)},
            {"sound", identity.isSound(now)}};
}

void addPart(Table& table, const IdentityPart& part, std::time_t now) {
    table.add({{part.name == "agent" ? "Agent" : "Authority", Colour::bold}, part.path});
    if (!part.certificate) {
        table.add({"", {part.problem, Colour::red}});
        return;
    }
    const CertificateFile& certificate = *part.certificate;
    const std::string validity = validityOf(certificate, now);
    table.add({"  subject", certificate.subject});
    table.add({"  issuer", certificate.issuer});
    table.add({"  begins", localText(certificate.begin)});
    table.add({"  ends", localText(certificate.end) + ", " +
                             (certificate.daysLeft(now) < 0
                                  ? std::to_string(-certificate.daysLeft(now)) + " days ago"
                                  : std::to_string(certificate.daysLeft(now)) + " days left")});
    table.add({"  now", {validity, validity == "valid" ? Colour::green : Colour::red}});
}

Cell answer(const std::optional<bool>& value, const std::string& problem) {
    if (!value) {
        return {problem.empty() ? "can't be told" : problem, Colour::red};
    }
    return *value ? Cell("yes", Colour::green) : Cell("NO", Colour::red);
}

void print(const Output& output, const Identity& identity, std::time_t now) {
    Table table({{"", false, false}, {"", false, false}});
    addPart(table, identity.agent, now);
    addPart(table, identity.authority, now);
    table.add({{"Together", Colour::bold}, ""});
    table.add({"  the key belongs to the certificate", answer(identity.keyMatches, identity.keyProblem)});
    table.add({"  the authority has signed it", answer(identity.isSignedByAuthority, "")});
    table.print(output.out, output.screen);
}

} // namespace

int showCertificates(const Output& output) {
    const Identity identity = readIdentity();
    const std::time_t now = std::time(nullptr);
    if (output.isJson) {
        printJson(output.out, jsonOf(identity, now));
    } else {
        print(output, identity, now);
    }
    return identity.isSound(now) ? exitOk : exitProblem;
}

} // namespace bekctl
