#include "Report.h"

#include "tools/common/Text.h"
#include "tools/restore/RestorePlan.h"

#include <cmath>
#include <iomanip>
#include <sstream>

namespace audit {

namespace {

constexpr std::size_t mostShown = 20; // wrong blocks in the text report
constexpr double hundred = 100;

std::string nameOf(Stratum stratum) {
    return stratum == Stratum::unused ? "unused" : "unchanged";
}

std::string percent(double share) {
    std::ostringstream text;
    text << std::setprecision(3) << share * hundred << " %";
    return text.str();
}

std::string atMost(double bound, double confidence) {
    return "at most " + percent(bound) + " could be wrong (confidence " + percent(confidence) + ")";
}

double rateOf(const Findings& findings) {
    return findings.seconds > 0 ? std::round(static_cast<double>(findings.sampled) / findings.seconds) : 0;
}

/// Lists at most `mostShown` of the wrong blocks; the JSON document has all of them.
void print(std::ostream& out, Stratum stratum, const Findings& findings, double confidence) {
    out << std::left << std::setw(11) << nameOf(stratum);
    if (!findings.skipReason.empty()) {
        out << "not looked at: " << findings.skipReason << '\n';
        return;
    }
    out << findings.sampled << " of " << findings.population << " blocks in "
        << tools::durationText(findings.seconds) << ", " << findings.wrong.size()
        << (stratum == Stratum::unused ? " in use" : " differ");
    if (findings.undecided > 0) {
        out << ", " << findings.undecided << " nobody tells of";
    }
    if (findings.neverWritten > 0) {
        out << ", " << findings.neverWritten << " set aside and never written";
    }
    out << "; " << atMost(findings.bound(confidence), confidence) << '\n';
    for (std::size_t index = 0; index < findings.wrong.size() && index < mostShown; ++index) {
        const WrongBlock& wrong = findings.wrong[index];
        out << "           byte " << wrong.offset
            << (wrong.file.empty() ? "" : ", of " + tools::plain(wrong.file)) << '\n';
    }
    if (findings.wrong.size() > mostShown) {
        out << "           and " << findings.wrong.size() - mostShown << " more\n";
    }
}

/// A stratum that wasn't checked has no member but the reason.
tools::Json jsonOf(const Findings& findings, double confidence) {
    tools::Json document;
    document["notLookedAt"] = tools::textOrNull(findings.skipReason);
    if (!findings.skipReason.empty()) {
        return document;
    }
    document["blocks"] = findings.population;
    document["sampled"] = findings.sampled;
    document["compared"] = findings.sampled - findings.undecided;
    document["neverWritten"] = findings.neverWritten;
    document["undecided"] = findings.undecided;
    document["wrong"] = findings.wrong.size();
    document["upperBound"] = findings.bound(confidence);
    document["seconds"] = findings.seconds;
    document["blocksPerSecond"] = rateOf(findings);
    document["wrongBlocks"] = tools::Json::array();
    for (const WrongBlock& wrong : findings.wrong) {
        tools::Json block;
        block["offset"] = wrong.offset;
        block["file"] = tools::textOrNull(wrong.file);
        document["wrongBlocks"].push_back(block);
    }
    return document;
}

} // namespace

std::string textOf(const Request& request, const Result& result) {
    std::ostringstream text;
    text << "Volume " << result.volume << " beside " << request.image << ", blocks of " << restore::pageBytes
         << " bytes, seed " << request.seed << '\n';
    for (const Stratum stratum : strata) {
        print(text, stratum, result.of(stratum), request.confidence);
    }
    text << (result.isClean() ? "Nothing is wrong in the sample" : "THE IMAGE LACKS WHAT IT SHOULD HAVE")
         << ". Of all that a backup leaves out, "
         << atMost(result.bound(request.confidence), request.confidence) << ".\n";
    return text.str();
}

tools::Json jsonOf(const Request& request, const Result& result) {
    tools::Json document;
    document["volume"] = result.volume;
    document["image"] = request.image;
    document["blockBytes"] = restore::pageBytes;
    document["sample"] = request.sample;
    document["seed"] = request.seed;
    document["confidence"] = request.confidence;
    for (const Stratum stratum : strata) {
        document[nameOf(stratum)] = jsonOf(result.of(stratum), request.confidence);
    }
    document["upperBound"] = result.bound(request.confidence);
    document["clean"] = result.isClean();
    return document;
}

} // namespace audit
