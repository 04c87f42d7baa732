// Options.cpp - the option registry, initialisation files, system values and the version record.
#include "Options.h"
#include "DynFunc.h"
#include "FileServices.h"
#include "Platform_p.h"

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#ifndef SUPPORTQT_VERSION_MAJOR
#define SUPPORTQT_VERSION_MAJOR 0
#define SUPPORTQT_VERSION_MINOR 0
#define SUPPORTQT_VERSION_PATCH 0
#endif
#ifndef SUPPORTQT_SIGNATURE_CHECK
#define SUPPORTQT_SIGNATURE_CHECK 0
#endif

namespace {

struct Declaration {
    long long id;
    YString defaultValue;
    YString sourceFile;
    int line;
};

struct Option {
    YString name;
    std::vector<Declaration> declarations;
    bool hasValue = false;
    YString value;
};

struct OptionStore {
    std::mutex mutex;
    std::map<std::string, Option> options;
    long long nextId = 1;
    bool versionSet = false;
    KalvontaVersionInfo version;
};

OptionStore& store()
{
    // Never destroyed: modules unloaded at exit still withdraw their options.
    static OptionStore* s = new OptionStore;
    return *s;
}

std::string key(const char* name) { return YString(name ? name : "").toLower().str(); }

bool textIsTrue(const YString& v)
{
    YString t = v.trimmed();
    return t == "1" || t.equalsNoCase("true") || t.equalsNoCase("yes") || t.equalsNoCase("on");
}

long long declare(const char* sourceFile, int line, const YString& name, const YString& defaultValue)
{
    OptionStore& s = store();
    long long id;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        id = s.nextId++;
        Option& o = s.options[key(name)];
        if (o.name.isEmpty())
            o.name = name;
        o.declarations.push_back({id, defaultValue, YString(sourceFile), line});
    }
    YString entry;
    entry.sprintf("option %s %s:%d", name.c_str(), sourceFile ? sourceFile : "", line);
    sp_AppendDynRegistryLog(entry);
    return id;
}

YString trimQuotes(const YString& v)
{
    YString t = v.trimmed();
    if (t.length() >= 2 && t.at(0) == '"' && t.at(t.length() - 1) == '"')
        return t.substring(1, t.length() - 2);
    return t;
}

} // namespace

MakeOption::MakeOption(const char* sourceFile, int line, const YString& name, const char* defaultValue,
                       OptionCacheStatus, bool)
    : m_name(name), m_id(declare(sourceFile, line, name, YString(defaultValue)))
{
}

MakeOption::MakeOption(const char* sourceFile, int line, const YString& name, bool defaultValue,
                       OptionCacheStatus, bool)
    : m_name(name), m_id(declare(sourceFile, line, name, YString(defaultValue ? "true" : "false")))
{
}

MakeOption::~MakeOption()
{
    OptionStore& s = store();
    YString entry;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.options.find(key(m_name));
        if (it == s.options.end())
            return;
        auto& decls = it->second.declarations;
        for (auto d = decls.begin(); d != decls.end(); ++d) {
            if (d->id == m_id) {
                entry.sprintf("-option %s %s:%d", m_name.c_str(), d->sourceFile.c_str(), d->line);
                decls.erase(d);
                break;
            }
        }
        if (decls.empty() && !it->second.hasValue)
            s.options.erase(it);
    }
    if (!entry.isEmpty())
        sp_AppendDynRegistryLog(entry);
}

void sp_SetOption(const char* name, const char* value)
{
    if (!name)
        return;
    OptionStore& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!value) {
        auto it = s.options.find(key(name));
        if (it == s.options.end())
            return;
        it->second.hasValue = false;
        it->second.value.clear();
        if (it->second.declarations.empty())
            s.options.erase(it);
        return;
    }
    Option& o = s.options[key(name)];
    if (o.name.isEmpty())
        o.name = name;
    o.hasValue = true;
    o.value = value;
}

void sp_SetBoolOption(const char* name, bool value) { sp_SetOption(name, value ? "true" : "false"); }

YString sp_GetOption(const char* name, bool* found)
{
    OptionStore& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = name ? s.options.find(key(name)) : s.options.end();
    if (it == s.options.end()) {
        if (found)
            *found = false;
        return YString();
    }
    if (found)
        *found = true;
    if (it->second.hasValue)
        return it->second.value;
    // The first declaration's default stands while several modules declare the same option.
    return it->second.declarations.empty() ? YString() : it->second.declarations.front().defaultValue;
}

bool sp_GetBoolOption(const char* name, bool* found)
{
    bool present = false;
    YString v = sp_GetOption(name, &present);
    if (found)
        *found = present;
    return present && textIsTrue(v);
}

bool sp_IsOptionDeclared(const char* name)
{
    OptionStore& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = name ? s.options.find(key(name)) : s.options.end();
    return it != s.options.end() && !it->second.declarations.empty();
}

bool sp_GetPrivateProfileString(const char* section, const char* key, const char* file, YString* out)
{
    if (!section || !key || !file || !out)
        return false;
    // A regular file of up to 64 MiB: a FIFO or a device is never waited on nor read.
    long long size = 0;
    FILE* f = sp_OpenRegularFile(file, 64LL << 20, &size);
    if (!f)
        return false;
    std::string content;
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0 && content.size() < (64u << 20))
        content.append(chunk, n);
    std::fclose(f);
    if (content.size() >= 3 && static_cast<unsigned char>(content[0]) == 0xEF &&
        static_cast<unsigned char>(content[1]) == 0xBB && static_cast<unsigned char>(content[2]) == 0xBF)
        content.erase(0, 3);
    bool inSection = false;
    size_t pos = 0;
    while (pos <= content.size()) {
        size_t end = content.find('\n', pos);
        if (end == std::string::npos)
            end = content.size();
        YString line = YString(content.substr(pos, end - pos).c_str()).trimmed();
        pos = end + 1;
        if (line.isEmpty() || line.at(0) == ';' || line.at(0) == '#')
            continue;
        if (line.at(0) == '[') {
            int close = line.findIndex("]");
            inSection = close > 0 && line.substring(1, close - 1).trimmed().equalsNoCase(section);
            continue;
        }
        if (!inSection)
            continue;
        int eq = line.findIndex("=");
        if (eq <= 0)
            continue;
        if (line.substring(0, eq).trimmed().equalsNoCase(key)) {
            *out = trimQuotes(line.substring(eq + 1));
            return true;
        }
    }
    return false;
}

YString sp_GetSystemValuePath(const YString& name, bool* found)
{
    YString value;
    bool present = !name.isEmpty() && platform::getEnvironment(name.c_str(), &value);
    if (found)
        *found = present;
    return present ? value : YString();
}

void sp_GetVersionValues(KalvontaVersionInfo* info)
{
    if (!info)
        return;
    OptionStore& s = store();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.versionSet) {
            *info = s.version;
            return;
        }
    }
    info->release = SUPPORTQT_VERSION_MAJOR;
    info->subRelease = SUPPORTQT_VERSION_MINOR * 10 + SUPPORTQT_VERSION_PATCH;
    info->build = 0;
    info->signatureCheck = SUPPORTQT_SIGNATURE_CHECK;
    bool found = false;
    YString check = sp_GetOption("SignatureCheck", &found);
    if (found && !check.isEmpty())
        info->signatureCheck = std::atoi(check.c_str());
}

void sp_SetVersionValues(const KalvontaVersionInfo* info)
{
    OptionStore& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.versionSet = info != nullptr;
    if (info)
        s.version = *info;
}

int sp_VerifyEmbeddedSignature(const char* path)
{
    if (!path || !*path)
        return -1;
    return platform::verifySignature(path);
}
