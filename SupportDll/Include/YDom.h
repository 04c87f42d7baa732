// YDom.h - the core library's XML document object model (counted elements over a fast parser).
#pragma once

#include "SupportDllExport.h"
#include "YContainers.h"
#include "YString.h"

#include <vector>

class YDomDocument;
struct YDomDocumentData;

/// One element of a `YDomDocument`. Elements keep their document alive.
class SUPPORTDLL_API YDomElement : public YRefCounted {
public:
    ~YDomElement() override;

    YString tagName() const;
    /// The child elements in document order (appended to `children`).
    void childElements(YArray<YRef<YDomElement>>* children) const;
    YArray<YRef<YDomElement>> childElements() const;
    /// The first child element, and the next sibling element; null when there is none.
    YRef<YDomElement> firstChildElement() const;
    YRef<YDomElement> nextSiblingElement() const;
    /// Appends a new child element named `name` and returns it; null, appending nothing, when `name` is
    /// no XML name (a letter, "_" or ":" first, then letters, digits, "-" and "."; characters beyond
    /// ASCII count as letters when they are well-formed UTF-8).
    YRef<YDomElement> appendChild(const char* name);

    bool hasAttribute(const char* name) const;
    /// The attribute's text; empty when absent.
    YString getAttribute(const char* name) const;
    /// The attribute's text as a number; `defaultValue` when absent or not a number.
    double getAttributeDouble(const char* name, double defaultValue = 0.0) const;
    int getAttributeInt(const char* name, int defaultValue = 0) const;
    long long getAttributeInt64(const char* name, long long defaultValue = 0) const;
    /// The integer at the start of `text` (leading blanks skipped, an optional sign, then digits, read as
    /// sp_atoi64 reads them), the rule of the integer getters; false when no digit follows.
    [[nodiscard]] static bool textToInt64(const char* text, long long* value);
    /// Sets the attribute, added at the end when new; nothing when `name` is no XML name.
    void setAttribute(const char* name, const char* value);
    void setAttribute(const char* name, int value);
    void setAttribute(const char* name, long long value);
    /// Writes the shortest decimal text that reads back to exactly `value`.
    void setAttribute(const char* name, double value);
    /// The element's own text content (concatenated text children).
    YString text() const;
    void setText(const char* text);

private:
    friend class YDomDocument;
    YDomElement(YDomDocumentData* doc, void* node);
    YDomDocumentData* m_doc;
    void* m_node;
};

/// An XML document. Loading never expands entities declared in a DTD.
class SUPPORTDLL_API YDomDocument : public YRefCounted {
public:
    YDomDocument();
    ~YDomDocument() override;

    /// The largest file `load` reads: the positions of the parsed text are 32-bit.
    static const long long kMaxFileBytes = 0x7fffffffLL;
    /// Replaces the content with the file's; false when it cannot be read or is not well-formed XML,
    /// and false at once, without reading, for what is not a regular file (a FIFO, a device such as
    /// /dev/zero, a folder) or a file larger than `kMaxFileBytes`.
    [[nodiscard]] bool load(const char* path);
    /// Parses XML text; false when it is not well-formed.
    [[nodiscard]] bool loadText(const char* text, size_t length);
    /// Writes the document with an XML declaration, UTF-8, indented by tabs; `flags` is reserved (pass 0).
    /// Control characters other than tab, line feed and carriage return, which XML cannot hold, are left
    /// out, and each byte that is no part of well-formed UTF-8 of a character XML holds (so also each byte
    /// of a surrogate, U+FFFE or U+FFFF) is written as U+FFFD. False when the file cannot be written completely.
    [[nodiscard]] bool save(const char* path, int flags = 0) const;
    /// The document as text, written as `save` writes it.
    YString toText() const;
    /// Removes any content and creates the root element named `name`; null, changing nothing, when
    /// `name` is no XML name.
    YRef<YDomElement> createRoot(const char* name);
    /// The root element, or null when the document is empty.
    YRef<YDomElement> getRoot() const;

private:
    bool parse(std::vector<char> bytes);
    YDomDocumentData* m_data;
};

/// Makes documents for callers that create them through a factory.
struct SUPPORTDLL_API YXML_Factory {
    /// A new empty document.
    static YRef<YDomDocument> Make_RapidXML_DOM_Document();
};
