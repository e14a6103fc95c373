// Command lines as words.
#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace simulator {

/// Splits a line into words. A word that begins with ' or " ends at the next such mark; between quotation marks
/// \n \r \t \\ \" are escapes. Quotes inside a word belong to it and protect its blanks, so
/// /state/lines/line[kid='a b'] is one word. A line that begins with [ is a JSON list of texts. A # at the start of a
/// word ends the line. Nothing, with the reason in `error`, if a quote is not closed.
std::optional<QStringList> splitWords(const QString &line, QString &error);

} // namespace simulator
