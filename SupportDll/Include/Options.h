// Options.h - user options, initialisation files, system values and the suite's version record.
#pragma once

#include "SupportDllExport.h"
#include "YString.h"

/// How a declared option's value may be cached by the registry; the registry keeps no cache, so every
/// value is read anew (0 is what this suite passes).
enum OptionCacheStatus { OptionCacheNone = 0, OptionCacheValue = 1 };

/// Module-level declaration of a user option with its default. The declaration is withdrawn when the
/// object is destroyed (at module unload); a value set with `sp_SetOption` outlives declarations.
class SUPPORTDLL_API MakeOption {
public:
    MakeOption(const char* sourceFile, int line, const YString& name, const char* defaultValue,
               OptionCacheStatus cache, bool flag);
    MakeOption(const char* sourceFile, int line, const YString& name, bool defaultValue,
               OptionCacheStatus cache, bool flag);
    ~MakeOption();
    MakeOption(const MakeOption&) = delete;
    MakeOption& operator=(const MakeOption&) = delete;

private:
    YString m_name;
    long long m_id;
};

/// Sets an option's value (names compare ignoring case). A null value removes the set value, so the
/// declared default applies again.
SUPPORTDLL_API void sp_SetOption(const char* name, const char* value);
/// Sets an option to the text "true" or "false".
SUPPORTDLL_API void sp_SetBoolOption(const char* name, bool value);
/// The option's set value, else its declared default, else empty. `found` (may be null) tells whether
/// the option is declared or set.
SUPPORTDLL_API YString sp_GetOption(const char* name, bool* found);
/// The option read as a boolean: "1", "true", "yes", "on" (any case) are true; false when unset.
SUPPORTDLL_API bool sp_GetBoolOption(const char* name, bool* found);
/// True while an option of that name is declared by some module.
SUPPORTDLL_API bool sp_IsOptionDeclared(const char* name);

/// Reads `key` of `[section]` from an initialisation file into `*out` (blanks around the value removed,
/// one pair of surrounding double quotes removed). Section and key compare ignoring case; lines starting
/// with ";" or "#" are comments. False, with `*out` untouched, when the file, section or key is absent, or
/// when the file is no regular file of at most 64 MiB (a FIFO or a device is not read).
[[nodiscard]] SUPPORTDLL_API bool sp_GetPrivateProfileString(const char* section, const char* key, const char* file, YString* out);

/// The system path value of that name: the environment variable. `found` (may be null) says whether it
/// is set; empty when not.
SUPPORTDLL_API YString sp_GetSystemValuePath(const YString& name, bool* found);

/// The suite's version record.
struct KalvontaVersionInfo {
    int release = 0;        ///< major number
    int subRelease = 0;     ///< minor number times 10 plus the patch number (1.2.3 gives 23)
    int build = 0;          ///< build number
    int signatureCheck = 0; ///< 0: modules are not signature-checked; 1 or 2: they are
};

/// Fills the record with the project's version and the build's signature-check setting; the option
/// "SignatureCheck", when set, overrides the latter. Values set with `sp_SetVersionValues` win.
SUPPORTDLL_API void sp_GetVersionValues(KalvontaVersionInfo* info);
/// Replaces the reported version record (null restores the built-in one); for embedding applications.
/// The record is copied: the caller keeps its own.
SUPPORTDLL_API void sp_SetVersionValues(const KalvontaVersionInfo* info);

/// 0 when the module file's embedded code signature is valid; -1 when the file cannot be read. On
/// Windows this is Authenticode (WinVerifyTrust), whose status is returned as it is (an unsigned
/// module gives TRUST_E_NOSIGNATURE). Hosts without embedded signatures accept any existing file that
/// is a loadable module of the host's format (ELF or Mach-O): 0; 2 when it is not a module.
[[nodiscard]] SUPPORTDLL_API int sp_VerifyEmbeddedSignature(const char* path);
