// DatesAndUrls_p.h - the date-time formatter behind sp_GetDateUserFormat.
#pragma once

#include <QDateTime>
#include <QString>

namespace datesandurls {
/// `time` formatted with the Qt date-time format `format`, exactly as `QDateTime::toString` formats it.
/// Qt copies the rest of the format at each field, and counts the whole rest of a run of one letter, so a
/// long format costs the square of its length: it is formatted in pieces of about `pieceLength`
/// characters, cut outside quotes between two runs of letters (never inside "ap") and inside a longer
/// run at multiples of 12 letters from its start, before its last letter: every field is 1 to 4 letters
/// long, and greedy, so a field ends there too.
QString formatDateTime(const QDateTime& time, const QString& format, int pieceLength = 1200);
} // namespace datesandurls
