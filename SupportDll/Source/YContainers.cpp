// YContainers.cpp - the out-of-line parts of the container templates' base types.
#include "YContainers.h"

// Anchors the virtual table and type information of the counted base in the core library.
YRefCounted::~YRefCounted() = default;
