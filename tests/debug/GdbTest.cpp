// Drives gdb, with the library's printers loaded as an installation has them loaded, on core files
// of the program DebuggerSubject. A core file answers no calls: what is shown comes from memory
// alone.

#include "Tools.h"

#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace velahost_test;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

namespace fs = std::filesystem;

/// Whose debug information gdb has.
enum class Debug { Both, OnlyLibrary, OnlyProgram };

std::string WithoutDebugInformation(const fs::path& file, const fs::path& directory)
{
    const fs::path copy = directory / file.filename();
    RunProgram({VELAHOST_TEST_STRIP, "--strip-debug", "-o", copy, file});
    return copy;
}

/// The subject program and gdb, which finds the printers where an installation puts them: below a
/// directory that it trusts, in the folder of the library's own path.
class Gdb
{
public:
    explicit Gdb(Debug debug)
        : m_Program(VELAHOST_TEST_SUBJECT), m_Library(fs::canonical(VELAHOST_TEST_LIBRARY))
    {
        if (debug == Debug::OnlyLibrary) {
            m_Program = WithoutDebugInformation(m_Program, m_Directory.GetPath());
        } else if (debug == Debug::OnlyProgram) {
            m_Library = WithoutDebugInformation(m_Library, m_Directory.GetPath());
            fs::create_symlink(m_Library, m_Directory.File(VELAHOST_TEST_SONAME));
        }
        const fs::path scripts =
            m_Directory.File("auto-load") / m_Library.parent_path().relative_path();
        fs::create_directories(scripts);
        fs::copy_file(VELAHOST_TEST_PRINTERS,
                      scripts / (m_Library.filename().string() + "-gdb.py"));
    }

    /// Runs the subject until it ends itself, or only to its main function by "start", and the
    /// commands then. What gdb says.
    std::string RunOnProcess(const std::vector<std::string>& commands,
                             const std::string& run = "run") const
    {
        std::vector<std::string> all{"set startup-with-shell off", run};
        all.insert(all.end(), commands.begin(), commands.end());
        return Run({}, all);
    }

    void MakeCore() const
    {
        const std::string output = RunOnProcess({"generate-core-file " + GetCore()});
        ASSERT_TRUE(fs::exists(GetCore())) << output;
    }

    std::string GetCore() const { return m_Directory.File("core"); }

    std::string RunOnCore(const std::vector<std::string>& commands) const
    {
        return Run({GetCore()}, commands);
    }

    /// What gdb prints for an expression, from the core file, without the "$1 = ".
    std::vector<std::string> Print(const std::vector<std::string>& expressions) const
    {
        // Without a program's debug information gdb can't tell the language.
        std::vector<std::string> commands{"set language c++"};
        for (const std::string& expression : expressions) {
            commands.push_back("print " + expression);
        }
        const std::string output = RunOnCore(commands);
        std::vector<std::string> values;
        for (const std::string& line : SplitLines(output)) {
            std::smatch match;
            if (std::regex_match(line, match, std::regex("\\$[0-9]+ = (.*)"))) {
                values.push_back(match[1]);
            }
        }
        EXPECT_EQ(values.size(), expressions.size()) << output;
        values.resize(expressions.size());
        return values;
    }

    std::string Print(const std::string& expression) const
    {
        return Print(std::vector{expression}).front();
    }

private:
    std::string Run(const std::vector<std::string>& core,
                    const std::vector<std::string>& commands) const
    {
        // Nobody's own settings, and the library from where it may have been copied to.
        std::vector<std::string> arguments{
            "/usr/bin/env",
            "LD_LIBRARY_PATH=" + m_Library.parent_path().string(),
            *FindProgram("gdb"),
            "-nx",
            "-quiet",
            "--batch",
            "-iex",
            "set debuginfod enabled off",
            "-iex",
            "set auto-load scripts-directory " + m_Directory.File("auto-load"),
            "-iex",
            "set auto-load safe-path " + m_Directory.File("auto-load")};
        for (const std::string& command : commands) {
            arguments.insert(arguments.end(), {"-ex", command});
        }
        arguments.push_back(m_Program);
        arguments.insert(arguments.end(), core.begin(), core.end());
        return RunProgram(arguments);
    }

    TemporaryDirectory m_Directory;
    fs::path m_Program;
    fs::path m_Library;
};

/// Why gdb can't be driven here; empty when it can.
std::string WhyNot()
{
    const auto gdb = FindProgram("gdb");
    if (!gdb) {
        return "gdb is not installed";
    }
    const std::string output =
        RunProgram({*gdb, "-nx", "--batch", "-iex", "set debuginfod enabled off", "-ex",
                    "python print('Python', 'speaks')", "-ex", "set startup-with-shell off", "-ex",
                    "starti", VELAHOST_TEST_SUBJECT});
    if (output.find("Python speaks") == std::string::npos) {
        return "gdb has no Python";
    }
    if (output.find("Could not trace the inferior") != std::string::npos) {
        return "processes may not be traced here";
    }
    return "";
}

class GdbTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (const std::string reason = WhyNot(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }
};

void ExpectLocksAndEvents(const Gdb& gdb)
{
    const auto values =
        gdb.Print({"subject::mainThread", "subject::freeMutex", "subject::usedMutex",
                   "subject::heldMutex", "subject::wantedMutex", "subject::freeObject",
                   "subject::heldObject", "*subject::outerLocker", "*subject::releasedLocker",
                   "subject::neverConstructed", "subject::processMutex", "subject::clearEvent",
                   "subject::setEvent", "subject::awaitedEvent"});
    const std::string mainThread = "thread 1 \\(LWP " + values[0] + "\\)";
    EXPECT_EQ(values[1], "free; 0 locks, 0 unlocks");
    EXPECT_THAT(values[2], MatchesRegex("free, last held by (" + mainThread +
                                        "|pthread 0x[0-9a-f]+); 1 lock, 1 unlock"));
    EXPECT_THAT(values[3], MatchesRegex("held by " + mainThread + "; 1 lock, 0 unlocks"));
    EXPECT_THAT(values[4],
                MatchesRegex("held by " + mainThread + ", others may wait; 1 lock, 0 unlocks"));
    EXPECT_EQ(values[5], "{<VelaHost_Utility::Lockable> = free, m_State = 7}");
    EXPECT_THAT(values[6], MatchesRegex("\\{<VelaHost_Utility::Lockable> = held by " + mainThread +
                                        ", 2 deep, m_State = 7\\}"));
    EXPECT_THAT(values[7], MatchesRegex("holds 0x[0-9a-f]+: held by " + mainThread + ", 2 deep"));
    EXPECT_THAT(values[8], MatchesRegex("released 0x[0-9a-f]+"));
    EXPECT_THAT(values[9], HasSubstr("not a ThreadMutex: magic 0x0"));
    EXPECT_THAT(values[10], MatchesRegex("lock file \".*/subject.lock\", not initialised"));
    EXPECT_EQ(values[11], "clear; nobody waits; 0 sleeps, 0 wakes; mutex free");
    EXPECT_EQ(values[12], "set; nobody waits; 0 sleeps, 0 wakes; mutex free");
    EXPECT_THAT(values[13], MatchesRegex("clear; 1 waiting; 1 sleep, 0 wakes; last sleep began "
                                         "[-0-9]+ [:0-9]+\\.[0-9]+ UTC; mutex free"));
}

void ExpectConfiguration(const Gdb& gdb)
{
    const auto values = gdb.Print({"subject::settings", "subject::failedSettings",
                                   "subject::sections", "*subject::someProperty"});
    EXPECT_EQ(values[0], "3 properties = {[\"Name\"] = text \"left \\\"slot\\\"\", "
                         "[\"Port\"] = number 4711 (0x1267), [\"Zero\"] = number 0 (0x0)}");
    EXPECT_EQ(values[1], "1 property, last error \"Invalid syntax (missing = sign) at line 2\" = "
                         "{[\"A\"] = number 1 (0x1)}");
    EXPECT_EQ(values[2], "1 property, 2 sections = {[\"Mode\"] = number 2 (0x2), "
                         "<Board left 1> = 1 property, 0 sections = {[\"Speed\"] = text \"fast\"}, "
                         "<Board right> = 0 properties, 0 sections}");
    EXPECT_EQ(values[3], "text \"left \\\"slot\\\"\"");
}

void ExpectExceptions(const Gdb& gdb)
{
    const auto values = gdb.Print({"*subject::systemFailure", "*subject::socketFailure",
                                   "*subject::ownFailure", "*subject::anyFailure"});
    EXPECT_EQ(values[0], "SystemException 0x2002 \"SystemException(SysErr=0x10)\", "
                         "errno 16 (EBUSY) at src/somewhere:68");
    EXPECT_EQ(values[1], "IpcSocketException 0x2105 \"IpcSocketException\", "
                         "errno 111 (ECONNREFUSED) at src/unix/ClientSocket:52");
    EXPECT_EQ(values[2], "{<VelaHost_Utility::Exception> = subject::OwnException 0x4711 "
                         "\"no \\\"left\\\" slot\", component \"Loader\" at loader.cpp:12, "
                         "m_Detail = 99}");
    EXPECT_EQ(values[3], values[0]) << "through a pointer to the base class";
}

void ExpectTimers(const Gdb& gdb)
{
    const auto values =
        gdb.Print({"subject::stoppedTimer", "subject::runningTimer", "subject::watchdog",
                   "*subject::queue", "*subject::firstRequest"});
    EXPECT_THAT(values[0],
                MatchesRegex("stopped, once after 250 ms, calls \\(subject::Blinker \\*\\) 0x.*"));
    EXPECT_THAT(values[1], MatchesRegex("running, expires at 360[0-9]+ ms, every 3600000 ms, calls "
                                        "\\(subject::Blinker \\*\\) 0x[0-9a-f]+"));
    EXPECT_THAT(values[2], ContainsRegex("m_Name = .* \"watchdog\".*<VelaHost_Utility::Timer> = "
                                         "running, expires at 720[0-9]+ ms, once after 7200000 ms, "
                                         "calls none"));
    EXPECT_THAT(values[3], ContainsRegex("^4 requests pending; clock [0-9]+ ms when the core file "
                                         "was last written; timer thread: .*; lock free = "
                                         "\\{\\[0\\] = expires at 180[0-9]+ ms, handler "
                                         "\\(subject::OwnRequestHandler \\*\\) 0x[0-9a-f]+, "));
    EXPECT_THAT(values[4], MatchesRegex("expires at 180[0-9]+ ms, handler "
                                        "\\(subject::OwnRequestHandler \\*\\) 0x[0-9a-f]+"));
}

void ExpectSocketsAndConnections(const Gdb& gdb)
{
    const auto values =
        gdb.Print({"subject::noSocket", "subject::clientSocket", "subject::serverPort",
                   "subject::socketManager", "subject::queueManager"});
    EXPECT_EQ(values[0], "no descriptor, TCP");
    EXPECT_THAT(values[1], MatchesRegex("descriptor [0-9]+, TCP, address 127.0.0.1:" + values[2]));
    EXPECT_THAT(
        values[3],
        MatchesRegex("2 connections; handlers for 5, 19 = \\{\\[1\\] = connection 1, open on "
                     "descriptor [0-9]+, peer unknown, 12 of 2048 bytes buffered, a frame "
                     "of 100 in category 5 first, \\[2\\] = connection 2, free\\}"));
    EXPECT_EQ(values[4], "2 connections; handlers for nothing = {[1] = connection 1, process 4660, "
                         "[2] = connection 2, free}");
}

void ExpectEverything(const Gdb& gdb)
{
    ExpectLocksAndEvents(gdb);
    ExpectConfiguration(gdb);
    ExpectExceptions(gdb);
    ExpectTimers(gdb);
    ExpectSocketsAndConnections(gdb);
}

TEST_F(GdbTest, PrintersShowWhatACoreFileHolds)
{
    const Gdb gdb(Debug::Both);
    gdb.MakeCore();
    ExpectEverything(gdb);
}

TEST_F(GdbTest, PrintersWorkOnTheProgramsDebugInformation)
{
    const Gdb gdb(Debug::OnlyProgram);
    gdb.MakeCore();
    ExpectEverything(gdb);
}

TEST_F(GdbTest, PrintersWorkOnTheLibrarysDebugInformation)
{
    const Gdb gdb(Debug::OnlyLibrary);
    gdb.MakeCore();
    const auto values = gdb.Print({"*(int*)&'subject::mainThread'",
                                   "*(VelaHost_OS::ThreadMutex*)&'subject::heldMutex'",
                                   "*(VelaHost_Utility::PropertiesEx*)&'subject::sections'",
                                   "**(VelaHost_Utility::Exception**)&'subject::systemFailure'"});
    EXPECT_EQ(values[1], "held by thread 1 (LWP " + values[0] + "); 1 lock, 0 unlocks");
    EXPECT_THAT(values[2], StartsWith("1 property, 2 sections = {[\"Mode\"] = number 2 (0x2), "));
    EXPECT_EQ(values[3], "SystemException 0x2002 \"SystemException(SysErr=0x10)\", "
                         "errno 16 (EBUSY) at src/somewhere:68");
    const std::string timers = gdb.RunOnCore({"info velahost-timers"});
    EXPECT_THAT(timers, HasSubstr(": 4 requests pending; "));
    EXPECT_THAT(timers, ContainsRegex("\n +180[0-9]+ +\\+[0-9]+ +\\(subject::OwnRequestHandler "
                                      "\\*\\) 0x[0-9a-f]+\n"));
    EXPECT_THAT(timers, HasSubstr("calls (subject::Blinker *) 0x"));
    EXPECT_THAT(timers, ::testing::Not(HasSubstr("warning: RTTI")));
}

/// The lines of the table, in order: expiry, milliseconds from now, interval and handler.
std::vector<std::smatch> Rows(const std::vector<std::string>& lines)
{
    std::vector<std::smatch> rows;
    for (const std::string& line : lines) {
        std::smatch row;
        if (std::regex_match(line, row,
                             std::regex(" +([0-9]+) +([-+][0-9]+) +((?:every|once) [0-9]+|) *"
                                        "((?:none|\\(|timer).*)"))) {
            rows.push_back(row);
        }
    }
    return rows;
}

TEST_F(GdbTest, InfoTimersCountsFromTheTimeOfTheCoreFile)
{
    const Gdb gdb(Debug::Both);
    gdb.MakeCore();
    const std::int64_t start =
        std::stoll(gdb.Print("((VelaHost_OS::TimerQueue*)subject::queue)->m_StartTime"));
    const std::int64_t written = start + 5'000'600'000; // 5001 ms on the queue's clock.
    const timespec time{static_cast<std::time_t>(written / 1'000'000'000),
                        static_cast<long>(written % 1'000'000'000)};
    const timespec times[] = {time, time};
    ASSERT_EQ(utimensat(AT_FDCWD, gdb.GetCore().c_str(), times, 0), 0);

    const std::string output = gdb.RunOnCore({"info velahost-timers"});
    EXPECT_THAT(output, ContainsRegex("Timer queue 0x[0-9a-f]+: 4 requests pending; clock 5001 ms "
                                      "when the core file was last written; "));
    const auto lines = SplitLines(output);
    const auto rows = Rows(lines);
    ASSERT_EQ(rows.size(), 4U) << output;
    const std::int64_t intervals[] = {1'800'000, 3'600'000, 7'200'000, 86'400'000};
    const char* const shown[] = {"", "every 3600000", "once 7200000", ""};
    const std::string blinker = "\\(subject::Blinker \\*\\) 0x[0-9a-f]+";
    const std::string handlers[] = {"\\(subject::OwnRequestHandler \\*\\) 0x[0-9a-f]+",
                                    "timer 0x[0-9a-f]+ calls " + blinker,
                                    "timer 0x[0-9a-f]+ calls none", "none"};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const std::int64_t expiry = std::stoll(rows[i][1]);
        EXPECT_GE(expiry, intervals[i]);
        EXPECT_EQ(std::stoll(rows[i][2]), expiry - 5001);
        EXPECT_EQ(rows[i][3], shown[i]);
        EXPECT_THAT(rows[i][4].str(), MatchesRegex(handlers[i]));
    }
}

TEST_F(GdbTest, InfoTimersTakesAQueueOrSaysWhyNot)
{
    const Gdb gdb(Debug::Both);
    gdb.MakeCore();
    const std::string output = gdb.RunOnCore(
        {"info velahost-timers subject::unusedQueue", "info velahost-timers subject::queue",
         "info velahost-timers subject::settings", "info velahost-timers nonsense"});
    EXPECT_THAT(output, ContainsRegex(": 0 requests pending; clock -?[0-9]+ ms .*; no thread yet; "
                                      "lock free\n.*: 4 requests pending; "));
    EXPECT_THAT(output, HasSubstr("\nThat is not a VelaHost_OS::TimerQueue.\n"));
    EXPECT_THAT(output, HasSubstr("\nThe timer queue can't be found: No symbol \"nonsense\""));
}

TEST_F(GdbTest, ALiveProcessHasItsClockAndPeers)
{
    const Gdb gdb(Debug::Both);
    const std::string output = gdb.RunOnProcess(
        {"info velahost-timers", "print subject::clientPort", "print subject::socketManager"});
    EXPECT_THAT(output, ContainsRegex(": 4 requests pending; clock [0-9]+ ms now; "));
    std::smatch port;
    ASSERT_TRUE(std::regex_search(output, port, std::regex("\\$1 = ([0-9]+)"))) << output;
    EXPECT_THAT(output, HasSubstr("peer 127.0.0.1:" + port[1].str() + ", 12 of 2048"));
}

TEST_F(GdbTest, InfoTimersSaysWhenNoTimerHasBeenUsed)
{
    const Gdb gdb(Debug::Both);
    EXPECT_THAT(gdb.RunOnProcess({"info velahost-timers"}, "start"),
                HasSubstr("\nNo timer has been used.\n"));
}

} // namespace
