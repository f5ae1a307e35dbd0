#include "seal/Trust.h"

namespace tolvubd {

namespace {

/// For an open seal, which shows less: the file system must still be as the machine left it when it stopped.
std::optional<std::string> reasonAfterCrash(const Seal& seal, const Fingerprint& now,
                                            const std::string& previousBootId) {
    if (now.isClean) {
        return "it was unmounted, or its journal replayed, and nobody knows by whom";
    }
    if (now.mount != seal.fingerprint->mount) {
        return "it was mounted or checked: " + seal.fingerprint->mount + " is " + now.mount;
    }
    if (now.kind != "ext" && seal.bootId != previousBootId) {
        return "the machine was started in between, or isn't known not to have been";
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> reasonForDoubt(const Seal& seal, const std::optional<Fingerprint>& now,
                                          const std::string& previousBootId) {
    if (seal.end == Seal::End::broken || !seal.device.layers || seal.device.layers->error != 0) {
        return "it was given up before";
    }
    if (!seal.fingerprint) {
        return "its file system wasn't one that can be recognised";
    }
    if (!now || now->kind != seal.fingerprint->kind) {
        return "its file system can't be recognised";
    }
    if (*now == *seal.fingerprint) {
        return std::nullopt;
    }
    if (seal.end == Seal::End::clean) {
        return "it was written after it was closed: " + seal.fingerprint->content + " is " + now->content;
    }
    return reasonAfterCrash(seal, *now, previousBootId);
}

} // namespace tolvubd
