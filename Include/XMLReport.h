// XMLReport.h - results of statistical analyses (Monte Carlo, worst case, sensitivity): the records of
// the runs, the analysis header, normalised sensitivities, and the XML results file.
#pragma once

#include "SupportQtExport.h"
#include "YContainers.h"
#include "YDom.h"
#include "YString.h"

#include <memory>
#include <vector>

/// Validity of a normalised sensitivity.
enum NormStatus : int {
    NormValid = 0,        ///< valid
    NormDivByZero = 1,    ///< the parameter stayed at its nominal value, or the merit value is 0
    NormInconsistent = 2, ///< several changed parameters give different sensitivities
    NormUnset = 3         ///< not computed (an entry created on demand)
};

/// One merit function's outcome in one run.
struct XMLMeritValue {
    double value = 0.0;
    double delta = 0.0; ///< value minus the reference run's value
    double norm = 0.0;  ///< normalised sensitivity
    int status = NormUnset;
};

/// One parameter changed in one run.
struct XMLParameterValue {
    YString name;
    double nominal = 0.0;
    double tolerance = 0.0; ///< meaningful only when hasTolerance
    double usedValue = 0.0;
    bool hasTolerance = false;
};

/// A merit function of the analysis: its defining text and display name.
struct XMLMeritFunction {
    YString value;
    YString name;
};

/// Vector of separately allocated entries, copied deeply. Reading an index out of range gives a shared
/// default entry; `at` for writing appends default entries up to the index.
template <class T>
class XMLOwnedVector {
public:
    XMLOwnedVector() = default;
    XMLOwnedVector(const XMLOwnedVector& other) { *this = other; }
    XMLOwnedVector& operator=(const XMLOwnedVector& other)
    {
        if (this != &other) {
            m_items.clear();
            m_items.reserve(other.m_items.size());
            for (const auto& item : other.m_items)
                m_items.push_back(std::make_unique<T>(*item));
        }
        return *this;
    }
    XMLOwnedVector(XMLOwnedVector&&) noexcept = default;
    XMLOwnedVector& operator=(XMLOwnedVector&&) noexcept = default;

    int count() const { return static_cast<int>(m_items.size()); }
    void reserve(int n) { m_items.reserve(n > 0 ? static_cast<size_t>(n) : 0); }
    const T& operator[](int index) const
    {
        static const T defaultEntry{};
        return index >= 0 && index < count() ? *m_items[static_cast<size_t>(index)] : defaultEntry;
    }
    /// The entry at `index` for writing; entries up to it are appended first. A negative index gives a
    /// scratch entry that is thrown away.
    T& at(int index)
    {
        if (index < 0) {
            if (m_scratch)
                *m_scratch = T{};
            else
                m_scratch = std::make_unique<T>();
            return *m_scratch;
        }
        while (count() <= index)
            m_items.push_back(std::make_unique<T>());
        return *m_items[static_cast<size_t>(index)];
    }
    /// The array of the entries' pointers, or null when there are none: lets a writer that visits many
    /// vectors in scattered order ask for their memory ahead of its visit.
    const void* storage() const { return m_items.data(); }
    void append(const T& item) { m_items.push_back(std::make_unique<T>(item)); }
    void append(T&& item) { m_items.push_back(std::make_unique<T>(std::move(item))); }

private:
    std::vector<std::unique_ptr<T>> m_items;
    // Made only when asked for: a vector held by every run of a large table stays small.
    std::unique_ptr<T> m_scratch;
};

/// The results of one run ("case"), keyed by its case number in a `YHashTable<XMLReportInfo>`.
struct SUPPORTQT_API XMLReportInfo {
    YString name;
    bool hasName = false;
    YString description;
    bool hasDescription = false;
    int caseNumber = 0; ///< case 1 is the reference (nominal) run
    long long seed = 0;
    bool hasSeed = false;
    XMLOwnedVector<XMLMeritValue> values;         ///< indexed like the header's merit functions
    XMLOwnedVector<XMLParameterValue> parameters; ///< the parameters this run changed, in file order

    XMLReportInfo() = default;
    /// A record of that case: strings empty, flags false, room for 2 values and 1 parameter.
    explicit XMLReportInfo(int caseNumber);

    unsigned hashKey() const { return static_cast<unsigned>(caseNumber); }
    bool operator==(const XMLReportInfo& other) const { return caseNumber == other.caseNumber; }

    /// Fills norm and status of every value: case 1 gets 0 and valid; otherwise each merit function's
    /// sensitivity to the first parameter, checked against the others (relative difference above 1e-7
    /// is inconsistent). Only the last sensitivity's division flag decides "division by zero".
    void buildNormalisedSensitivity();
    /// ((delta / value) * nominal) / (used - nominal) for parameter `paramIndex` and merit function
    /// `meritIndex`; 0.0 with `*divByZero` true when used equals nominal or the value is 0.
    double getNormalisedSensitivity(int paramIndex, int meritIndex, bool* divByZero) const;
};

/// The analysis as a whole.
struct XMLReportHeader {
    XMLOwnedVector<XMLMeritFunction> meritFunctions; ///< a function's position is its index into values
    int numCores = 0;                                 ///< 0 when unknown
    YString date;
    YString title;
    YString analysis; ///< the analysis statement
    YString group;
};

/// Fills every record's deltas against case 1 (when present), then its normalised sensitivities.
SUPPORTQT_API void computeSensitivityDeltas(YHashTable<XMLReportInfo>& table);

/// Writes the results file (root "msw"). The file is written to a temporary file beside it and renamed
/// over `path` only when complete: on false the previous file is as it was.
[[nodiscard]] SUPPORTQT_API bool sp_WriteMswFile(const YString& path, const YHashTable<XMLReportInfo>& table,
                                                 const XMLReportHeader& header);
/// Reads a results file and the files it appends (to a depth of 4) into `table` and `header`, adding to
/// what they hold; then computes deltas and sensitivities and describes named runs by their shortest
/// distinct labels. False when the file (or an appended one) cannot be read or is not version 1.0, and
/// when one of its runs has a case number outside -2147483648..2147483647 (it would merge with another
/// run): such a file changes nothing. A file that several files append is read once. False, too, when the dense table the deltas need (every
/// run with every merit function) would be more than 4 million values and more than 64 times the values
/// and runs the files hold, and when memory runs out; nothing is thrown.
[[nodiscard]] SUPPORTQT_API bool sp_CompileSensReportData(const YString& path, YHashTable<XMLReportInfo>* table,
                                                          XMLReportHeader* header);
/// Sets the root's namespace, schema location, "version" 1.0 and "rev" 1.
SUPPORTQT_API void sp_DecorateMswRoot(YRef<YDomElement> root);
/// True when the root's "version" (1.0 when absent) equals "1.0" ignoring case.
SUPPORTQT_API bool sp_TestMswVersion(YRef<YDomElement> root);
/// Writes a real attribute; with the option "WriteXMLAsciiReals" also NAME_ascii in engineering form.
SUPPORTQT_API void sp_WriteElemRealValue(YRef<YDomElement> element, const YString& name, double value);

/// Adds a merit function with one value per listed case to a results file and writes it back (as one
/// file, without "append"). False, with the file untouched, when the lists differ in length, the file
/// cannot be read, a case is missing or already has a value for the new function. The file is written
/// from what the reader keeps: a merged file's record of its shards (the "shards" element and each
/// step's "shard" and "shardcase") is not written back; a renumbered run's description still names them.
[[nodiscard]] SUPPORTQT_API bool sp_AppendMeritData(const YString& path, const YString& value,
                                                    const YString& name, const YVector<double>& values,
                                                    const YVector<int>& cases);

/// Outcome of `sp_ValidateXml`.
enum XmlValidateStatus : int {
    XmlValidateOk = 0,
    XmlValidateInvalid = 1,     ///< the document breaks the schema; the message is the validator's last
    XmlValidateBadSchema = 2,   ///< the schema file is no valid schema; the message is the last one
    XmlValidateNoSchemaFile = 3,///< "Could not open schema file"
    XmlValidateNoXmlFile = 4    ///< "Could not open xml file"
};

/// Validates an XML file against an XML Schema file; `message` receives the reason when not valid.
/// Only the schema named here is used: schema-location hints in the document are ignored (nothing they
/// name is opened or fetched), and the schema's own include and import may read only regular files in
/// the schema's folder or below it, never anything over the network. Only regular files are opened: a
/// FIFO, a device or a folder is a file that cannot be opened (status 3 or 4), and is never waited on.
/// A file that nests elements deeper than 1,000 levels, which the validator would follow until the stack
/// ran out, is refused unread by it: the document as not valid (1), the schema or a file it includes as
/// no valid schema (2), the message "The document nests elements deeper than 1000 levels, more than the
/// validator follows" (or "The schema ...").
[[nodiscard]] SUPPORTQT_API XmlValidateStatus sp_ValidateXml(const YString& xmlPath, const YString& schemaPath, YString* message);
