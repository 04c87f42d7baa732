// SpawnOutcomeTest.cpp - what sp_SpawnApplication records of a launch: how the child ended (its exit
// code, or the signal that killed it), how much captured output was kept under the limit and how much
// was dropped; output passed through to this process's own channels.
#include "Processes.h"
#include "SpawnOutcome.h"
#include "TestHelpers.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <string>

#ifndef Q_OS_WIN
#include <fcntl.h>
#include <unistd.h>
#endif

namespace {

class SpawnOutcomeTest : public TempDirTest {
protected:
    // Copies the child program under `name` with its steps beside it; returns the quoted command line.
    std::string child(const std::string& name, const std::string& steps)
    {
#ifdef Q_OS_WIN
        const std::string p = path(name + ".exe");
#else
        const std::string p = path(name);
#endif
        EXPECT_TRUE(QFile::copy(QStringLiteral(CHILD_PROGRAM_PATH), QString::fromStdString(p))) << p;
        QFile::setPermissions(QString::fromStdString(p), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        writeFileBytes(path(name + ".steps"), steps + "\n");
        return "\"" + p + "\"";
    }
    void TearDown() override
    {
        sp_SetSpawnCaptureLimit(-1);
        TempDirTest::TearDown();
    }
};

const long long kMiB = 1LL << 20;

TEST_F(SpawnOutcomeTest, TheLimitIsPerThreadWithADefaultOf256MiB)
{
    EXPECT_EQ(sp_SpawnCaptureLimit(), 256 * kMiB);
    sp_SetSpawnCaptureLimit(5);
    EXPECT_EQ(sp_SpawnCaptureLimit(), 5);
    sp_SetSpawnCaptureLimit(0);
    EXPECT_EQ(sp_SpawnCaptureLimit(), 0);
    sp_SetSpawnCaptureLimit(-7);
    EXPECT_EQ(sp_SpawnCaptureLimit(), 256 * kMiB);
}

TEST_F(SpawnOutcomeTest, CapturedOutputBeyondTheLimitIsReadAndDropped)
{
    // Three blocks of one mebibyte each (1,048,575 'x' and a line feed), then exit code 5.
    const std::string flood = child("flood", "flood 3\nexit 5");
    sp_SetSpawnCaptureLimit(kMiB + 10);
    auto* text = new kvstrstream("");
    YRef<kvstream> output(text);
    unsigned code = 0;
    ASSERT_EQ(sp_SpawnApplication(flood.c_str(), SpawnWait | SpawnCaptureOutput | SpawnCaptureError, output, &code, nullptr), SSPE_Ok);
    EXPECT_EQ(code, 5u);
    const std::string kept = text->str().str();
    ASSERT_EQ(static_cast<long long>(kept.size()), kMiB + 10);
    EXPECT_EQ(kept.substr(kMiB - 2, 3), "x\nx");
    const SpawnOutcome o = sp_LastSpawnOutcome();
    EXPECT_TRUE(o.ended);
    EXPECT_FALSE(o.crashed);
    EXPECT_EQ(o.signal, 0);
    EXPECT_EQ(o.exitCode, 5u);
    EXPECT_EQ(o.keptBytes, kMiB + 10);
    EXPECT_EQ(o.discardedBytes, 2 * kMiB - 10);

    // Under the limit everything is kept and nothing dropped.
    sp_SetSpawnCaptureLimit(-1);
    auto* whole = new kvstrstream("");
    YRef<kvstream> wholeOutput(whole); // the stream lives as long as its last reference
    ASSERT_EQ(sp_SpawnApplication(flood.c_str(), SpawnWait | SpawnCaptureOutput, wholeOutput, &code, nullptr), SSPE_Ok);
    EXPECT_EQ(static_cast<long long>(whole->str().str().size()), 3 * kMiB);
    EXPECT_EQ(sp_LastSpawnOutcome().keptBytes, 3 * kMiB);
    EXPECT_EQ(sp_LastSpawnOutcome().discardedBytes, 0);
}

TEST_F(SpawnOutcomeTest, EachCallReplacesTheRecord)
{
    const std::string quick = child("quick", "out hello\nexit 3");
    unsigned code = 0;
    ASSERT_EQ(sp_SpawnApplication(quick.c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr), SSPE_Ok);
    EXPECT_EQ(sp_LastSpawnOutcome().exitCode, 3u);
    EXPECT_TRUE(sp_LastSpawnOutcome().ended);
    EXPECT_EQ(sp_LastSpawnOutcome().keptBytes, 0); // nothing captured
    // Captured without an output stream: read, and dropped, never copied ("hello" and the system's line end).
    auto* said = new kvstrstream("");
    YRef<kvstream> saidOutput(said);
    ASSERT_EQ(sp_SpawnApplication(quick.c_str(), SpawnWait | SpawnCaptureOutput, saidOutput, &code, nullptr), SSPE_Ok);
    const long long written = static_cast<long long>(said->str().str().size());
    EXPECT_EQ(sp_LastSpawnOutcome().keptBytes, written);
    ASSERT_EQ(sp_SpawnApplication(quick.c_str(), SpawnWait | SpawnCaptureOutput, YRef<kvstream>(), &code, nullptr), SSPE_Ok);
    EXPECT_EQ(sp_LastSpawnOutcome().keptBytes, 0);
    EXPECT_EQ(sp_LastSpawnOutcome().discardedBytes, written);
    EXPECT_GE(written, 6);
    // A launch that is refused leaves an empty record.
    EXPECT_EQ(sp_SpawnApplication(quick.c_str(), SpawnWait | SpawnNewConsole, YRef<kvstream>(), &code, nullptr), SSPE_NotSupported);
    EXPECT_FALSE(sp_LastSpawnOutcome().ended);
    EXPECT_EQ(sp_LastSpawnOutcome().exitCode, 0u);
    // Without waiting the end is not known.
    const std::string held = child("held", "waitfor " + path("go") + "\nexit 3");
    int pid = -1;
    ASSERT_EQ(sp_SpawnApplication(held.c_str(), 0, YRef<kvstream>(), &code, &pid), SSPE_Ok);
    EXPECT_FALSE(sp_LastSpawnOutcome().ended);
    EXPECT_FALSE(sp_LastSpawnOutcome().crashed);
    writeFileBytes(path("go"), "");
}

#ifndef Q_OS_WIN
TEST_F(SpawnOutcomeTest, AChildKilledByASignalIsToldApartFromOneThatExits)
{
    unsigned code = 0;
    ASSERT_EQ(sp_SpawnApplication(child("killed", "signal 15\nexit 0").c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr), SSPE_Ok);
    const SpawnOutcome killed = sp_LastSpawnOutcome();
    EXPECT_TRUE(killed.crashed);
    EXPECT_EQ(killed.signal, 15);
    EXPECT_EQ(code, 15u); // the launcher's exit code is the signal's number, as Qt gives it
    // The older launcher gives the same number, never the 0 of a child that ended well.
    code = 0;
    ASSERT_EQ(sp_OldSpawnApplication(child("killed-old", "signal 15\nexit 0").c_str(), SpawnWait, &code, nullptr), SSPE_Ok);
    EXPECT_EQ(code, 15u);
    ASSERT_EQ(sp_SpawnApplication(child("exits", "exit 15").c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr), SSPE_Ok);
    const SpawnOutcome exited = sp_LastSpawnOutcome();
    EXPECT_FALSE(exited.crashed);
    EXPECT_EQ(exited.signal, 0);
    EXPECT_EQ(exited.exitCode, 15u);
    EXPECT_EQ(code, 15u);
}

// Output that is not captured reaches this process's own channels: here they are files for the
// duration of the call.
TEST_F(SpawnOutcomeTest, PassThroughWritesToThisProcesssOwnChannels)
{
    const std::string talker = child("talker", "out to standard output\nerr to standard error\nexit 0");
    const auto redirected = [&](int flags, std::string* out, std::string* err, std::string* captured) {
        std::fflush(stdout);
        std::fflush(stderr);
        const int savedOut = ::dup(1), savedErr = ::dup(2);
        const int fileOut = ::open(path("out.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int fileErr = ::open(path("err.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fileOut, 1);
        ::dup2(fileErr, 2);
        auto* text = new kvstrstream("");
        YRef<kvstream> output(text);
        unsigned code = 9;
        const SSPError status = sp_SpawnApplication(talker.c_str(), SpawnWait | flags, output, &code, nullptr);
        ::dup2(savedOut, 1);
        ::dup2(savedErr, 2);
        for (int fd : {savedOut, savedErr, fileOut, fileErr})
            ::close(fd);
        *out = readFileBytes(path("out.txt"));
        *err = readFileBytes(path("err.txt"));
        *captured = text->str().str();
        EXPECT_EQ(status, SSPE_Ok);
        EXPECT_EQ(code, 0u);
    };
    std::string out, err, captured;
    redirected(SpawnPassThrough, &out, &err, &captured);
    EXPECT_EQ(out, "to standard output\n");
    EXPECT_EQ(err, "to standard error\n");
    EXPECT_EQ(captured, "");
    // A captured channel is captured, the other one passes through.
    redirected(SpawnPassThrough | SpawnCaptureError, &out, &err, &captured);
    EXPECT_EQ(out, "to standard output\n");
    EXPECT_EQ(err, "");
    EXPECT_EQ(captured, "to standard error\n");
    redirected(SpawnPassThrough | SpawnCaptureOutput, &out, &err, &captured);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "to standard error\n");
    EXPECT_EQ(captured, "to standard output\n");
    // Closing wins over passing through; without either, output is dropped.
    redirected(SpawnPassThrough | SpawnCloseUncaptured, &out, &err, &captured);
    EXPECT_EQ(out + err + captured, "");
    redirected(0, &out, &err, &captured);
    EXPECT_EQ(out + err + captured, "");
}

// Passed through, the input is this process's also when the uncaptured outputs are closed: a child that
// reads its input to the end gets it (and does not wait for ever on a pipe that no one writes).
TEST_F(SpawnOutcomeTest, PassThroughGivesTheInputAlsoWhenOutputsAreClosed)
{
    const std::string echo = child("echo", "echoin\nexit 0");
    writeFileBytes(path("in.txt"), "hello\n");
    const int savedIn = ::dup(0);
    const int fileIn = ::open(path("in.txt").c_str(), O_RDONLY);
    ::dup2(fileIn, 0);
    auto* text = new kvstrstream("");
    YRef<kvstream> output(text);
    unsigned code = 9;
    const SSPError status = sp_SpawnApplication(echo.c_str(), SpawnWait | SpawnPassThrough | SpawnCloseUncaptured | SpawnCaptureOutput,
                                                output, &code, nullptr);
    ::dup2(savedIn, 0);
    ::close(savedIn);
    ::close(fileIn);
    EXPECT_EQ(status, SSPE_Ok);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(text->str().str(), "hello\n");
}
#endif

} // namespace
