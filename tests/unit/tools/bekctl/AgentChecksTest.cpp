#include "AgentChecks.h"

#include <gtest/gtest.h>

namespace bekctl {
namespace {

AgentFacts running(Port port = Port::answers) {
    AgentFacts facts;
    facts.process = Process{1, "bekd", 0, false};
    facts.listener = facts.process;
    facts.port = port;
    return facts;
}

TEST(CheckAgent, OneThatAnswersIsWell) {
    const Findings found = checkAgent(running());
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].verdict, Verdict::ok);
    EXPECT_EQ(found[1].verdict, Verdict::ok);
}

TEST(CheckAgent, EveryOtherStateOfThePortIsAFailure) {
    for (const Port port : {Port::closed, Port::otherProgram, Port::silent, Port::wrongCertificate}) {
        const Finding found = checkAgent(running(port)).at(1);
        EXPECT_EQ(found.verdict, Verdict::failure) << found.text;
        EXPECT_NE(found.remedy, "");
    }
}

TEST(CheckAgent, OneThatDoesNotRunIsAFailureAndAnOldOneAWarning) {
    EXPECT_EQ(checkAgent({}).at(0).verdict, Verdict::failure);
    AgentFacts facts = running();
    facts.process->isReplaced = true;
    EXPECT_EQ(checkAgent(facts).at(0).verdict, Verdict::warning);
}

TEST(CheckDatabase, OneThatCannotBeReadAndOneThatIsNotPaired) {
    EXPECT_EQ(checkDatabase({}, "why").at(0).text, "why.");
    EXPECT_EQ(checkDatabase({}, "why").at(0).verdict, Verdict::failure);
    EXPECT_EQ(checkDatabase(Database(), "").at(1).verdict, Verdict::failure);
    Database paired;
    paired.pairing = Pairing{4711, ""};
    EXPECT_EQ(checkDatabase(paired, "").at(1).verdict, Verdict::ok);
}

TEST(CheckIdentity, WhatIsMissingIsAFailure) {
    Identity identity;
    identity.agent.name = "agent";
    identity.authority.name = "authority";
    const Findings found = checkIdentity(identity, 0);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].name, "certificate-agent");
    EXPECT_EQ(found[0].verdict, Verdict::failure);
}

TEST(CheckIdentity, PartsThatDoNotBelongTogether) {
    Identity identity;
    identity.keyMatches = false;
    identity.isSignedByAuthority = false;
    const Findings found = checkIdentity(identity, 0);
    ASSERT_EQ(found.size(), 4U);
    EXPECT_EQ(found[2].verdict, Verdict::failure);
    EXPECT_EQ(found[3].verdict, Verdict::failure);
}

} // namespace
} // namespace bekctl
