// ModelLibraryAllocationTest.cpp - the model-library index when memory runs out: each allocation of a
// call fails in turn, one per run, and the call gives the whole index or only the out-of-memory remark,
// never an exception. A program of its own, since it replaces the global allocation functions, and the
// library's allocations go through them only where shared objects share them (not Windows DLLs, not a
// sanitizer's runtime); it is built there only.
#include "ModelLibrary.h"
#include "TestHelpers.h"

#include <QByteArray>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

namespace {
// The number of allocations to let through before one fails; below zero, none fails.
std::atomic<long> g_allocationsLeft{-1};
} // namespace

void* operator new(std::size_t size)
{
    if (g_allocationsLeft.load(std::memory_order_relaxed) >= 0 && g_allocationsLeft.fetch_sub(1) == 0)
        throw std::bad_alloc();
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

// A library with every kind of statement, twelve parts' worth of definitions.
std::string library()
{
    std::string text = "* allocation test\n";
    for (int i = 0; i < 120; ++i) {
        const std::string n = std::to_string(i);
        text += ".model m" + n + " nmos (vth0=1\n* between\n+ u0=" + n + ")\n";
        text += ".subckt c" + n + " a b params: w=1\nX" + n + " a b c" + std::to_string(i / 2) + "\nM" + n + " a b 0 0 m" + n +
                "\n.ends\n";
        if (i % 10 == 0)
            text += ".lib s" + n + "\n.include \"f" + n + ".lib\"\n.param p" + n + "=1\n.model sm" + n + " d\n.endl\n.ends\n";
    }
    return text;
}

std::string summary(const ModelLibIndex& index)
{
    std::string out = std::to_string(index.size) + " " + std::to_string(index.lines) + " " + index.words;
    for (const ModelLibDefinition& d : index.definitions)
        out += " " + std::to_string(d.start) + "-" + std::to_string(d.end) + ":" + std::to_string(d.line) + "/" +
               std::to_string(d.parent) + "/" + std::to_string(d.section) + "@" + std::to_string(d.words);
    for (const ModelLibSection& s : index.sections)
        out += " " + s.name.str() + std::to_string(s.definitions.size()) + std::to_string(s.references.size());
    for (const ModelLibReference& r : index.references)
        out += " " + r.path.str() + std::to_string(r.line) + std::to_string(r.inSection);
    for (const ModelLibDiagnostic& d : index.diagnostics)
        out += " " + std::to_string(d.line) + d.message.str();
    return out;
}

bool onlyTheRemark(const ModelLibIndex& index)
{
    return index.definitions.empty() && index.sections.empty() && index.references.empty() && index.params.empty() &&
           index.words.empty() && index.diagnostics.size() == 1 && index.diagnostics[0].line == 0 &&
           index.diagnostics[0].message == "out of memory while indexing";
}

// Runs `index` with the n-th allocation failing, for n = 0, 1, ... until a run needs fewer; each run
// must give `whole` or only the remark. Returns how many runs failed an allocation.
template <class Index>
int failEachAllocation(const std::string& whole, Index&& index)
{
    int failed = 0;
    for (long n = 0; n < 100000; ++n) {
        ModelLibIndex result;
        g_allocationsLeft = n;
        bool threw = false;
        try {
            index(&result);
        } catch (...) {
            threw = true;
        }
        const bool reached = g_allocationsLeft.exchange(-1) < 0;
        EXPECT_FALSE(threw) << "allocation " << n;
        if (!reached) {
            EXPECT_EQ(summary(result), whole);
            break;
        }
        ++failed;
        if (!onlyTheRemark(result)) {
            EXPECT_EQ(summary(result), whole) << "allocation " << n;
        }
    }
    return failed;
}

class ModelLibraryAllocation : public TempDirTest {};

} // namespace

TEST_F(ModelLibraryAllocation, EveryFailedAllocationGivesTheIndexOrTheRemark)
{
    const std::string text = library();
    for (const char* parts : {"1", "3"}) {
        qputenv("SUPPORTQT_INDEX_PARTS", parts);
        ModelLibIndex reference;
        sp_IndexModelLibraryText(text.data(), text.size(), YString("/lib/a.lib"), SpiceLanguageNative, &reference);
        ASSERT_EQ(reference.definitions.size(), 252u);
        const std::string whole = summary(reference);
        const int failed = failEachAllocation(whole, [&](ModelLibIndex* index) {
            sp_IndexModelLibraryText(text.data(), text.size(), YString("/lib/a.lib"), SpiceLanguageNative, index);
        });
        EXPECT_GT(failed, 50) << parts << " parts";
    }
    qunsetenv("SUPPORTQT_INDEX_PARTS");
}

TEST_F(ModelLibraryAllocation, AFileIndexedInPartsGivesTheIndexOrTheRemarkAndOk)
{
    const std::string text = library();
    writeFileBytes(path("a.lib"), text);
    const YString file(path("a.lib").c_str());
    qputenv("SUPPORTQT_INDEX_PARTS", "4");
    ModelLibIndex reference;
    ASSERT_EQ(sp_IndexModelLibrary(file, SpiceLanguageNative, &reference), ModelLibStatus::Ok);
    const std::string whole = summary(reference);
    const int failed = failEachAllocation(whole, [&](ModelLibIndex* index) {
        // Running out of memory, at the open or later, is no reason to call the file unreadable.
        EXPECT_EQ(sp_IndexModelLibrary(file, SpiceLanguageNative, index), ModelLibStatus::Ok);
    });
    EXPECT_GT(failed, 50);
    qunsetenv("SUPPORTQT_INDEX_PARTS");
}

// A check that memory runs out in gives Unreadable and leaves the caller's list as it was, never half a
// list of problems; one that memory suffices for gives them all.
TEST_F(ModelLibraryAllocation, ACheckGivesUnreadableAndNoHalfList)
{
    writeFileBytes(path("dup.lib"), ".model m1 d\n.model m2 d\n.model m1 d\n.model m2 d\n");
    writeFileBytes(path("top.lib"), ".lib s1\n.include dup.lib\n.endl\n.lib s2\n.include dup.lib\n.endl\n.lib s3\n.include gone.lib\n.endl\n");
    const YString top(path("top.lib").c_str());
    std::vector<ModelLibProblem> whole;
    ASSERT_EQ(sp_CheckModelLibrary(top, YString(), SpiceLanguageNative, &whole), ModelLibStatus::Ok);
    ASSERT_EQ(whole.size(), 3u); // two duplicates, one missing file
    int unreadable = 0;
    for (long n = 0; n < 100000; ++n) {
        std::vector<ModelLibProblem> problems(1);
        problems[0].message = "earlier";
        g_allocationsLeft = n;
        ModelLibStatus status = ModelLibStatus::Ok;
        bool threw = false;
        try {
            status = sp_CheckModelLibrary(top, YString(), SpiceLanguageNative, &problems);
        } catch (...) {
            threw = true;
        }
        const bool reached = g_allocationsLeft.exchange(-1) < 0;
        EXPECT_FALSE(threw) << "allocation " << n;
        if (!reached) {
            EXPECT_EQ(status, ModelLibStatus::Ok);
            EXPECT_EQ(problems.size(), 4u);
            break;
        }
        if (status != ModelLibStatus::Ok) {
            ++unreadable;
            EXPECT_EQ(status, ModelLibStatus::Unreadable) << "allocation " << n;
            ASSERT_EQ(problems.size(), 1u) << "allocation " << n;
            EXPECT_EQ(problems[0].message, "earlier");
        } else {
            // Memory that ran out somewhere inside, in an index or a section's resolution, never passes
            // for a file with fewer problems.
            ASSERT_EQ(problems.size(), 4u) << "allocation " << n;
            for (size_t i = 0; i < whole.size(); ++i)
                EXPECT_EQ(problems[i + 1].message, whole[i].message) << "allocation " << n;
        }
    }
    EXPECT_GT(unreadable, 20);
}
