// YContainers.h - the suite's counted pointer and container templates.
#pragma once

#include "SupportDllExport.h"

#include <atomic>
#include <climits>
#include <memory>
#include <utility>
#include <vector>

/// Base of objects held by `YRef`: an intrusive reference count changed atomically.
class SUPPORTDLL_API YRefCounted {
public:
    YRefCounted() = default;
    YRefCounted(const YRefCounted&) : m_refCount(0) {}
    YRefCounted& operator=(const YRefCounted&) { return *this; }
    virtual ~YRefCounted();

    void incRef() const { m_refCount.fetch_add(1, std::memory_order_relaxed); }
    /// Drops one reference; deletes the object when the count reaches 0.
    void decRef() const
    {
        if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    int refCount() const { return m_refCount.load(std::memory_order_relaxed); }

private:
    mutable std::atomic<int> m_refCount{0};
};

/// Intrusive reference-counted pointer to a `YRefCounted` object; deletes it with the last reference.
template <class T>
class YRef {
public:
    YRef() = default;
    YRef(std::nullptr_t) {}
    YRef(T* object) : m_ptr(object) { if (m_ptr) m_ptr->incRef(); }
    YRef(const YRef& other) : m_ptr(other.m_ptr) { if (m_ptr) m_ptr->incRef(); }
    YRef(YRef&& other) noexcept : m_ptr(other.m_ptr) { other.m_ptr = nullptr; }
    template <class U>
    YRef(const YRef<U>& other) : m_ptr(other.get()) { if (m_ptr) m_ptr->incRef(); }
    ~YRef() { if (m_ptr) m_ptr->decRef(); }

    YRef& operator=(const YRef& other)
    {
        YRef copy(other);
        std::swap(m_ptr, copy.m_ptr);
        return *this;
    }
    YRef& operator=(YRef&& other) noexcept
    {
        std::swap(m_ptr, other.m_ptr);
        return *this;
    }
    YRef& operator=(T* object) { return *this = YRef(object); }

    T* get() const { return m_ptr; }
    T* operator->() const { return m_ptr; }
    T& operator*() const { return *m_ptr; }
    explicit operator bool() const { return m_ptr != nullptr; }
    bool isNull() const { return m_ptr == nullptr; }
    void reset() { *this = YRef(); }

private:
    T* m_ptr = nullptr;
};

template <class T, class U>
bool operator==(const YRef<T>& a, const YRef<U>& b) { return a.get() == b.get(); }
template <class T, class U>
bool operator!=(const YRef<T>& a, const YRef<U>& b) { return a.get() != b.get(); }

namespace ydetail {
/// The element that out-of-range reads return; one per element type.
template <class T>
const T& sharedEmpty()
{
    static const T empty{};
    return empty;
}
} // namespace ydetail

/// Growable array of owned elements. Reading at an index out of range yields a shared empty element;
/// writing through `operator[]` at such an index lands in a scratch element that is thrown away.
template <class T>
class YArray {
public:
    YArray() = default;
    YArray(std::initializer_list<T> items) : m_items(items) {}

    int count() const { return static_cast<int>(m_items.size()); }
    bool isEmpty() const { return m_items.empty(); }
    void append(const T& item) { m_items.push_back(item); }
    void append(T&& item) { m_items.push_back(std::move(item)); }
    void insert(int index, const T& item)
    {
        if (index < 0) index = 0;
        if (index > count()) index = count();
        m_items.insert(m_items.begin() + index, item);
    }
    /// Removes the element at `index`; an index out of range does nothing.
    void remove(int index)
    {
        if (inRange(index))
            m_items.erase(m_items.begin() + index);
    }
    void clear() { m_items.clear(); }
    void reserve(int n) { if (n > 0) m_items.reserve(static_cast<size_t>(n)); }

    const T& operator[](int index) const { return inRange(index) ? m_items[static_cast<size_t>(index)] : ydetail::sharedEmpty<T>(); }
    T& operator[](int index)
    {
        if (inRange(index))
            return m_items[static_cast<size_t>(index)];
        m_scratch = T{};
        return m_scratch;
    }
    const T& at(int index) const { return (*this)[index]; }

    typename std::vector<T>::const_iterator begin() const { return m_items.begin(); }
    typename std::vector<T>::const_iterator end() const { return m_items.end(); }
    typename std::vector<T>::iterator begin() { return m_items.begin(); }
    typename std::vector<T>::iterator end() { return m_items.end(); }

private:
    bool inRange(int index) const { return index >= 0 && index < count(); }

    std::vector<T> m_items;
    T m_scratch{};
};

/// Ordered list with count, indexed access and append; same out-of-range rules as `YArray`.
template <class T>
class YList : public YArray<T> {
public:
    using YArray<T>::YArray;
    void prepend(const T& item) { this->insert(0, item); }
};

/// Ordered numeric sequence. Reading out of range yields 0; `set` past the end grows it with zeros (up to
/// index INT_MAX - 1, since the length is an int; `set` ignores a negative index and INT_MAX).
template <class T>
class YVector {
public:
    YVector() = default;
    explicit YVector(int length) : m_values(length > 0 ? static_cast<size_t>(length) : 0, T{}) {}
    YVector(std::initializer_list<T> values) : m_values(values) {}

    int length() const { return static_cast<int>(m_values.size()); }
    int count() const { return length(); }
    void append(T value) { m_values.push_back(value); }
    void resize(int length) { m_values.resize(length > 0 ? static_cast<size_t>(length) : 0, T{}); }
    void clear() { m_values.clear(); }
    T operator[](int index) const { return index >= 0 && index < length() ? m_values[static_cast<size_t>(index)] : T{}; }
    void set(int index, T value)
    {
        if (index < 0 || index == INT_MAX) return;
        if (index >= length()) resize(index + 1);
        m_values[static_cast<size_t>(index)] = value;
    }
    const T* data() const { return m_values.data(); }

private:
    std::vector<T> m_values;
};

/// The seed of the hash tables' buckets: random, and the same for the whole process.
SUPPORTDLL_API unsigned sp_HashTableSeed();

/// Hash container of records. A record type supplies `unsigned hashKey() const` and `operator==`;
/// two equal records are one entry (and have the same key; a stored record's key is kept beside it and
/// must not change). Records are owned, stay at a fixed address while in the table, and are visited in
/// the table's own order (insertion order, not sorted).
template <class T>
class YHashTable {
public:
    YHashTable() = default;
    YHashTable(const YHashTable& other) { for (const T& r : other) insert(r); }
    YHashTable& operator=(const YHashTable& other)
    {
        if (this != &other) { clear(); for (const T& r : other) insert(r); }
        return *this;
    }
    YHashTable(YHashTable&&) noexcept = default;
    YHashTable& operator=(YHashTable&&) noexcept = default;

    int count() const { return static_cast<int>(m_records.size()); }
    bool isEmpty() const { return m_records.empty(); }

    /// The stored record equal to `probe`, or null.
    T* find(const T& probe) { return const_cast<T*>(static_cast<const YHashTable*>(this)->find(probe)); }
    const T* find(const T& probe) const
    {
        if (m_buckets.empty())
            return nullptr;
        const unsigned key = probe.hashKey();
        for (int i = m_buckets[bucketOf(key)]; i >= 0; i = m_links[static_cast<size_t>(i)].next) {
            // A record is read only when its stored key is the probe's: the chain is walked in the
            // compact array of links, not through records spread over the heap.
            if (m_links[static_cast<size_t>(i)].key != key)
                continue;
            const T& r = *m_records[static_cast<size_t>(i)];
            if (r == probe)
                return &r;
        }
        return nullptr;
    }
    /// How many records share the bucket of `probe`'s key: the most links a lookup of it walks.
    int bucketLength(const T& probe) const
    {
        if (m_buckets.empty())
            return 0;
        int length = 0;
        for (int i = m_buckets[bucketOf(probe.hashKey())]; i >= 0; i = m_links[static_cast<size_t>(i)].next)
            ++length;
        return length;
    }
    /// Stores a copy unless an equal record is present; returns the stored record either way.
    T* insert(const T& record)
    {
        if (T* found = find(record))
            return found;
        return add(std::make_unique<T>(record));
    }
    T* insert(T&& record)
    {
        if (T* found = find(record))
            return found;
        return add(std::make_unique<T>(std::move(record)));
    }
    /// Removes the record equal to `probe`; false when there is none.
    bool remove(const T& probe)
    {
        const T* found = find(probe);
        if (!found)
            return false;
        std::vector<std::unique_ptr<T>> kept;
        std::vector<Link> keptLinks;
        kept.reserve(m_records.size());
        keptLinks.reserve(m_records.size());
        for (size_t i = 0; i < m_records.size(); ++i)
            if (m_records[i].get() != found) {
                kept.push_back(std::move(m_records[i]));
                keptLinks.push_back(m_links[i]);
            }
        m_records = std::move(kept);
        m_links = std::move(keptLinks);
        rehash(m_buckets.size());
        return true;
    }
    void clear() { m_records.clear(); m_links.clear(); m_buckets.clear(); }

    const T& item(int index) const { return index >= 0 && index < count() ? *m_records[static_cast<size_t>(index)] : ydetail::sharedEmpty<T>(); }
    T* itemPtr(int index) { return index >= 0 && index < count() ? m_records[static_cast<size_t>(index)].get() : nullptr; }

    class const_iterator {
    public:
        using It = typename std::vector<std::unique_ptr<T>>::const_iterator;
        explicit const_iterator(It it) : m_it(it) {}
        const T& operator*() const { return **m_it; }
        const T* operator->() const { return m_it->get(); }
        const_iterator& operator++() { ++m_it; return *this; }
        bool operator!=(const const_iterator& o) const { return m_it != o.m_it; }
        bool operator==(const const_iterator& o) const { return m_it == o.m_it; }
    private:
        It m_it;
    };
    class iterator {
    public:
        using It = typename std::vector<std::unique_ptr<T>>::iterator;
        explicit iterator(It it) : m_it(it) {}
        T& operator*() const { return **m_it; }
        T* operator->() const { return m_it->get(); }
        iterator& operator++() { ++m_it; return *this; }
        bool operator!=(const iterator& o) const { return m_it != o.m_it; }
        bool operator==(const iterator& o) const { return m_it == o.m_it; }
    private:
        It m_it;
    };
    const_iterator begin() const { return const_iterator(m_records.begin()); }
    const_iterator end() const { return const_iterator(m_records.end()); }
    iterator begin() { return iterator(m_records.begin()); }
    iterator end() { return iterator(m_records.end()); }

private:
    // Keys such as case numbers are often an arithmetic progression, and multiples of the table size
    // would all fall into one bucket if the key were only masked to the table's power-of-two size: the
    // key's bits above the lowest six are mixed (the finaliser of MurmurHash3, a bijection), which
    // spreads the key's block of 64 over the table, and the lowest six bits only choose among 64
    // neighbouring buckets, so that consecutive keys fill neighbouring buckets: a table filled with
    // consecutive keys is then walked a cache line at a time, not at a random place for every key.
    // The mixer is public and invertible, so keys read from a file could be chosen to share one bucket
    // and make every lookup walk them all: the block number is first combined with the process's seed,
    // which such a file cannot know.
    static unsigned mixed(unsigned h)
    {
        h ^= h >> 16;
        h *= 0x85ebca6bu;
        h ^= h >> 13;
        h *= 0xc2b2ae35u;
        h ^= h >> 16;
        return h;
    }
    size_t bucketOf(unsigned hash) const
    {
        return static_cast<size_t>(mixed((hash >> 6) ^ m_seed) ^ (hash & 63u)) & (m_buckets.size() - 1);
    }
    T* add(std::unique_ptr<T> record)
    {
        T* stored = record.get();
        m_links.push_back(Link{-1, stored->hashKey()});
        m_records.push_back(std::move(record));
        if (m_records.size() > m_buckets.size())
            rehash(m_buckets.empty() ? 16 : m_buckets.size() * 2);
        else
            link(m_records.size() - 1);
        return stored;
    }
    // Links every record again from the stored keys, without reading the records.
    void rehash(size_t bucketCount)
    {
        if (bucketCount < 16) bucketCount = 16;
        m_buckets.assign(bucketCount, -1);
        for (size_t i = 0; i < m_records.size(); ++i)
            link(i);
    }
    void link(size_t i)
    {
        size_t b = bucketOf(m_links[i].key);
        m_links[i].next = m_buckets[b];
        m_buckets[b] = static_cast<int>(i);
    }

    // The next record of a bucket's chain (-1 at its end) and the record's key, side by side.
    struct Link {
        int next;
        unsigned key;
    };
    std::vector<std::unique_ptr<T>> m_records;
    std::vector<Link> m_links;
    std::vector<int> m_buckets;
    unsigned m_seed = sp_HashTableSeed();
};
