#include "fakes/LogCapture.h"
#include "logging/Log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;

TEST(Logger, ALineIsLevelSubcomponentTagAndText)
{
    const LogCapture log(2);
    vtx::Logger(vtx::LibraryLogLevel(2)).subcomp("qel").tag("errorCode:QEL1").put("%s is %d", "seven", 7);
    EXPECT_EQ(log.Lines(), Strings({"2 qel errorCode:QEL1 seven is 7"}));
}

TEST(Logger, TheDestructorEndsTheLine)
{
    const LogCapture log(2);
    {
        vtx::Logger line(vtx::LevelError);
        line.put("text");
        EXPECT_EQ(log.Lines(), Strings());
    }
    EXPECT_EQ(log.Lines(), Strings({"2  - text"}));
}

TEST(Logger, SubcompAndTagReturnTheSameLogger)
{
    const LogCapture log(2);
    vtx::Logger line(vtx::LevelError);
    EXPECT_EQ(&line.subcomp("qel"), &line);
    EXPECT_EQ(&line.tag("t"), &line);
    EXPECT_EQ(&line.put("x"), &line);
}

TEST(Logger, TextIsKeptExactlyWithItsTrailingNewlineAndAnyLength)
{
    const LogCapture log(2);
    const std::string longText(5000, 'x');
    vtx::Logger(vtx::LevelError).put("%s\n", longText.c_str());
    vtx::Logger(vtx::LevelError).put("colons:: ");
    EXPECT_EQ(log.Lines(), Strings({"2  - " + longText + "\n", "2  - colons:: "}));
}

TEST(Logger, SeveralPutsAppend)
{
    const LogCapture log(2);
    vtx::Logger(vtx::LevelError).put("a%d", 1).put("b%d", 2);
    EXPECT_EQ(log.Lines(), Strings({"2  - a1b2"}));
}

TEST(Logger, ArgumentsThatCannotBeFormattedLeaveTheFormat)
{
    const LogCapture log(2);
    // No locale has this wide character.
    const wchar_t impossible[] = {static_cast<wchar_t>(0x7fffffff), 0};
    vtx::Logger(vtx::LevelError).put("wide %ls", impossible);
    EXPECT_EQ(log.Lines(), Strings({"2  - wide %ls"}));
}

TEST(Logger, SetLogSinkReturnsTheSinkBefore)
{
    int first = 0;
    int second = 0;
    const vtx::LogSink original = vtx::SetLogSink([&first](const vtx::LogLine&) { ++first; });
    const vtx::LogSink before = vtx::SetLogSink([&second](const vtx::LogLine&) { ++second; });
    before(vtx::LogLine());
    vtx::Logger(vtx::LevelError).put("x");
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
    vtx::SetLogSink(original);
}

TEST(Logger, AnEmptySinkDiscards)
{
    const LogCapture log(2);
    const vtx::LogSink capture = vtx::SetLogSink(vtx::LogSink());
    vtx::Logger(vtx::LevelError).put("nobody hears this");
    EXPECT_FALSE(vtx::SetLogSink(capture));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST(Logger, WhatASinkThrowsIsDropped)
{
    const vtx::LogSink before = vtx::SetLogSink([](const vtx::LogLine&) { throw std::runtime_error("disk full"); });
    EXPECT_NO_THROW(vtx::Logger(vtx::LevelError).put("x"));
    vtx::SetLogSink(before);
}

TEST(Logger, TheLevelReadsAndChangesLikeAnInt)
{
    const LogCapture log(4);
    EXPECT_EQ(vtx::Logger::logLevel, 4);
    vtx::Logger::logLevel = 6;
    const int level = vtx::Logger::logLevel;
    EXPECT_EQ(level, 6);
    EXPECT_TRUE(vtx::Logger::logLevel > 5);
    EXPECT_FALSE(vtx::Logger::logLevel > 6);
    const auto saved = vtx::Logger::logLevel;
    vtx::Logger::logLevel = 1;
    vtx::Logger::logLevel = saved;
    EXPECT_EQ(vtx::Logger::logLevel, 6);
}

TEST(Logger, TheLevelsAreZeroToSevenInAnUnscopedEnumeration)
{
    EXPECT_TRUE((std::is_convertible_v<vtx::LibraryLogLevel, int>));
    const std::vector<int> levels = {vtx::LevelOff,     vtx::LevelFatal,  vtx::LevelError,  vtx::LevelStatus,
                                     vtx::LevelWarning, vtx::LevelNotice, vtx::LevelDetail, vtx::LevelDebug};
    EXPECT_EQ(levels, std::vector<int>({0, 1, 2, 3, 4, 5, 6, 7}));
}

TEST(Log, ALineInterruptedByAnExceptionIsAbandoned)
{
    const LogCapture log(4);
    const auto fail = []() -> int { throw std::runtime_error("no argument"); };
    EXPECT_THROW(QEL_LOG(vtx::LevelWarning, "%d", fail()), std::runtime_error);
    EXPECT_EQ(log.Lines(), Strings());
}

// Writes a line while an exception is on its way.
class WritesWhenDestroyed
{
  public:
    WritesWhenDestroyed() = default;
    WritesWhenDestroyed(const WritesWhenDestroyed&) = delete;
    WritesWhenDestroyed& operator=(const WritesWhenDestroyed&) = delete;
    ~WritesWhenDestroyed() { QEL_LOG(vtx::LevelWarning, "unwinding"); }
};

TEST(Log, ALineCompletedDuringUnwindingIsWritten)
{
    const LogCapture log(4);
    try
    {
        const WritesWhenDestroyed writer;
        throw std::runtime_error("on its way");
    }
    catch (const std::runtime_error&)
    {
        EXPECT_EQ(log.Lines(), Strings({"4 qel - unwinding"}));
    }
}

TEST(Log, ALineIsWrittenFromItsLevelOn)
{
    const LogCapture log(4);
    QEL_LOG(vtx::LevelNotice, "notice %d", 5);
    EXPECT_EQ(log.Lines(), Strings());
    QEL_LOG(vtx::LevelWarning, "warning %d", 4);
    QEL_LOG(vtx::LevelStatus, "status %d", 3);
    EXPECT_EQ(log.Lines(), Strings({"4 qel - warning 4", "3 qel - status 3"}));
}

TEST(Log, AnErrorLineCarriesItsTagAndIsWrittenFromLevelTwoOn)
{
    const LogCapture log(1);
    QEL_LOG_ERROR("errorCode:QEL15", "text %d", 1);
    EXPECT_EQ(log.Lines(), Strings());
    vtx::Logger::logLevel = 2;
    QEL_LOG_ERROR("errorCode:QEL15", "text %d", 2);
    EXPECT_EQ(log.Lines(), Strings({"2 qel errorCode:QEL15 text 2"}));
}

TEST(Log, ArgumentsOfALineBelowTheLevelAreNotEvaluated)
{
    const LogCapture log(1);
    int evaluated = 0;
    QEL_LOG(vtx::LevelWarning, "%d", ++evaluated);
    QEL_LOG_ERROR("errorCode:QEL15", "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    vtx::Logger::logLevel = 4;
    QEL_LOG(vtx::LevelWarning, "%d", ++evaluated);
    QEL_LOG_ERROR("errorCode:QEL15", "%d", ++evaluated);
    EXPECT_EQ(evaluated, 2);
}

// For the thread sanitizer: level and sink change while others log. Every line reaches exactly one of the sinks.
TEST(Logger, SinkAndLevelMayChangeWhileOtherThreadsLog)
{
    constexpr int threadCount = 3;
    constexpr int linesEach = 2000;
    const LogCapture log(2);
    std::atomic<int> lines{0};
    const vtx::LogSink count = [&lines](const vtx::LogLine&) { ++lines; };
    const vtx::LogSink before = vtx::SetLogSink(count);
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int i = 0; i < threadCount; ++i)
    {
        threads.emplace_back(
            []
            {
                for (int line = 0; line < linesEach; ++line)
                {
                    QEL_LOG_ERROR("errorCode:QEL1", "line %d", line);
                }
            });
    }
    for (int i = 0; i < 500; ++i)
    {
        vtx::SetLogSink([&lines](const vtx::LogLine&) { ++lines; });
        vtx::Logger::logLevel = 2 + i % 3;
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    vtx::SetLogSink(before);
    EXPECT_EQ(lines, threadCount * linesEach);
}

TEST(LoggerDeathTest, ThreadsMayLogWhileTheProcessExits)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            static std::atomic<int> lines{0};
            static std::atomic<bool> sinkDestroyed{false};
            // Registered before the logger is first used, so it runs after whatever that would destroy at exit.
            std::atexit(
                []
                {
                    const int until = lines + 1000;
                    while (lines < until && !sinkDestroyed)
                    {
                        std::this_thread::yield();
                    }
                    if (sinkDestroyed)
                    {
                        std::_Exit(1);
                    }
                });
            vtx::Logger::logLevel = 7;
            // Only the sink holds what notes its end: exit() unwinds no stack.
            vtx::SetLogSink([token = std::shared_ptr<void>(nullptr, [](void*) { sinkDestroyed = true; })](
                                const vtx::LogLine&) { ++lines; });
            for (int i = 0; i < 3; ++i)
            {
                std::thread(
                    []
                    {
                        for (;;)
                        {
                            QEL_LOG(vtx::LevelDebug, "still here %s", std::string(200, 'x').c_str());
                        }
                    })
                    .detach();
            }
            while (lines < 1000)
            {
                std::this_thread::yield();
            }
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace VtxQel
