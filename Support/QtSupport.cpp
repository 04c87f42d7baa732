// QtSupport.cpp - UTF-8 detection and the conversions between the suite's strings and Qt's.
#include "QtSupport.h"
#include "TextServices.h"

#include <QCollator>
#include <QLocale>
#include <QTextCodec>

#include <cstring>
#include <mutex>
#include <vector>

// ---------------------------------------------------------------- UTF8Detect

UTF8Detect& UTF8Detect::operator=(const UTF8Detect& other)
{
    m_encoding = other.m_encoding;
    m_state = other.m_state;
    return *this;
}

UTF8Detect& UTF8Detect::operator=(UTF8Detect&& other)
{
    m_encoding = other.m_encoding;
    m_state = other.m_state;
    return *this;
}

void UTF8Detect::addSlow(unsigned int c)
{
    if (m_state == 99)
        return;
    if (m_state == 1) {
        if (c < 0x80)
            return;
        if ((c & 0xE0) == 0xC0)
            m_state = 22;
        else if ((c & 0xF0) == 0xE0)
            m_state = 23;
        else if ((c & 0xF8) == 0xF0)
            m_state = 24;
        else if ((c & 0xFC) == 0xF8)
            m_state = 25;
        else if ((c & 0xFE) == 0xFC)
            m_state = 26;
        else {
            m_encoding = Invalid;
            m_state = 99;
            return;
        }
        if (m_state >= 25)
            m_encoding = Utf8Extended;
        else if (m_encoding != Utf8Extended)
            m_encoding = Utf8;
        return;
    }
    const int i = m_state / 10;
    const int j = m_state % 10;
    if (i < 2 || i > 6 || j < 2 || j > 6 || i > j) {
        m_encoding = Invalid;
        m_state = 99;
        return;
    }
    if ((c & 0xC0) != 0x80) {
        m_encoding = Invalid;
        m_state = 99;
        return;
    }
    m_state = (i == j) ? 1 : m_state + 10;
}

void UTF8Detect::loadString(const char* s)
{
    if (!s)
        return;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(s); *p; ++p)
        add(*p);
}

// ---------------------------------------------------------------- conversions

namespace {

// A text counts as UTF-8 only when it decodes with no invalid character and no unfinished final
// sequence: the last byte of a Latin-1 word such as "café" is a lead byte, and must not be lost.
bool isCleanUtf8(const char* s, int length)
{
    QTextCodec* utf8 = QTextCodec::codecForName("UTF-8");
    QTextCodec::ConverterState state;
    utf8->toUnicode(s, length, &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

} // namespace

YString sp_AutoConvertToUtf8(const char* s)
{
    if (!s)
        return YString();
    int length = static_cast<int>(std::strlen(s));
    if (isCleanUtf8(s, length))
        return YString(s, length);
    QByteArray utf8 = QTextCodec::codecForLocale()->toUnicode(s, length).toUtf8();
    return YString(utf8.constData(), utf8.size());
}

YString sp_AutoConvertToUtf8(const YString& s) { return sp_AutoConvertToUtf8(s.c_str()); }

YString sp_ConvertFromLocal(const char* s)
{
    if (!s)
        return YString();
    QByteArray utf8 = QTextCodec::codecForLocale()->toUnicode(s).toUtf8();
    return YString(utf8.constData(), utf8.size());
}

YString sp_ConvertFromUtf8(const char* s)
{
    if (!s)
        return YString();
    QByteArray local = QTextCodec::codecForLocale()->fromUnicode(QString::fromUtf8(s));
    return YString(local.constData(), local.size());
}

bool sp_LocaleSupportsMicroCharacter()
{
    static bool computed = false;
    static bool answer = false;
    if (!computed) {
        const char micro[] = "\xB5";
        QByteArray utf8 = QTextCodec::codecForLocale()->toUnicode(micro, 1).toUtf8();
        answer = utf8.size() >= 2 && static_cast<unsigned char>(utf8[0]) == 0xC2 &&
                 static_cast<unsigned char>(utf8[1]) == 0xB5;
        computed = true;
    }
    return answer;
}

bool sp_SetLocaleEncoding(const YString& name)
{
    if (name.equalsNoCase("default")) {
        QTextCodec::setCodecForLocale(nullptr);
        return true;
    }
    QTextCodec* codec = QTextCodec::codecForName(QByteArray(name.c_str(), name.length()));
    if (!codec)
        return false;
    QTextCodec::setCodecForLocale(codec);
    return true;
}

// ---------------------------------------------------------------- interning

namespace {

// Hash set of UTF-8 byte strings with power-of-two buckets; entries are never removed, so the
// character data of every entry stays where it is until the process ends.
class InternSet {
public:
    InternSet() : m_buckets(128) {}

    const QByteArray* find(const QByteArray& text) const
    {
        const auto& bucket = m_buckets[hash(text) & (m_buckets.size() - 1)];
        for (const QByteArray& entry : bucket)
            if (std::strcmp(entry.constData(), text.constData()) == 0)
                return &entry;
        return nullptr;
    }
    void insert(const QByteArray& text)
    {
        if (m_count + 1 > m_buckets.size()) // maximum load factor 1.0
            rehash(m_buckets.size() * 2);
        m_buckets[hash(text) & (m_buckets.size() - 1)].push_back(text);
        ++m_count;
    }

private:
    static unsigned hash(const QByteArray& text)
    {
        unsigned h = 0;
        for (const char* p = text.constData(); *p; ++p)
            h = h * 65599u + static_cast<unsigned>(static_cast<int>(static_cast<signed char>(*p)));
        return h;
    }
    void rehash(size_t count)
    {
        std::vector<std::vector<QByteArray>> buckets(count);
        for (auto& bucket : m_buckets)
            for (QByteArray& entry : bucket)
                buckets[hash(entry) & (count - 1)].push_back(std::move(entry));
        m_buckets.swap(buckets);
    }

    std::vector<std::vector<QByteArray>> m_buckets;
    size_t m_count = 0;
};

} // namespace

const char* toCs(const QString& s)
{
    static InternSet set; // thread-safe creation; destroyed at exit
    QByteArray utf8 = s.toUtf8();
    if (!set.find(utf8))
        set.insert(utf8);
    const QByteArray* stored = set.find(utf8);
    static const char empty[] = "";
    return stored ? stored->constData() : empty;
}

QString toQs(const YString& s) { return QString::fromUtf8(s.c_str(), s.length()); }

YString toYs(const QString& s)
{
    QByteArray utf8 = s.toUtf8();
    return YString(utf8.constData(), utf8.size());
}

bool equals(const QString& a, const QString& b) { return QString::compare(a, b, Qt::CaseInsensitive) == 0; }
bool notEquals(const QString& a, const QString& b) { return !equals(a, b); }
bool pathEquals(const QString& a, const QString& b) { return equals(a, b); }
bool pathNotEquals(const QString& a, const QString& b) { return notEquals(a, b); }

int sp_CompareUtf8Strings(const char* a, const char* b, bool caseSensitive)
{
    QCollator collator{QLocale()};
    collator.setCaseSensitivity(caseSensitive ? Qt::CaseSensitive : Qt::CaseInsensitive);
    return collator.compare(QString::fromUtf8(a ? a : ""), QString::fromUtf8(b ? b : ""));
}

double sp_ConvertEngToReal(const QString& s)
{
    char* end = nullptr;
    double value = sp_ConvertEngToReal(static_cast<const char*>(Tocs(s)), &end);
    (void)end;
    return value;
}

YString kvPrintfText(const QString& s) { return toYs(s); }

// ---------------------------------------------------------------- Tocs, UTFStringQt

Tocs::Tocs(const QString& s) : m_bytes(new QByteArray(s.toUtf8())) {}
Tocs::~Tocs() { delete m_bytes; }
Tocs::operator const char*() const { return m_bytes->constData(); }

UTFStringQt::UTFStringQt(const char* utf8) : m_utf8(new QByteArray(utf8 ? utf8 : "")), m_wide(nullptr)
{
    setWide(QString::fromUtf8(*m_utf8));
}

UTFStringQt::UTFStringQt(const wchar_t* wide) : m_utf8(nullptr), m_wide(nullptr)
{
    QString s = wide ? QString::fromWCharArray(wide) : QString();
    m_utf8 = new QByteArray(s.toUtf8());
    setWide(s);
}

void UTFStringQt::setWide(const QString& s)
{
    // toWCharArray writes at most one wchar_t per UTF-16 unit.
    m_wide = new wchar_t[static_cast<size_t>(s.size()) + 1];
    int n = s.toWCharArray(m_wide);
    m_wide[n] = L'\0';
}

UTFStringQt::~UTFStringQt()
{
    delete m_utf8;
    delete[] m_wide;
}

const char* UTFStringQt::get() const { return m_utf8->constData(); }
const wchar_t* UTFStringQt::getWide() const { return m_wide; }
