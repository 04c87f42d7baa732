// DynFunc.h - the suite's exception base and the process-wide registry of named functions.
#pragma once

#include "SupportDllExport.h"
#include "YContainers.h"
#include "YString.h"

#include <exception>

/// The suite's exception base: a 32-bit code and a message of at most 999 bytes.
class SUPPORTDLL_API KalvontaException : public std::exception {
public:
    KalvontaException();
    KalvontaException(int code, const char* message);
    ~KalvontaException() override;

    int code() const { return m_code; }
    const char* message() const { return m_message; }
    const char* what() const noexcept override { return m_message; }

protected:
    int m_code;
    char m_message[1000];
};

/// Thrown by a call through a dynamic-function slot that no module has resolved (code 9).
class SUPPORTDLL_API DynFuncException : public KalvontaException {
public:
    DynFuncException(int code, const char* message) : KalvontaException(code, message) {}
    ~DynFuncException() override;
};

/// Throws the DynFuncException of an unresolved call of the named slot: code 9, message
/// "*** FATAL ERROR *** Unresolved dynamic function '<name>' called".
[[noreturn]] SUPPORTDLL_API void sp_ThrowUnresolvedDynFunc(const char* name);

/// The generic function-pointer type the registry stores.
typedef void (*DynFuncPtr)();

/// A call slot: the registry writes the address of the function defined under `name` into `*slot`
/// whenever a definition of that name exists, and puts back the slot's original content (its default)
/// when the last definition is withdrawn. Names compare exactly (case-sensitive). Destruction withdraws
/// the slot without touching it. A slot registered again while registered keeps the default it had at
/// its first registration, not the definition it may hold by then.
class SUPPORTDLL_API RegisterDynFuncCall {
public:
    template <class F>
    RegisterDynFuncCall(F* slot, const char* name, bool flag, const char* sourceFile, int line)
        : RegisterDynFuncCall(reinterpret_cast<DynFuncPtr*>(slot), name, flag, sourceFile, line, 0)
    {
    }
    ~RegisterDynFuncCall();
    RegisterDynFuncCall(const RegisterDynFuncCall&) = delete;
    RegisterDynFuncCall& operator=(const RegisterDynFuncCall&) = delete;

private:
    RegisterDynFuncCall(DynFuncPtr* slot, const char* name, bool flag, const char* sourceFile, int line, int);
    long long m_id;
};

/// A definition: offers `function` under `name`. Every slot of that name holds the definition that was
/// registered first among those present. Destruction withdraws it; its slots then get the next
/// definition of the name, or their defaults. A null `function` defines nothing: it is logged, and
/// neither fills a slot nor is found.
class SUPPORTDLL_API RegisterDynFuncDef {
public:
    template <class F>
    RegisterDynFuncDef(const char* name, F* function, const char* sourceFile, int line)
        : RegisterDynFuncDef(name, reinterpret_cast<DynFuncPtr>(function), sourceFile, line, 0)
    {
    }
    ~RegisterDynFuncDef();
    RegisterDynFuncDef(const RegisterDynFuncDef&) = delete;
    RegisterDynFuncDef& operator=(const RegisterDynFuncDef&) = delete;

private:
    RegisterDynFuncDef(const char* name, DynFuncPtr function, const char* sourceFile, int line, int);
    long long m_id;
};

/// The function currently defined under `name` (the first registered of those present that is not
/// null), or null. It belongs to the module that defined it and stays valid only while that module is
/// loaded.
SUPPORTDLL_API DynFuncPtr sp_FindDynFuncDef(const char* name);

/// Every registration and withdrawal made so far, in order, one line each:
/// "call NAME FILE:LINE", "def NAME FILE:LINE", "option NAME FILE:LINE", and the same with a leading
/// "-" for a withdrawal. Appended to `lines`.
SUPPORTDLL_API void sp_GetDynRegistryLog(YArray<YString>* lines);
/// Internal: records a line in the registry log (used by the option declarations).
SUPPORTDLL_API void sp_AppendDynRegistryLog(const YString& line);
