// LibraryIndex.h - the .model and .subckt definitions of a model library, found in one pass over its bytes.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

/// One definition: where it starts and ends (character positions, as `SymbolLoc` takes them) and the
/// line it starts on.
struct LibraryDefinition {
    enum Kind { Model, Subckt };
    Kind kind = Model;
    std::string_view name; ///< points into the scanned text
    int start = 0;         ///< position of the definition's first character
    int end = 0;           ///< position just after it
    int line = 0;          ///< 1-based line of its first character
};

/// Finds every line that begins with ".model" or ".subckt" (any case) followed by a blank and a name.
/// A model runs over the "+" continuation lines after it; a subcircuit up to and including the next
/// line that begins with ".ends" (to the end of the text when there is none). Lines end at line feeds.
std::vector<LibraryDefinition> indexLibrary(const char* text, size_t size);
