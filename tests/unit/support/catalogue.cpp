// Reads tests/catalogue.
#include "support/catalogue.h"

#include <QFile>
#include <QRegularExpression>

namespace {
QStringList cellsOf(const QString &line)
{
    QStringList cells = line.split(QLatin1Char('|'));
    for (QString &cell : cells) {
        cell = cell.trimmed();
        if (cell == QLatin1String("-"))
            cell.clear();
    }
    return cells;
}

/// The row for each number of its ranges; they all have the same length.
QVector<QStringList> writtenOut(const QStringList &cells)
{
    static const QRegularExpression range(QStringLiteral("(\\d+)\\.\\.(\\d+)"));
    const auto first = range.match(cells.join(QLatin1Char('|')));
    if (!first.hasMatch())
        return {cells};
    QVector<QStringList> all;
    const int length = first.captured(2).toInt() - first.captured(1).toInt() + 1;
    for (int place = 0; place < length; ++place) {
        QStringList row = cells;
        for (QString &cell : row)
            for (auto match = range.match(cell); match.hasMatch(); match = range.match(cell))
                cell.replace(match.capturedStart(), match.capturedLength(),
                             QString::number(match.captured(1).toInt() + place));
        all << row;
    }
    return all;
}
} // namespace

bool catalogue::Row::has(uint model) const
{
    const QStringList models = list("models");
    return models.contains(QLatin1String("all")) || models.contains(QString::number(model));
}

QVector<catalogue::Row> catalogue::rows(const char *file)
{
    static QHash<QByteArray, QVector<Row>> read;
    const auto known = read.constFind(file);
    if (known != read.constEnd())
        return *known;
    QFile source(QStringLiteral(KVSNMP_CATALOGUE "/%1.txt").arg(QLatin1String(file)));
    if (!source.open(QIODevice::ReadOnly))
        qFatal("%s cannot be read", qPrintable(source.fileName()));
    QVector<Row> all;
    QStringList columns;
    const QStringList lines = QString::fromUtf8(source.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines) {
        if (line.startsWith(QLatin1Char('#')))
            continue;
        const QStringList cells = cellsOf(line);
        if (columns.isEmpty()) {
            columns = cells;
            continue;
        }
        if (cells.size() != columns.size())
            qFatal("%s: not %d cells: %s", file, int(columns.size()), qPrintable(line));
        const QVector<QStringList> expanded = writtenOut(cells);
        for (const QStringList &values : expanded) {
            Row row;
            for (int column = 0; column < columns.size(); ++column)
                row.insert(columns[column], values[column]);
            all << row;
        }
    }
    return *read.insert(file, all);
}

QVector<catalogue::Row> catalogue::rows(const char *file, const char *column, const QString &cell)
{
    QVector<Row> found;
    const QVector<Row> all = rows(file);
    for (const Row &row : all)
        if (row.text(column) == cell)
            found << row;
    return found;
}

QVector<uint> catalogue::models()
{
    QVector<uint> numbers;
    const QVector<Row> all = rows("models");
    for (const Row &row : all)
        numbers << row.text("model").toUInt();
    return numbers;
}
