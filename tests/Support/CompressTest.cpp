// CompressTest.cpp - the data compressor, reached as other modules reach it: through the registry.
#include "Compress.h"
#include "DynFunc.h"
#include "TestHelpers.h"

#include <QDir>
#include <QProcess>

#ifndef Q_OS_WIN
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <zlib.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include <memory>
#include <random>
#include <vector>

namespace {

DataCompressor* noCompressor() { return nullptr; }
makeDataCompressor_t makeDataCompressor = &noCompressor;
RegisterDynFuncCall s_slot(&makeDataCompressor, "makeDataCompressor", false, "tests/CompressTest", 18);

std::unique_ptr<DataCompressor> make() { return std::unique_ptr<DataCompressor>(makeDataCompressor()); }

std::string randomText(size_t n)
{
    std::mt19937 random(7);
    std::string s;
    const char* words[] = {"R1 ", "a ", "b ", "1k\n", ".model ", "NMOS ", "(vto=0.7)\n"};
    while (s.size() < n)
        s += words[random() % 7];
    s.resize(n);
    return s;
}

} // namespace

class Compress : public TempDirTest {};

TEST_F(Compress, IsOfferedAsMakeDataCompressor)
{
    EXPECT_EQ(sp_FindDynFuncDef("makeDataCompressor"), reinterpret_cast<DynFuncPtr>(&sp_MakeDataCompressor));
    EXPECT_EQ(makeDataCompressor, &sp_MakeDataCompressor);
    auto c = make();
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->size(), 0);
}

TEST_F(Compress, SaveOfNothingLoadsAsNothing)
{
    auto c = make();
    ASSERT_TRUE(c->save(YString(path("empty.z").c_str())));
    EXPECT_EQ(readFileBytes(path("empty.z")), std::string(4, '\0'));
    auto d = make();
    d->load(YString(path("empty.z").c_str()));
    EXPECT_EQ(d->size(), 0);
}

TEST_F(Compress, AppendSaveLoadGivesTheSameBytes)
{
    std::string text = randomText(200000);
    text[100] = '\0';
    auto c = make();
    c->append(text.data(), 100000);
    c->append(text.data() + 100000, static_cast<int>(text.size()) - 100000);
    ASSERT_TRUE(c->save(YString(path("data.z").c_str())));
    EXPECT_EQ(c->size(), 200000); // the buffer keeps its uncompressed content
    EXPECT_LT(readFileBytes(path("data.z")).size(), text.size() / 2);
    auto d = make();
    d->load(YString(path("data.z").c_str()));
    ASSERT_EQ(d->size(), 200000);
    EXPECT_EQ(std::string(d->data(), 200000), text);
}

TEST_F(Compress, FileFormatIsLengthThenZlibStream)
{
    std::string text = randomText(5000);
    auto c = make();
    c->append(text.data(), static_cast<int>(text.size()));
    ASSERT_TRUE(c->save(YString(path("fmt.z").c_str())));
    std::string bytes = readFileBytes(path("fmt.z"));
    ASSERT_GE(bytes.size(), 6u);
    EXPECT_EQ(bytes.substr(0, 4), std::string("\x00\x00\x13\x88", 4)); // 5000 big-endian
    EXPECT_EQ(static_cast<unsigned char>(bytes[4]), 0x78);            // zlib header
#ifdef PYTHON3_EXECUTABLE
    QProcess python;
    python.start(QStringLiteral(PYTHON3_EXECUTABLE),
                 {QStringLiteral("-c"),
                  QStringLiteral("import sys,zlib; d=open(sys.argv[1],'rb').read(); "
                                 "n=int.from_bytes(d[:4],'big'); u=zlib.decompress(d[4:]); "
                                 "assert len(u)==n; sys.stdout.buffer.write(u)"),
                  QString::fromStdString(path("fmt.z"))});
    ASSERT_TRUE(python.waitForFinished(30000));
    EXPECT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    EXPECT_EQ(python.readAllStandardOutput().toStdString(), text);
#else
    GTEST_SKIP() << "Wine starts Windows programs only: the host's python3 cannot read the file from this test";
#endif
}

// The file holds exactly what qCompress at the default level gives, whatever the size.
TEST_F(Compress, SaveWritesWhatQCompressGives)
{
    const std::string text = randomText(400000);
    for (const int size : {1, 2, 100, 16383, 16384, 16385, 65536, 123457, 400000}) {
        auto c = make();
        c->append(text.data(), size);
        ASSERT_TRUE(c->save(YString(path("same.z").c_str())));
        const QByteArray expected = qCompress(QByteArray(text.data(), size), -1);
        EXPECT_EQ(readFileBytes(path("same.z")), std::string(expected.constData(), static_cast<size_t>(expected.size())))
            << size;
    }
}

// Data past the size whose compressed form qCompress can hold in an int (some 2.1 GB) is saved whole:
// its length, then a zlib stream of all of it.
TEST_F(Compress, DataPastTwoGigabytesIsSavedWhole)
{
#if defined(SUPPORTQT_TEST_ASAN)
    GTEST_SKIP() << "the sanitizer's checks of 2 GB of copies take minutes";
#else
    const int total = 2127000000;
    if (sizeof(void*) < 8)
        GTEST_SKIP() << "a 32-bit process cannot hold 2 GB in one buffer";
    auto c = make();
    const std::string slice(64 << 20, '\0');
    while (c->size() < total)
        c->append(slice.data(), std::min(static_cast<int>(slice.size()), total - c->size()));
    ASSERT_EQ(c->size(), total);
    ASSERT_TRUE(c->save(YString(path("big.z").c_str())));
    c.reset();
    FILE* f = std::fopen(path("big.z").c_str(), "rb");
    ASSERT_NE(f, nullptr);
    unsigned char length[4] = {};
    ASSERT_EQ(std::fread(length, 1, 4, f), 4u);
    EXPECT_EQ((static_cast<unsigned>(length[0]) << 24) | (length[1] << 16) | (length[2] << 8) | length[3],
              static_cast<unsigned>(total));
    // The stream, read back a block at a time: all of the data, zeros, and then its end.
    z_stream z{};
    ASSERT_EQ(inflateInit(&z), Z_OK);
    std::vector<unsigned char> in(1 << 16), out(1 << 20);
    long long produced = 0;
    bool zeros = true;
    int status = Z_OK;
    while (status == Z_OK) {
        if (z.avail_in == 0) {
            z.avail_in = static_cast<uInt>(std::fread(in.data(), 1, in.size(), f));
            z.next_in = in.data();
            if (z.avail_in == 0)
                break;
        }
        z.next_out = out.data();
        z.avail_out = static_cast<uInt>(out.size());
        status = inflate(&z, Z_NO_FLUSH);
        const size_t got = out.size() - z.avail_out;
        zeros = zeros && std::all_of(out.begin(), out.begin() + static_cast<long>(got), [](unsigned char b) { return b == 0; });
        produced += static_cast<long long>(got);
    }
    inflateEnd(&z);
    std::fclose(f);
    EXPECT_EQ(status, Z_STREAM_END);
    EXPECT_EQ(produced, total);
    EXPECT_TRUE(zeros);
#endif
}

TEST_F(Compress, LoadAppendsBeforeItDecompresses)
{
    auto c = make();
    c->append("payload", 7);
    ASSERT_TRUE(c->save(YString(path("p.z").c_str())));
    auto d = make();
    d->append("junk", 4);
    d->load(YString(path("p.z").c_str()));
    EXPECT_EQ(d->size(), 0); // "junk" + file is not one compressed block
}

TEST_F(Compress, BadFilesLeaveAnEmptyBufferOrNothing)
{
    auto c = make();
    c->append("kept", 4);
    c->load(YString(path("missing.z").c_str()));
    EXPECT_EQ(std::string(c->data(), static_cast<size_t>(c->size())), "kept");

    writeFileBytes(path("text.z"), "this is not compressed data at all");
    auto d = make();
    d->load(YString(path("text.z").c_str()));
    EXPECT_EQ(d->size(), 0);

    // Claims 4 GB from a few bytes: empty, as qUncompress gives, without allocating it.
    writeFileBytes(path("huge.z"), std::string("\xFF\xFF\xFF\xF0\x78\x9C\x03\x00\x00\x00\x00\x01", 12));
    auto e = make();
    e->load(YString(path("huge.z").c_str()));
    EXPECT_EQ(e->size(), 0);

    // A truncated stream.
    auto f = make();
    std::string text = randomText(10000);
    f->append(text.data(), static_cast<int>(text.size()));
    ASSERT_TRUE(f->save(YString(path("t.z").c_str())));
    std::string bytes = readFileBytes(path("t.z"));
    writeFileBytes(path("t.z"), bytes.substr(0, bytes.size() / 2));
    auto g = make();
    g->load(YString(path("t.z").c_str()));
    EXPECT_EQ(g->size(), 0);

    writeFileBytes(path("short.z"), "ab");
    auto h = make();
    h->load(YString(path("short.z").c_str()));
    EXPECT_EQ(h->size(), 0);
    EXPECT_FALSE(h->save(YString(path("no/dir/x.z").c_str())));
}

// A folder is a file that cannot be opened, on every system: loading it leaves the buffer as it was.
TEST_F(Compress, AFolderLeavesTheBufferAsItWas)
{
    auto c = make();
    c->append("kept", 4);
    c->load(YString(m_dir.c_str()));
    EXPECT_EQ(std::string(c->data(), static_cast<size_t>(c->size())), "kept");
    EXPECT_FALSE(c->save(YString(m_dir.c_str())));
}

#ifndef Q_OS_WIN
// A FIFO that no one writes is a file that cannot be opened: loading it returns at once and leaves the
// buffer as it was. A device opens, and its no bytes join the buffer, which then does not decompress.
TEST_F(Compress, AFifoLeavesTheBufferAsItWas)
{
    const std::string fifo = path("fifo.z");
    ASSERT_EQ(QProcess::execute("mkfifo", {QString::fromStdString(fifo)}), 0);
    auto c = make();
    c->append("kept", 4);
    c->load(YString(fifo.c_str()));
    EXPECT_EQ(std::string(c->data(), static_cast<size_t>(c->size())), "kept");
    auto d = make();
    d->append("kept", 4);
    d->load(YString("/dev/null"));
    EXPECT_EQ(d->size(), 0);
    // Nor is the buffer saved to one: there is no reader to wait for.
    EXPECT_FALSE(c->save(YString(fifo.c_str())));
    EXPECT_TRUE(d->save(YString("/dev/null")));
}
#endif

TEST_F(Compress, UnderstatedLengthStillDecompressesEverything)
{
    std::string text = randomText(3000);
    auto c = make();
    c->append(text.data(), static_cast<int>(text.size()));
    ASSERT_TRUE(c->save(YString(path("u.z").c_str())));
    std::string bytes = readFileBytes(path("u.z"));
    bytes[2] = 0;
    bytes[3] = 10; // claims 10 bytes
    writeFileBytes(path("u.z"), bytes);
    auto d = make();
    d->load(YString(path("u.z").c_str()));
    EXPECT_EQ(std::string(d->data(), static_cast<size_t>(d->size())), text);
}

// The claimed length is a size hint only: load gives exactly what qUncompress gives for the same bytes.
TEST_F(Compress, LoadGivesWhatQUncompressGives)
{
    const QByteArray abc = qCompress(QByteArray("abc"), -1);
    const QByteArray text = QByteArray::fromStdString(randomText(3000));
    const QByteArray compressedText = qCompress(text, -1);
    auto claiming = [](QByteArray block, quint32 claim) {
        block[0] = static_cast<char>(claim >> 24);
        block[1] = static_cast<char>(claim >> 16);
        block[2] = static_cast<char>(claim >> 8);
        block[3] = static_cast<char>(claim);
        return block;
    };
    struct Case {
        const char* what;
        QByteArray block;
        QByteArray expected;
    };
    const Case cases[] = {
        {"abc claiming 100000", claiming(abc, 100000), "abc"},
        {"abc claiming 0", claiming(abc, 0), "abc"},
        {"text claiming 10", claiming(compressedText, 10), text},
        {"text claiming 1", claiming(compressedText, 1), text},
        {"abc claiming 4 GB", claiming(abc, 0xFFFFFFFFu), QByteArray()},
        {"abc claiming 2 GB", claiming(abc, 0x80000000u), QByteArray()},
        {"nothing but a length", QByteArray("\0\0\0\3", 4), QByteArray()},
        {"abc and trailing bytes", abc + "trailing", "abc"},
    };
    int n = 0;
    for (const Case& c : cases) {
        const std::string file = path("c" + std::to_string(n++) + ".z");
        writeFileBytes(file, c.block.toStdString());
        auto d = make();
        d->load(YString(file.c_str()));
        const QByteArray loaded(d->data(), d->size());
        EXPECT_EQ(loaded, c.expected) << c.what;
        EXPECT_EQ(loaded, qUncompress(c.block)) << c.what;
    }
}

#ifndef Q_OS_WIN
// Save reports whether the file could be opened: a device that refuses every byte still gives true.
#ifndef Q_OS_WIN
// A small file that expands to more than memory holds leaves an empty buffer, and an append that memory
// cannot hold leaves the buffer as it was: nothing is thrown to the caller. The child may map 256 MiB
// more than it starts with; the file's 1.8 GB of zeros need more.
TEST_F(Compress, MemoryThatRunsOutThrowsNothing)
{
#if defined(SUPPORTQT_TEST_ASAN)
    GTEST_SKIP() << "the sanitizer reserves memory of its own that the limit would count";
#endif
    // The zeros are deflated in slices, never held whole: the claimed length, then the zlib stream.
    const unsigned long long total = 1800000000ULL;
    std::string file{static_cast<char>(total >> 24), static_cast<char>(total >> 16), static_cast<char>(total >> 8),
                     static_cast<char>(total)};
    z_stream z{};
    ASSERT_EQ(deflateInit(&z, Z_DEFAULT_COMPRESSION), Z_OK);
    const std::string zeros(1 << 20, '\0');
    std::vector<char> out(1 << 16);
    for (unsigned long long done = 0; done < total;) {
        const unsigned long long slice = std::min<unsigned long long>(zeros.size(), total - done);
        done += slice;
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
        z.avail_in = static_cast<uInt>(slice);
        const int flush = done == total ? Z_FINISH : Z_NO_FLUSH;
        do {
            z.next_out = reinterpret_cast<Bytef*>(out.data());
            z.avail_out = static_cast<uInt>(out.size());
            ASSERT_NE(deflate(&z, flush), Z_STREAM_ERROR);
            file.append(out.data(), out.size() - z.avail_out);
        } while (z.avail_out == 0);
    }
    deflateEnd(&z);
    writeFileBytes(path("bomb.z"), file);
    bool ran = false;
    int status = 0;
    const std::string report = reportFromLimitedChild(size_t(256) << 20, [&] {
        std::unique_ptr<DataCompressor> c = make();
        c->load(YString(path("bomb.z").c_str()));
        std::string result = std::to_string(c->size());
        c->append("kept", 4);
        // Sixteen slices of 32 MiB are more than the child may map: the appends that do not fit are
        // dropped whole, and what was appended before stays.
        const std::string slice(32 << 20, 'x');
        for (int i = 0; i < 16; ++i)
            c->append(slice.data(), static_cast<int>(slice.size()));
        const long long appended = c->size() - 4LL;
        result += " " + std::string(c->data(), 4) + " " + std::to_string(appended % static_cast<long long>(slice.size())) + " " +
                  std::to_string(appended < 16LL * static_cast<long long>(slice.size()));
        return result;
    }, &ran, &status);
    ASSERT_TRUE(ran) << "child status " << status;
    EXPECT_EQ(report, "0 kept 0 1");
}
#endif

TEST_F(Compress, SaveReportsTheOpenNotTheWrite)
{
    auto c = make();
    const std::string text = randomText(100000);
    c->append(text.data(), static_cast<int>(text.size()));
    EXPECT_TRUE(c->save(YString("/dev/full")));
    EXPECT_FALSE(c->save(YString(path("no/dir/x.z").c_str())));
    EXPECT_EQ(c->size(), 100000);
}

// A save whose write fails part way (a file-size limit in a child process, as a full disk would) leaves
// the file that was there byte for byte and no other file; the result still says it could be opened.
TEST_F(Compress, SaveThatFailsPartWayLeavesTheOldFile)
{
    writeFileBytes(path("old.z"), "the user's file\n");
    std::mt19937 random(11);
    std::string noise(200000, '\0');
    for (char& b : noise)
        b = static_cast<char>(random());
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit = {16384, 16384};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            ::_exit(3);
        std::unique_ptr<DataCompressor> c = make();
        c->append(noise.data(), static_cast<int>(noise.size()));
        ::_exit(c->save(YString(path("old.z").c_str())) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string kept = readFileBytes(path("old.z"));
    EXPECT_TRUE(kept == "the user's file\n") << kept.size() << " bytes";
    EXPECT_EQ(QDir(QString::fromStdString(path(""))).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              QStringList{QStringLiteral("old.z")});
    // Without the limit the same save replaces it.
    auto c = make();
    c->append(noise.data(), static_cast<int>(noise.size()));
    EXPECT_TRUE(c->save(YString(path("old.z").c_str())));
    auto d = make();
    d->load(YString(path("old.z").c_str()));
    EXPECT_TRUE(std::string(d->data(), static_cast<size_t>(d->size())) == noise) << d->size() << " bytes";
}
#endif
