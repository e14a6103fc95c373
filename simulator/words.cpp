// Command lines as words.
#include "simulator/words.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace simulator {

namespace {

QChar unescaped(QChar c)
{
    switch (c.unicode()) {
    case 'n':
        return QLatin1Char('\n');
    case 'r':
        return QLatin1Char('\r');
    case 't':
        return QLatin1Char('\t');
    default:
        return c;
    }
}

/// The quoted word at `place`; moves `place` past its end. Nothing if the quote is not closed.
std::optional<QString> quotedWord(const QString &line, int &place)
{
    const QChar quote = line[place];
    QString word;
    for (++place; place < line.size(); ++place) {
        if (line[place] == quote) {
            ++place;
            return word;
        }
        const bool escape = quote == QLatin1Char('"') && line[place] == QLatin1Char('\\') && place + 1 < line.size();
        word += escape ? unescaped(line[++place]) : line[place];
    }
    return std::nullopt;
}

/// The unquoted word at `place`; quotes inside it stay and protect blanks.
std::optional<QString> bareWord(const QString &line, int &place)
{
    const int start = place;
    QChar open;
    for (; place < line.size(); ++place) {
        const QChar c = line[place];
        if (!open.isNull()) {
            if (c == open)
                open = QChar();
        } else if (c.isSpace()) {
            break;
        } else if ((c == QLatin1Char('\'') || c == QLatin1Char('"')) && line[place - 1] == QLatin1Char('=')) {
            open = c;
        }
    }
    return open.isNull() ? std::optional(line.mid(start, place - start)) : std::nullopt;
}

std::optional<QStringList> jsonWords(const QString &line, QString &error)
{
    const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8());
    QStringList words;
    const QJsonArray array = document.array();
    for (const auto &value : array) {
        if (!value.isString()) {
            error = QStringLiteral("not a list of texts");
            return std::nullopt;
        }
        words += value.toString();
    }
    if (!document.isArray()) {
        error = QStringLiteral("malformed JSON list");
        return std::nullopt;
    }
    return words;
}

} // namespace

std::optional<QStringList> splitWords(const QString &line, QString &error)
{
    const QString trimmed = line.trimmed();
    if (trimmed.startsWith(QLatin1Char('[')))
        return jsonWords(trimmed, error);

    QStringList words;
    int place = 0;
    while (place < trimmed.size()) {
        const QChar c = trimmed[place];
        if (c.isSpace()) {
            ++place;
            continue;
        }
        if (c == QLatin1Char('#'))
            break;
        const bool quoted = c == QLatin1Char('\'') || c == QLatin1Char('"');
        const std::optional<QString> word = quoted ? quotedWord(trimmed, place) : bareWord(trimmed, place);
        if (!word || (quoted && place < trimmed.size() && !trimmed[place].isSpace())) {
            error = word ? QStringLiteral("no blank after a quoted word") : QStringLiteral("a quote is left open");
            return std::nullopt;
        }
        words += *word;
    }
    return words;
}

} // namespace simulator
