// YContainers.cpp - the out-of-line parts of the container templates' base types.
#include "YContainers.h"

#include <chrono>
#include <cstdint>
#include <random>

// Anchors the virtual table and type information of the counted base in the core library.
YRefCounted::~YRefCounted() = default;

unsigned sp_HashTableSeed()
{
    // The system's random source where there is one; the clock and an address of this run as well, so
    // that a source that cannot be opened or repeats itself still leaves the seed unknown.
    static const unsigned seed = [] {
        unsigned value = 0;
        try {
            std::random_device source;
            value = source();
        } catch (...) {
        }
        const auto now = static_cast<unsigned long long>(std::chrono::steady_clock::now().time_since_epoch().count());
        value ^= static_cast<unsigned>(now ^ (now >> 32));
        value ^= static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&value) >> 4);
        return value;
    }();
    return seed;
}
