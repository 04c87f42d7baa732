// DynFuncTest.cpp - the registry of named functions and the suite's exceptions.
#include "DynFunc.h"
#include "TestHelpers.h"

#include <cstring>
#include <memory>

namespace {
int first() { return 1; }
int second() { return 2; }
int fallback() { return -1; }
typedef int (*IntFn)();
} // namespace

TEST(DynFunc, DefinitionFillsSlotsWhicheverCameFirst)
{
    IntFn early = &fallback;
    auto earlySlot = std::make_unique<RegisterDynFuncCall>(&early, "sqTestFn", true, "tests/DynFuncTest", 1);
    EXPECT_EQ(early(), -1);
    EXPECT_EQ(sp_FindDynFuncDef("sqTestFn"), nullptr);
    {
        RegisterDynFuncDef def1("sqTestFn", &first, "tests/DynFuncTest", 2);
        EXPECT_EQ(early(), 1); // slot registered before the definition
        IntFn late = &fallback;
        RegisterDynFuncCall lateSlot(&late, "sqTestFn", true, "tests/DynFuncTest", 3);
        EXPECT_EQ(late(), 1); // slot registered after the definition
        {
            RegisterDynFuncDef def2("sqTestFn", &second, "tests/DynFuncTest", 4);
            EXPECT_EQ(early(), 1); // the first definition keeps the slots
        }
        EXPECT_EQ(early(), 1);
    }
    EXPECT_EQ(early(), -1); // withdrawn: back to the default
    EXPECT_EQ(sp_FindDynFuncDef("sqTestFn"), nullptr);
}

TEST(DynFunc, WithdrawingTheFirstDefinitionHandsSlotsToTheNext)
{
    IntFn slot = &fallback;
    RegisterDynFuncCall call(&slot, "sqTestFn2", true, "tests/DynFuncTest", 5);
    auto def1 = std::make_unique<RegisterDynFuncDef>("sqTestFn2", &first, "tests/DynFuncTest", 6);
    RegisterDynFuncDef def2("sqTestFn2", &second, "tests/DynFuncTest", 7);
    EXPECT_EQ(slot(), 1);
    def1.reset();
    EXPECT_EQ(slot(), 2);
}

// A call registered without a slot has nothing to fill: definitions come and go beside it, and the
// slots of other calls of the name are filled as ever.
TEST(DynFunc, ACallWithoutASlotIsPassedOver)
{
    IntFn* none = nullptr;
    RegisterDynFuncCall bare(none, "sqTestFn3", true, "tests/DynFuncTest", 8);
    IntFn slot = &fallback;
    RegisterDynFuncCall call(&slot, "sqTestFn3", true, "tests/DynFuncTest", 9);
    {
        RegisterDynFuncDef def("sqTestFn3", &first, "tests/DynFuncTest", 10);
        EXPECT_EQ(slot(), 1);
        EXPECT_NE(sp_FindDynFuncDef("sqTestFn3"), nullptr);
    }
    EXPECT_EQ(slot(), -1);
}

// A module that registers whatever a failed lookup gave it offers nothing: the slots keep their defaults
// (a slot is never null) and the name is not found; a later real definition fills them.
TEST(DynFunc, ANullDefinitionDefinesNothing)
{
    IntFn slot = &fallback;
    RegisterDynFuncCall call(&slot, "sqNullFn", true, "tests/DynFuncTest", 11);
    RegisterDynFuncDef none("sqNullFn", static_cast<IntFn>(nullptr), "tests/DynFuncTest", 12);
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(slot(), -1);
    EXPECT_EQ(sp_FindDynFuncDef("sqNullFn"), nullptr);
    IntFn late = &fallback;
    RegisterDynFuncCall lateCall(&late, "sqNullFn", true, "tests/DynFuncTest", 13);
    ASSERT_NE(late, nullptr);
    EXPECT_EQ(late(), -1);
    {
        RegisterDynFuncDef real("sqNullFn", &second, "tests/DynFuncTest", 14);
        EXPECT_EQ(slot(), 2);
        EXPECT_EQ(late(), 2);
        EXPECT_EQ(reinterpret_cast<IntFn>(sp_FindDynFuncDef("sqNullFn")), &second);
    }
    EXPECT_EQ(slot(), -1);
}

// The same slot registered a second time while it holds a definition: the definition is no default, and
// withdrawing it puts the slot's real default back.
TEST(DynFunc, ASlotRegisteredAgainKeepsItsFirstDefault)
{
    IntFn slot = &fallback;
    RegisterDynFuncCall first(&slot, "sqTwiceFn", true, "tests/DynFuncTest", 15);
    auto def = std::make_unique<RegisterDynFuncDef>("sqTwiceFn", &second, "tests/DynFuncTest", 16);
    ASSERT_EQ(slot(), 2);
    RegisterDynFuncCall again(&slot, "sqTwiceFn", true, "tests/DynFuncTest", 17);
    EXPECT_EQ(slot(), 2);
    def.reset();
    EXPECT_EQ(slot, &fallback);
}

TEST(DynFunc, NamesCompareExactly)
{
    IntFn slot = &fallback;
    RegisterDynFuncCall call(&slot, "sqCaseFn", true, "tests/DynFuncTest", 8);
    RegisterDynFuncDef def("SQCASEFN", &first, "tests/DynFuncTest", 9);
    EXPECT_EQ(slot(), -1);
}

TEST(DynFunc, LogRecordsRegistrationsAndWithdrawals)
{
    {
        IntFn slot = &fallback;
        RegisterDynFuncCall call(&slot, "sqLogFn", false, "tests/Log", 10);
        RegisterDynFuncDef def("sqLogFn", &first, "tests/Log", 11);
    }
    YArray<YString> log;
    sp_GetDynRegistryLog(&log);
    int n = log.count();
    ASSERT_GE(n, 4);
    EXPECT_EQ(log[n - 4], "call sqLogFn tests/Log:10");
    EXPECT_EQ(log[n - 3], "def sqLogFn tests/Log:11");
    EXPECT_EQ(log[n - 2], "-def sqLogFn tests/Log:11");
    EXPECT_EQ(log[n - 1], "-call sqLogFn tests/Log:10");
}

TEST(DynFuncException, UnresolvedCallThrowsCode9WithTheExactMessage)
{
    try {
        sp_ThrowUnresolvedDynFunc("dyn_Something");
        FAIL() << "no exception";
    } catch (const KalvontaException& e) {
        EXPECT_EQ(e.code(), 9);
        EXPECT_STREQ(e.message(), "*** FATAL ERROR *** Unresolved dynamic function 'dyn_Something' called");
        EXPECT_NE(dynamic_cast<const DynFuncException*>(&e), nullptr);
    }
}

TEST(DynFuncException, LongNamesAreCutToTheBuffer)
{
    std::string name(2000, 'n');
    try {
        sp_ThrowUnresolvedDynFunc(name.c_str());
        FAIL() << "no exception";
    } catch (const DynFuncException& e) {
        EXPECT_EQ(std::strlen(e.message()), 999u);
        EXPECT_EQ(e.code(), 9);
    }
    KalvontaException plain(3, nullptr);
    EXPECT_STREQ(plain.what(), "");
}
