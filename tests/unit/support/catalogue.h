// The facts of the devices in tests/catalogue, for the tests of every room.
#pragma once

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

namespace catalogue {
/// One row of a file: its cells by the name of their column.
class Row : public QHash<QString, QString> {
public:
    QString text(const char *column) const { return value(QString::fromLatin1(column)); }
    QByteArray latin1(const char *column) const { return text(column).toLatin1(); }
    QStringList list(const char *column) const { return text(column).split(QLatin1Char(' '), Qt::SkipEmptyParts); }
    /// The path of a parser with a key, whose two parts have a blank between them.
    QString pathOf(const QString &key) const
    {
        return text("path")
            .replace(QLatin1String("%1"), key.section(QLatin1Char(' '), 0, 0))
            .replace(QLatin1String("%2"), key.section(QLatin1Char(' '), 1));
    }
    /// Whether the column "models" holds the model; "all" holds every number.
    bool has(uint model) const;
    /// The same for a row that may need a station with expanders.
    bool has(uint model, bool expanders) const { return has(model) && (expanders || text("expanders").isEmpty()); }
};

/// The rows of a file, in order, with ranges written out. A file that cannot be read ends the program.
QVector<Row> rows(const char *file);

QVector<Row> rows(const char *file, const char *column, const QString &cell);

QVector<uint> models();
} // namespace catalogue
