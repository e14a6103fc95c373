// Command lines as words.
#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace simulator {

/// Splits a line into words. A word that begins with ' or " ends at the next such mark; between quotation marks
/// \n \r \t \\ \" stand for one character. Quotes further on in a word belong to it and keep its blanks together, so
/// that /state/lines/line[kid='a b'] is one word. A line that begins with [ is a JSON list of texts. A # where a word
/// would begin ends the line. Nothing, with the reason in `error`, when a quote is left open.
std::optional<QStringList> splitWords(const QString &line, QString &error);

} // namespace simulator
