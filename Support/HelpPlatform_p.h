// HelpPlatform_p.h - the system's handlers for web pages, one implementation per platform.
#pragma once

#include <QByteArray>
#include <QString>

namespace helpplatform {
/// Opens `url` with the system's handler for it; true when the handler was started.
bool openWithSystemHandler(const QString& url);
/// The program registered for the existing file `localFile` (an HTML file); empty when none.
QString programForFile(const QString& localFile);
/// Whether the system has a program for the existing file `localFile`; on Windows asked through the
/// ANSI form of the shell's query, as the web-page test has always asked it.
bool hasProgramForFile(const QString& localFile);
/// Makes the empty file `path` (UTF-8) when no file, folder or link of that name is there; false, touching
/// nothing, when one is or the file cannot be made.
bool createNewFile(const QByteArray& path);
/// Starts `program` with `argument` as its single parameter; true when it was started.
bool startProgram(const QString& program, const QString& argument);
} // namespace helpplatform
