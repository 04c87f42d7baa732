// DynFunc.cpp - the suite's exception base and the process-wide registry of named functions.
#include "DynFunc.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

KalvontaException::KalvontaException() : m_code(0) { m_message[0] = '\0'; }

KalvontaException::KalvontaException(int code, const char* message) : m_code(code)
{
    std::snprintf(m_message, sizeof m_message, "%s", message ? message : "");
}

KalvontaException::~KalvontaException() = default;

DynFuncException::~DynFuncException() = default;

void sp_ThrowUnresolvedDynFunc(const char* name)
{
    char message[1000];
    int n = std::snprintf(message, sizeof message, "*** FATAL ERROR *** Unresolved dynamic function '%s' called",
                          name ? name : "");
    if (n < 0)
        message[0] = '\0';
    throw DynFuncException(9, message);
}

namespace {

struct Slot {
    long long id;
    DynFuncPtr* address;
    DynFuncPtr defaultValue;
    std::string sourceFile;
    int line;
};

struct Definition {
    long long id;
    DynFuncPtr function;
    std::string sourceFile;
    int line;
};

struct Name {
    std::vector<Slot> slots;
    std::vector<Definition> definitions; // in registration order; the first one fills the slots

    // The function of the first definition that offers one; a definition of a null function (a lookup
    // that found nothing, registered as it was) defines nothing, so that no slot is ever made null.
    DynFuncPtr defined() const
    {
        for (const Definition& d : definitions)
            if (d.function)
                return d.function;
        return nullptr;
    }
};

struct Registry {
    std::mutex mutex;
    std::map<std::string, Name> names;
    std::vector<YString> log;
    long long nextId = 1;

    void fill(Name& n)
    {
        const DynFuncPtr function = n.defined();
        for (Slot& s : n.slots)
            if (s.address) // a call registered without a slot has nothing to fill
                *s.address = function ? function : s.defaultValue;
    }
    // The default of `slot`: what it holds, unless a registration of the same slot is present already, whose
    // default it keeps (the slot may hold a definition by now, which is no default).
    DynFuncPtr defaultOf(DynFuncPtr* slot) const
    {
        for (const auto& entry : names)
            for (const Slot& s : entry.second.slots)
                if (s.address == slot)
                    return s.defaultValue;
        return *slot;
    }
    void record(const char* what, const std::string& name, const std::string& file, int line)
    {
        YString entry;
        entry.sprintf("%s %s %s:%d", what, name.c_str(), file.c_str(), line);
        log.push_back(entry);
    }
};

Registry& registry()
{
    // Never destroyed: modules unloaded during exit still withdraw their registrations.
    static Registry* r = new Registry;
    return *r;
}

} // namespace

RegisterDynFuncCall::RegisterDynFuncCall(DynFuncPtr* slot, const char* name, bool, const char* sourceFile, int line, int)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    m_id = r.nextId++;
    std::string key = name ? name : "";
    std::string file = sourceFile ? sourceFile : "";
    Name& n = r.names[key];
    n.slots.push_back({m_id, slot, slot ? r.defaultOf(slot) : nullptr, file, line});
    if (slot && n.defined())
        *slot = n.defined();
    r.record("call", key, file, line);
}

RegisterDynFuncCall::~RegisterDynFuncCall()
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    for (auto& entry : r.names) {
        auto& slots = entry.second.slots;
        for (auto it = slots.begin(); it != slots.end(); ++it) {
            if (it->id == m_id) {
                r.record("-call", entry.first, it->sourceFile, it->line);
                slots.erase(it);
                return;
            }
        }
    }
}

RegisterDynFuncDef::RegisterDynFuncDef(const char* name, DynFuncPtr function, const char* sourceFile, int line, int)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    m_id = r.nextId++;
    std::string key = name ? name : "";
    std::string file = sourceFile ? sourceFile : "";
    Name& n = r.names[key];
    n.definitions.push_back({m_id, function, file, line});
    r.fill(n);
    r.record("def", key, file, line);
}

RegisterDynFuncDef::~RegisterDynFuncDef()
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    for (auto& entry : r.names) {
        auto& defs = entry.second.definitions;
        for (auto it = defs.begin(); it != defs.end(); ++it) {
            if (it->id == m_id) {
                r.record("-def", entry.first, it->sourceFile, it->line);
                defs.erase(it);
                r.fill(entry.second);
                return;
            }
        }
    }
}

DynFuncPtr sp_FindDynFuncDef(const char* name)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.names.find(name ? name : "");
    return it == r.names.end() ? nullptr : it->second.defined();
}

void sp_GetDynRegistryLog(YArray<YString>* lines)
{
    if (!lines)
        return;
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    for (const YString& line : r.log)
        lines->append(line);
}

void sp_AppendDynRegistryLog(const YString& line)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.log.push_back(line);
}
