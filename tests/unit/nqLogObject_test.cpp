#include "support/nqLogObject.h"
#include "tests/common/refusedMemory.h"
#include "tests/unit/testSupport.h"

#include <gtest/gtest.h>

#include <new>
#include <sstream>
#include <stdexcept>
#include <type_traits>

namespace {

using nq::nqLogObject;
using support::Entry;
using support::Lines;

static_assert(!std::is_copy_constructible_v<nqLogObject>);
static_assert(std::is_nothrow_destructible_v<nqLogObject>);

class LogObject : public testing::Test {
protected:
    scripted::Machine machine;
    support::Logger logger;
};

class LogObjectWithoutLogger : public testing::Test {
protected:
    scripted::Machine machine;
};

/// Counts how often it is written to a stream.
struct Countable {
    int* count;

    friend std::ostream& operator<<(std::ostream& stream, const Countable& countable)
    {
        ++*countable.count;
        return stream;
    }
};

TEST_F(LogObject, writesOneEntryWhenItGoesOutOfScope)
{
    {
        nqLogObject object(2, true);
        object << "one " << std::string("two ") << 3;
        EXPECT_TRUE(machine.logged.empty());
    }
    EXPECT_EQ(support::entries(machine), (std::vector<Entry>{{2, true, "one two 3"}}));
}

TEST_F(LogObject, handsItsWriteOptionToTheLogger)
{
    nqLogObject(0, false) << "a";
    nqLogObject(3, true) << "b";
    EXPECT_EQ(support::entries(machine), (std::vector<Entry>{{0, false, "a"}, {3, true, "b"}}));
}

TEST_F(LogObject, fillsTheEntryFromTheMomentOfItsConstruction)
{
    machine.wallTimeMs = 1111;
    machine.threadId = "17";
    {
        nqLogObject object(1, false);
        machine.wallTimeMs = 2222;
        machine.threadId = "18";
        object << "late";
    }
    const nq::nqLog::LogEntry& entry = machine.logged.at(0).entry;
    EXPECT_EQ(entry.mTimestampMs, 1111U);
    EXPECT_EQ(entry.mThreadId, "17");
    EXPECT_EQ(entry.mLevel, 1);
    EXPECT_EQ(entry.mPrefix, machine.logPrefix);
    EXPECT_EQ(entry.mSecondText, "");
    EXPECT_EQ(entry.mSystemLogText, "");
}

TEST_F(LogObject, computesThePrefixOfAnEntryThatIsFilled)
{
    machine.wallTimeMs = 1111;
    machine.threadId = "17";
    nqLogObject(3, false) << "text";
    EXPECT_EQ(machine.prefixed.mTimestampMs, 1111U);
    EXPECT_EQ(machine.prefixed.mThreadId, "17");
    EXPECT_EQ(machine.prefixed.mLevel, 3);
}

TEST_F(LogObject, computesThePrefixWithTheThreadBeforeItWrites)
{
    nqLogObject(0, false) << "text";
    EXPECT_EQ(machine.calls, (Lines{"entry: computeLogPrefix(true)", "log: text"}));
}

TEST_F(LogObject, emitsNothingWithoutAnInsertion)
{
    {
        const nqLogObject object(3, true);
    }
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(LogObject, emitsNothingWhenOnlyEmptyTextsWereInserted)
{
    nqLogObject(3, true) << "" << std::string();
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(LogObject, ignoresInsertionsAtALevelThatTheLoggerDisabled)
{
    logger.setLevelEnabled(2, false);
    int count = 0;
    nqLogObject(2, true) << "text" << Countable{&count};
    EXPECT_EQ(count, 0);
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(LogObject, makesNoStreamUntilSomethingIsInsertedAtAnEnabledLevel)
{
    if (!common::RefusedMemory::isPossible())
        GTEST_SKIP();
    logger.setLevelEnabled(2, false);
    const common::RefusedMemory refused(sizeof(std::stringstream));
    nqLogObject(2, true) << "text";
    const nqLogObject withoutInsertion(3, true);
    EXPECT_THROW(nqLogObject(3, true) << "text", std::bad_alloc);
}

TEST_F(LogObject, asksForTheFlagOfItsOwnLevel)
{
    for (const int level : {0, 1, 3})
        logger.setLevelEnabled(level, false);
    for (const int level : {0, 1, 2, 3})
        nqLogObject(level, true) << "level " << std::to_string(level);
    EXPECT_EQ(machine.messages(), Lines{"level 2"});
}

TEST_F(LogObject, emitsNothingAtTheDisabledLevel)
{
    int count = 0;
    nqLogObject(4, true) << "text" << Countable{&count};
    EXPECT_EQ(count, 0);
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(LogObject, staysEnabledWhenTheFlagChangesAfterItsConstruction)
{
    {
        nqLogObject object(1, false);
        logger.setLevelEnabled(1, false);
        object << "text";
    }
    EXPECT_EQ(machine.messages(), Lines{"text"});
}

TEST_F(LogObject, writesNeitherToStandardOutputNorToTheSystemLogWhenThereIsALogger)
{
    nqLogObject(3, true) << "text";
    EXPECT_EQ(machine.calls, (Lines{"entry: computeLogPrefix(true)", "log: text"}));
}

TEST_F(LogObject, followsTheGlobalLocaleForNumbersOnPurpose)
{
    const support::GroupingGlobalLocale locale;
    nqLogObject(0, false) << 1234567;
    EXPECT_EQ(machine.messages(), Lines{"1.234.567"});
}

TEST_F(LogObjectWithoutLogger, printsPrefixAndMessage)
{
    nqLogObject(2, true) << "mess"
                         << "age";
    EXPECT_EQ(
        machine.calls,
        (Lines{"entry: computeLogPrefix(true)", "standard output: prefix | message"}));
}

TEST_F(LogObjectWithoutLogger, printsEveryLevelFromZeroToThree)
{
    for (const int level : {0, 1, 2, 3}) {
        machine.calls.clear();
        nqLogObject(level, false) << std::to_string(level);
        EXPECT_EQ(machine.calls.back(), "standard output: prefix | " + std::to_string(level));
    }
}

TEST_F(LogObjectWithoutLogger, printsNothingAtTheDisabledLevelOrWithoutAText)
{
    nqLogObject(4, true) << "text";
    nqLogObject(3, true) << "";
    EXPECT_EQ(machine.calls, Lines{});
}

using LogObjectDeathTest = LogObject;

TEST_F(LogObjectDeathTest, endsTheProcessWhenTheLoggerThrows)
{
    logger.onWrite = [] { throw std::runtime_error("no disk"); };
    EXPECT_DEATH(nqLogObject(3, true) << "text", "no disk");
}

} // namespace
