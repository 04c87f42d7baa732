// ContainersTest.cpp - YRef, YArray, YList, YVector and YHashTable.
#include "TestHelpers.h"
#include "YContainers.h"
#include "YString.h"

#include <algorithm>
#include <climits>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

namespace {

struct Counted : YRefCounted {
    explicit Counted(int* deletionCount) : deletions(deletionCount) {}
    ~Counted() override { ++*deletions; }
    int* deletions;
};

struct Record {
    int caseNumber = 0;
    YString name;
    unsigned hashKey() const { return static_cast<unsigned>(caseNumber); }
    bool operator==(const Record& o) const { return caseNumber == o.caseNumber; }
};

} // namespace

TEST(YRef, DeletesWithTheLastReference)
{
    int deletions = 0;
    {
        YRef<Counted> a(new Counted(&deletions));
        EXPECT_EQ(a->refCount(), 1);
        {
            YRef<Counted> b = a;
            EXPECT_EQ(a->refCount(), 2);
            YRef<Counted> c(std::move(b));
            EXPECT_TRUE(b.isNull());
            EXPECT_EQ(a->refCount(), 2);
        }
        EXPECT_EQ(a->refCount(), 1);
        EXPECT_EQ(deletions, 0);
    }
    EXPECT_EQ(deletions, 1);
}

TEST(YRef, CountsAtomicallyAcrossThreads)
{
    int deletions = 0;
    YRef<Counted> shared(new Counted(&deletions));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&shared] {
            for (int i = 0; i < 20000; ++i) {
                YRef<Counted> copy = shared;
                (void)copy;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(shared->refCount(), 1);
    shared.reset();
    EXPECT_EQ(deletions, 1);
}

TEST(YArray, AppendsCountsAndReadsOutOfRangeAsEmpty)
{
    YArray<YString> a;
    EXPECT_EQ(a.count(), 0);
    a.append(YString("x"));
    a.append(YString("y"));
    EXPECT_EQ(a.count(), 2);
    EXPECT_EQ(a[1], "y");
    EXPECT_EQ(a[2], "");
    EXPECT_EQ(a[-1], "");
    const YArray<YString>& c = a;
    EXPECT_EQ(&c[5], &c[-7]); // one shared empty element
    a[9] = "lost";            // a write out of range goes nowhere
    EXPECT_EQ(a.count(), 2);
    EXPECT_EQ(a[9], "");
    a.remove(0);
    a.remove(42);
    EXPECT_EQ(a.count(), 1);
    EXPECT_EQ(a[0], "y");
    a.insert(0, YString("w"));
    EXPECT_EQ(a[0], "w");
}

TEST(YList, KeepsOrder)
{
    YList<int> l;
    l.append(2);
    l.append(3);
    l.prepend(1);
    ASSERT_EQ(l.count(), 3);
    EXPECT_EQ(l[0], 1);
    EXPECT_EQ(l[2], 3);
    EXPECT_EQ(l[3], 0);
}

TEST(YVector, ReadsZeroOutOfRangeAndGrowsOnSet)
{
    YVector<double> v{1.5, 2.5};
    EXPECT_EQ(v.length(), 2);
    EXPECT_EQ(v[1], 2.5);
    EXPECT_EQ(v[2], 0.0);
    EXPECT_EQ(v[-1], 0.0);
    v.set(4, 9.0);
    EXPECT_EQ(v.length(), 5);
    EXPECT_EQ(v[3], 0.0);
    EXPECT_EQ(v[4], 9.0);
    v.set(-1, 3.0);
    EXPECT_EQ(v.length(), 5);
    // No length is past the largest int: INT_MAX is no index to grow to.
    v.set(INT_MAX, 3.0);
    EXPECT_EQ(v.length(), 5);
}

TEST(YHashTable, FindsByKeyAndNeverHoldsTwoEqualRecords)
{
    YHashTable<Record> t;
    Record r;
    r.caseNumber = 7;
    r.name = "seven";
    EXPECT_EQ(t.find(r), nullptr);
    Record* stored = t.insert(r);
    ASSERT_NE(stored, nullptr);
    Record other;
    other.caseNumber = 7;
    other.name = "again";
    EXPECT_EQ(t.insert(other), stored);
    EXPECT_EQ(t.count(), 1);
    EXPECT_EQ(t.find(other)->name, "seven");
    for (int i = 0; i < 5000; ++i) {
        Record x;
        x.caseNumber = i * 16; // all in the same low bits, to exercise chains
        t.insert(x);
    }
    EXPECT_EQ(t.count(), 5001);
    EXPECT_EQ(t.find(r), stored); // records do not move when the table grows
    Record probe;
    probe.caseNumber = 4999 * 16;
    ASSERT_NE(t.find(probe), nullptr);
    probe.caseNumber = 3;
    EXPECT_EQ(t.find(probe), nullptr);
    EXPECT_TRUE(t.remove(r));
    EXPECT_FALSE(t.remove(r));
    EXPECT_EQ(t.count(), 5000);
    int visited = 0;
    for (const Record& x : t) {
        (void)x;
        ++visited;
    }
    EXPECT_EQ(visited, 5000);
    EXPECT_EQ(t.item(-1).caseNumber, 0);
    YHashTable<Record> copy = t;
    EXPECT_EQ(copy.count(), 5000);
    probe.caseNumber = 16;
    ASSERT_NE(copy.find(probe), nullptr);
    EXPECT_NE(copy.find(probe), t.find(probe)); // a deep copy
}

namespace {

struct Keyed {
    unsigned key = 0;
    unsigned hashKey() const { return key; }
    bool operator==(const Keyed& o) const { return key == o.key; }
};

// The links that finding each of `keys` once walks, over the keys (at least 1: a key's own link), and
// the longest bucket of them, after inserting them all.
struct Chains {
    double average = 0;
    int longest = 0;
};
Chains chainsOf(const std::vector<unsigned>& keys)
{
    YHashTable<Keyed> table;
    for (unsigned key : keys)
        table.insert(Keyed{key});
    EXPECT_EQ(table.count(), static_cast<int>(keys.size()));
    Chains chains;
    long long walked = 0;
    for (unsigned key : keys) {
        const int length = table.bucketLength(Keyed{key});
        walked += length;
        chains.longest = std::max(chains.longest, length);
    }
    chains.average = static_cast<double>(walked) / static_cast<double>(keys.size());
    return chains;
}

std::vector<unsigned> progression(unsigned first, unsigned step, int count)
{
    std::vector<unsigned> keys;
    for (int i = 0; i < count; ++i)
        keys.push_back(first + step * static_cast<unsigned>(i));
    return keys;
}

// The finaliser of MurmurHash3, as anyone may compute it.
unsigned murmurMix(unsigned h)
{
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
}

} // namespace

// Keys in arithmetic progression, multiples of the table's size among them, spread over the buckets:
// a lookup walks a few links, as for sequential keys, not n / 2.
TEST(YHashTable, ArithmeticProgressionsOfKeysDoNotCollide)
{
    const int n = 16384;
    for (unsigned step : {1u, 65536u, 16384u, 1024u, 4096u * 3u}) {
        const Chains chains = chainsOf(progression(step == 1 ? 1 : step, step, n));
        EXPECT_LT(chains.average, 4.0) << "step " << step;
        EXPECT_LT(chains.longest, 24) << "step " << step;
    }
}

// Keys chosen so that the public mixer alone puts them all into bucket 0 of any table of up to 65,536
// buckets (the block's mixed bits 6 to 15 zero, the low six bits cancelling the rest): with the seed
// they spread like any other keys, and a results file of such case numbers reads in linear time.
TEST(YHashTable, KeysChosenAgainstThePublicMixerDoNotCollide)
{
    std::vector<unsigned> keys;
    for (unsigned block = 1; keys.size() < 4096; ++block)
        if ((murmurMix(block) & 0xFFC0u) == 0)
            keys.push_back((block << 6) | (murmurMix(block) & 63u));
    const Chains chains = chainsOf(keys);
    EXPECT_LT(chains.average, 4.0);
    EXPECT_LT(chains.longest, 24);
    EXPECT_EQ(sp_HashTableSeed(), sp_HashTableSeed());
}

// Random inserts, removals and finds against a plain list of the records in insertion order: every find
// answers as the list does, records keep their addresses, and iteration keeps the order of insertion,
// through the table's growth and the relinking after each removal. Keys share their low bits often, so
// chains hold several keys.
TEST(YHashTable, RandomInsertsAndRemovalsAgreeWithAPlainList)
{
    std::mt19937 random(5);
    std::uniform_int_distribution<int> key(0, 3000), action(0, 9);
    YHashTable<Record> table;
    std::vector<std::pair<int, Record*>> plain; // key and stored address, in insertion order
    for (int step = 0; step < 20000; ++step) {
        const int k = key(random) * 64;
        Record probe;
        probe.caseNumber = k;
        const auto it = std::find_if(plain.begin(), plain.end(), [k](const auto& e) { return e.first == k; });
        const int a = action(random);
        if (a < 6) {
            Record* stored = table.insert(probe);
            if (it == plain.end())
                plain.emplace_back(k, stored);
            else
                EXPECT_EQ(stored, it->second);
        } else if (a < 8) {
            EXPECT_EQ(table.remove(probe), it != plain.end());
            if (it != plain.end())
                plain.erase(it);
        } else {
            EXPECT_EQ(table.find(probe), it == plain.end() ? nullptr : it->second);
        }
    }
    ASSERT_EQ(table.count(), static_cast<int>(plain.size()));
    size_t i = 0;
    for (const Record& r : table) {
        EXPECT_EQ(r.caseNumber, plain[i].first);
        EXPECT_EQ(&r, plain[i].second);
        ++i;
    }
}
