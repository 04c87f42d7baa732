// SimulatorTypeTest.cpp - simulator kinds and their text form.
#include "SimulatorType.h"
#include "TestHelpers.h"

TEST(SimulatorType, EmptyOrUnknownTextGivesNone)
{
    EXPECT_EQ(support_CrackSimulatorType(""), SimulatorTypeNone);
    EXPECT_EQ(support_CrackSimulatorType("spectre|eldo"), SimulatorTypeNone);
    EXPECT_EQ(support_CrackSimulatorType(nullptr), SimulatorTypeNone);
    EXPECT_EQ(support_BuildSimulatorTypeString(SimulatorTypeNone), "");
}

TEST(SimulatorType, MixedCaseBothNamesGiveThree)
{
    EXPECT_EQ(support_CrackSimulatorType("trebolt|KALVONTA"), 3);
    EXPECT_EQ(support_CrackSimulatorType("Kalvonta|TREBOLT"), 3);
    EXPECT_EQ(support_CrackSimulatorType("Kalvonta"), SimulatorTypeKalvonta);
}

TEST(SimulatorType, SwitchingSimulatorTwiceGivesTwo)
{
    EXPECT_EQ(support_CrackSimulatorType("TREBOLT|trebolt"), SimulatorTypeTrebolt);
}

TEST(SimulatorType, BlanksAroundNamesAreTrimmedBySplitLine)
{
    EXPECT_EQ(support_CrackSimulatorType(" TREBOLT | Kalvonta "), 3);
    EXPECT_EQ(support_CrackSimulatorType("TRE BOLT"), SimulatorTypeNone);
}

TEST(SimulatorType, TextPutsTheSwitchingSimulatorFirst)
{
    EXPECT_EQ(support_BuildSimulatorTypeString(static_cast<SimulatorType>(3)), "TREBOLT|Kalvonta");
    EXPECT_EQ(support_BuildSimulatorTypeString(SimulatorTypeTrebolt), "TREBOLT");
    EXPECT_EQ(support_BuildSimulatorTypeString(SimulatorTypeKalvonta), "Kalvonta");
    EXPECT_EQ(support_BuildSimulatorTypeString(static_cast<SimulatorType>(4 | 1)), "Kalvonta");
    for (int t = 0; t < 4; ++t)
        EXPECT_EQ(support_CrackSimulatorType(support_BuildSimulatorTypeString(static_cast<SimulatorType>(t))), t);
}
