// Platform_p.h - the core library's platform seam: one implementation per host in Platform_<host>.cpp.
#pragma once

#include "YString.h"

#include <cstdio>
#include <string>

namespace platform {
FILE* openFile(const char* utf8Path, const char* mode);
int seekFile(FILE* file, long long offset);
/// Moves to the end of the file; 0 on success.
int seekFileToEnd(FILE* file);
long long tellFile(FILE* file);
int removeFile(const char* utf8Path);
int renameFile(const char* from, const char* to);
bool exists(const char* utf8Path);
bool isDirectory(const char* utf8Path);
/// Whether the path names a regular file (links followed); false for folders, FIFOs, devices, sockets.
bool isRegularFile(const char* utf8Path);
/// Whether an open file is a regular file on disk.
bool isRegularFile(FILE* file);
long long fileSize(const char* utf8Path);
/// The size of an open file; -1 when the system cannot tell it.
long long fileSize(FILE* file);
long long modifiedTime(const char* utf8Path);
long long modifiedTime(FILE* file);
YString tempDirectory();
/// Creates a new empty file with a unique name in `dir`; empty on failure.
YString createUniqueFile(const YString& dir);
YString executableDirectory();
bool getEnvironment(const char* name, YString* value);
double monotonicSeconds();
/// Tells the system that a large heap block is about to be filled from start to end, so that it may
/// back the pages wholly inside it with large pages: one fault per 2 MiB instead of per 4 KiB. A hint;
/// changes no byte.
void adviseLargeBlock(void* block, size_t bytes);
int pidFromQtPid(long long qtPid);
bool processRunning(int pid);
bool setPriority(int pid, int threadPriority);
int getPriority(int pid);
int currentProcessId();
int verifySignature(const char* utf8Path);
void writeConsole(const char* text, size_t length);
/// The UTF-8 text with its letters in lower case, as names of files that ignore case are compared: on
/// Windows every letter the system folds, elsewhere ASCII letters only; text that is not UTF-8 has its
/// ASCII letters folded.
std::string foldCase(const std::string& utf8);
} // namespace platform
