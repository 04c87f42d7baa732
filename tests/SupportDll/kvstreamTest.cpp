// kvstreamTest.cpp - buffered streams over files and memory.
#include "FileServices.h"
#include "TestHelpers.h"
#include "kvstream.h"

#include <climits>
#include <string>

namespace {
std::string readAll(kvstream& s)
{
    std::string out;
    for (int c = s.get(); c != -1; c = s.get())
        out.push_back(static_cast<char>(c));
    return out;
}
} // namespace

class kvstreamFile : public TempDirTest {};

TEST(kvstrstream, ReadsBytesThenEndOfInput)
{
    kvstrstream s("a\xFF" "b");
    EXPECT_EQ(s.get(), 'a');
    EXPECT_EQ(s.get(), 0xFF);
    EXPECT_EQ(s.get(), 'b');
    EXPECT_EQ(s.get(), -1);
    EXPECT_EQ(s.get(), -1);
}

TEST(kvstrstream, SeeksAndTells)
{
    kvstrstream s("0123456789");
    EXPECT_EQ(s.seekg(7), 0);
    EXPECT_EQ(s.tellg(), 7);
    EXPECT_EQ(s.get(), '7');
    EXPECT_EQ(s.seekg(0), 0);
    EXPECT_EQ(s.get(), '0');
    EXPECT_EQ(s.seekg(11), -1);
    EXPECT_EQ(s.seekg(-1), -1);
    EXPECT_EQ(s.seekg(10), 0);
    EXPECT_EQ(s.get(), -1);
}

TEST(kvstrstream, WritesAppendAndStayReadable)
{
    kvstrstream s("");
    EXPECT_EQ(s.write("hello ", 6), 6u);
    EXPECT_EQ(s.write("world"), 5u);
    EXPECT_EQ(s.str(), "hello world");
    EXPECT_EQ(readAll(s), "hello world");
    s.write("!");
    EXPECT_EQ(readAll(s), "!");
}

TEST(kvstream, TransferBufferMovesTheOpenInput)
{
    kvstrstream source("abc");
    EXPECT_EQ(source.get(), 'a');
    kvstream* target = new kvstream;
    kvstream::transferBuffer(&source, target);
    EXPECT_EQ(source.get(), -1);
    EXPECT_FALSE(source.isOpen());
    EXPECT_EQ(target->get(), 'b');
    EXPECT_EQ(target->get(), 'c');
    EXPECT_EQ(target->get(), -1);
    delete target;
}

TEST(kvstream, DefaultStreamIsEmpty)
{
    kvstream s;
    EXPECT_EQ(s.get(), -1);
    EXPECT_EQ(s.seekg(0), -1);
    EXPECT_EQ(s.write("x"), 0u);
    EXPECT_EQ(s.getCharCount(), 0);
    EXPECT_FALSE(s.getFlag());
}

TEST(kvstream, Base64SectionDecodesAndCounts)
{
    kvstrstream s("x SGVs\nbG8= y");
    EXPECT_EQ(s.get(), 'x');
    s.openBase64();
    EXPECT_TRUE(s.getFlag());
    EXPECT_TRUE(s.keepsOwnCount());
    std::string decoded;
    for (int i = 0; i < 5; ++i)
        decoded.push_back(static_cast<char>(s.get()));
    EXPECT_EQ(decoded, "Hello");
    EXPECT_EQ(s.getCharCount(), 5);
    s.closeBase64();
    EXPECT_FALSE(s.getFlag());
    EXPECT_EQ(readAll(s), "= y");
}

// A seek in a base64 section decodes afresh from the new place, whatever bits the old one left.
TEST(kvstream, Base64SeekDecodesAfreshFromThere)
{
    kvstrstream s("QUJDREVG");
    s.openBase64();
    EXPECT_EQ(s.get(), 'A');
    EXPECT_EQ(s.seekg(0), 0);
    EXPECT_EQ(s.get(), 'A');
    EXPECT_EQ(s.get(), 'B');
    EXPECT_EQ(s.seekg(4), 0);
    std::string rest;
    for (int c = s.get(); c != -1; c = s.get())
        rest.push_back(static_cast<char>(c));
    EXPECT_EQ(rest, "DEF");
}

// The own count of a base64 section stops at INT_MAX rather than wrapping below zero.
TEST(kvstream, Base64CountStopsAtIntMax)
{
    struct CountedStream : kvstrstream {
        using kvstrstream::kvstrstream;
        using kvstream::setOwnCount;
    } s("SGVsbG8=");
    s.openBase64();
    s.setOwnCount(INT_MAX - 2);
    std::string decoded;
    for (int i = 0; i < 5; ++i)
        decoded.push_back(static_cast<char>(s.get()));
    EXPECT_EQ(decoded, "Hello");
    EXPECT_EQ(s.getCharCount(), INT_MAX);
    EXPECT_EQ(s.get(), -1);
    EXPECT_EQ(s.getCharCount(), INT_MAX);
}

TEST_F(kvstreamFile, ReadsLargeFileAcrossBuffers)
{
    std::string content;
    for (int i = 0; i < 300000; ++i)
        content.push_back(static_cast<char>(i % 251));
    writeFileBytes(path("big.bin"), content);
    kvfstream f(path("big.bin").c_str(), kvfstreamRead | kvfstreamBinary, false);
    EXPECT_TRUE(f.isOpen());
    EXPECT_EQ(readAll(f), content);
    EXPECT_EQ(f.seekg(250000), 0);
    EXPECT_EQ(f.get(), 250000 % 251);
    EXPECT_EQ(f.tellg(), 250001);
}

TEST_F(kvstreamFile, MissingFileReadsAsEmpty)
{
    kvfstream f(path("missing.cir").c_str(), kvfstreamRead | kvfstreamBinary, false);
    EXPECT_EQ(f.get(), -1);
    kvfstream n(nullptr, kvfstreamRead | kvfstreamBinary, false);
    EXPECT_EQ(n.get(), -1);
}

TEST_F(kvstreamFile, WriteModeCreatesTheFile)
{
    {
        kvfstream f(path("out.txt").c_str(), kvfstreamWrite | kvfstreamBinary, false);
        EXPECT_EQ(f.write("line 1\n"), 7u);
    }
    EXPECT_EQ(readFileBytes(path("out.txt")), "line 1\n");
}

// Each write follows the one before, as a child's output comes in chunks.
TEST_F(kvstreamFile, WritesFollowEachOther)
{
    {
        kvfstream f(path("chunks.txt").c_str(), kvfstreamWrite | kvfstreamBinary, false);
        EXPECT_EQ(f.write("first chunk\n"), 12u);
        EXPECT_EQ(f.write("second\n"), 7u);
    }
    EXPECT_EQ(readFileBytes(path("chunks.txt")), "first chunk\nsecond\n");
    {
        kvfstream f(path("chunks.txt").c_str(), kvfstreamWrite | kvfstreamAppend | kvfstreamBinary, false);
        EXPECT_EQ(f.write("third\n"), 6u);
        EXPECT_EQ(f.write("fourth\n"), 7u);
    }
    EXPECT_EQ(readFileBytes(path("chunks.txt")), "first chunk\nsecond\nthird\nfourth\n");
}

TEST_F(kvstreamFile, RefCountedStreamIsDeletedWithItsLastReference)
{
    YRef<kvstream> ref(new kvstrstream("abc"));
    YRef<kvstream> other = ref;
    EXPECT_EQ(ref->refCount(), 2);
    other.reset();
    EXPECT_EQ(ref->get(), 'a');
}
