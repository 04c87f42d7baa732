// DatesAndUrls.h - dates and times as text, file URLs, unique identifiers and the GUI test.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

#include <QString>
#include <cstdio>

/// The current local date and time in a Qt date-time format ("yyyy-MM-dd hh:mm").
SUPPORTQT_API YString sp_GetDateUserFormat(YString format);
/// Today's local date: ISO 8601 ("2026-11-22") or the system locale's short form.
SUPPORTQT_API YString sp_GetFormattedDate(bool iso);
/// The current local time: "hh:mm:ss.zzz" when precise, else the system locale's short form.
SUPPORTQT_API YString sp_GetFormattedTime(bool precise);
/// Milliseconds since 1970-01-01 00:00 UTC.
SUPPORTQT_API long long sp_GetNormalisedTime();
/// The local date and time of a normalised time: ISO 8601 ("2026-11-22T09:05:03") or the locale's form;
/// empty for a time within two days of the 64-bit limits, which no local date and time can stand for,
/// and in the ISO form for a local year outside 1 to 9999, which Qt's ISO 8601 text does not write.
/// Times before 1970 take Qt's local offset there, which knows no summer time and no older offsets.
SUPPORTQT_API YString sp_GetFormattedNormalisedTime(long long ms, bool iso);
/// A file's modification date or time of day in the locale's short form; empty when it cannot be had or
/// lies too far off to be shown.
/// The seconds of the file time are added to local midnight of 1970-01-01 (not UTC midnight), on purpose.
/// The modification date of an open stream, which stays open and the caller's; empty for a null stream.
SUPPORTQT_API YString sp_GetFormattedFileDate(FILE* file);
/// The modification date of the file at `path`; empty for a null path.
SUPPORTQT_API YString sp_GetFormattedFileDate(const char* path);
/// The modification time of day of an open stream, which stays open and the caller's.
SUPPORTQT_API YString sp_GetFormattedFileTime(FILE* file);
/// The modification time of day of the file at `path`; empty for a null path.
SUPPORTQT_API YString sp_GetFormattedFileTime(const char* path);
/// The local path named by a "file://" URL or by a plain path (returned with forward slashes); empty when
/// it would hold a NUL ("%00"), which no file's name does.
SUPPORTQT_API QString sp_GetLocalFileFromUrl(QString url);
/// The same on UTF-8 text.
SUPPORTQT_API YString sp_GetLocalFileFromUrl(YString url);
/// The "file://" URL of a path (made absolute), in readable form: blanks and non-ASCII not encoded.
SUPPORTQT_API QString sp_MakeFileUrl(QString path);
/// The same on UTF-8 text.
SUPPORTQT_API YString sp_MakeFileUrl(YString path);
/// A fresh random identifier: "{8-4-4-4-12}" lower-case hexadecimal digits, 38 characters.
SUPPORTQT_API YString sp_GetGUID();
/// True when the process's application object is a widget application.
SUPPORTQT_API bool sp_HasGui();
