#include "seal/Trust.h"

#include "SealedDevice.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace tolvubd {
namespace {

using test::makeSeal;

const Fingerprint extClean{"ext", "mounted once", "content", true};
const Fingerprint extCrashed{"ext", "mounted once", "later content", false};
const Fingerprint xfsClean{"xfs", "uuid", "head", true};
const Fingerprint xfsCrashed{"xfs", "uuid", "later head", false};

Seal sealWith(Seal::End end, const std::optional<Fingerprint>& fingerprint) {
    Seal seal = makeSeal();
    seal.end = end;
    seal.fingerprint = fingerprint;
    return seal;
}

Fingerprint changed(Fingerprint fingerprint, std::string Fingerprint::* part) {
    fingerprint.*part += " changed";
    return fingerprint;
}

bool isKept(const Seal& seal, const std::optional<Fingerprint>& now, const std::string& previous = "") {
    return !reasonForDoubt(seal, now, previous);
}

TEST(Trust, HoldsForACleanSealWhileNothingHasChanged) {
    for (const Fingerprint& fingerprint : {extClean, xfsClean}) {
        const Seal seal = sealWith(Seal::End::clean, fingerprint);
        EXPECT_TRUE(isKept(seal, fingerprint));
        EXPECT_FALSE(isKept(seal, changed(fingerprint, &Fingerprint::mount), test::bootId));
        EXPECT_FALSE(isKept(seal, changed(fingerprint, &Fingerprint::content), test::bootId));
        EXPECT_FALSE(isKept(seal, changed(fingerprint, &Fingerprint::kind), test::bootId));
        Fingerprint crashed = fingerprint;
        crashed.isClean = false;
        EXPECT_FALSE(isKept(seal, crashed, test::bootId));
    }
}

TEST(Trust, HoldsForAnOpenSealWhileNothingHasChanged) {
    for (const Fingerprint& fingerprint : {extClean, extCrashed, xfsClean, xfsCrashed}) {
        EXPECT_TRUE(isKept(sealWith(Seal::End::open, fingerprint), fingerprint));
    }
}

TEST(Trust, HoldsForExtAfterACrashUnlessItWasMountedOrReplayed) {
    const Seal seal = sealWith(Seal::End::open, extClean);
    EXPECT_TRUE(isKept(seal, extCrashed));
    EXPECT_FALSE(isKept(seal, changed(extCrashed, &Fingerprint::mount), test::bootId));
    EXPECT_FALSE(isKept(seal, changed(extClean, &Fingerprint::content), test::bootId));
}

TEST(Trust, HoldsForXfsAfterACrashOnlyIfItWasTheStartBefore) {
    const Seal seal = sealWith(Seal::End::open, xfsClean);
    EXPECT_TRUE(isKept(seal, xfsCrashed, test::bootId));
    EXPECT_FALSE(isKept(seal, xfsCrashed, ""));
    EXPECT_FALSE(isKept(seal, xfsCrashed, test::trackingId));
    EXPECT_FALSE(isKept(seal, changed(xfsCrashed, &Fingerprint::mount), test::bootId));
    EXPECT_FALSE(isKept(seal, changed(xfsClean, &Fingerprint::content), test::bootId));
}

TEST(Trust, NeverHoldsForWhatWasGivenUp) {
    EXPECT_FALSE(isKept(sealWith(Seal::End::broken, extClean), extClean, test::bootId));
    Seal failed = sealWith(Seal::End::clean, extClean);
    failed.device.layers->error = EIO;
    EXPECT_FALSE(isKept(failed, extClean, test::bootId));
    Seal withoutLayers = sealWith(Seal::End::clean, extClean);
    withoutLayers.device.layers.reset();
    EXPECT_FALSE(isKept(withoutLayers, extClean, test::bootId));
}

TEST(Trust, NeverHoldsWhereTheFileSystemIsNotRecognised) {
    EXPECT_FALSE(isKept(sealWith(Seal::End::clean, {}), std::nullopt, test::bootId));
    EXPECT_FALSE(isKept(sealWith(Seal::End::clean, {}), extClean, test::bootId));
    EXPECT_FALSE(isKept(sealWith(Seal::End::open, extClean), std::nullopt, test::bootId));
    EXPECT_FALSE(isKept(sealWith(Seal::End::open, extClean), xfsCrashed, test::bootId));
}

} // namespace
} // namespace tolvubd
