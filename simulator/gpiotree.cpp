// The device's GPIO lines as files.
#include "simulator/gpiotree.h"

#include "simulator/messages.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <algorithm>
#include <initializer_list>

namespace simulator {

namespace {

/// An expander at an I2C address: its lines are consecutive, from `base` in the files and from `first` in the device's
/// numbers.
struct Expander {
    const char *label;
    int base;
    int first;
};

constexpr int expanderLines = 16;
constexpr Expander expander21{"1-0021", 600, 176};
constexpr Expander expander22{"1-0022", 616, 192};

/// Lines with consecutive names and numbers.
struct LineRow {
    const char *prefix;
    int suffix;
    int count;
    int number;
    const Expander *expander; // null: lines of the controller
    std::initializer_list<uint> models;
};

// clang-format off
const LineRow lineRows[] = {
    {"gpio",    1, 6, 168, nullptr,     {6211, 6214, 6259}},
    {"gpio",    1, 6, 504, nullptr,     {6891}},
    {"gpio",    7, 8, 192, &expander22, {6211, 6214, 6259, 6891}},
    {"relay",   1, 1, 174, nullptr,     {6211}},
    {"relay",   1, 1, 510, nullptr,     {6891}},
    {"relay",   1, 1, 175, nullptr,     {6214, 6259}},
    {"relay",   2, 1, 174, nullptr,     {6214, 6259}},
    {"relay",   3, 2,  84, nullptr,     {6214, 6259}}, // the data service's keys for these two are e_relay1, e_relay2
    {"e_relay", 1, 8, 176, &expander21, {6211, 6214, 6259, 6891}},
};
// clang-format on

constexpr uint shiftedModel = 6891; // its controller lines are numbered 336 higher
constexpr int shift = 336;
constexpr int highestControllerLine = 175;

/// Writes in place, without emptying the file first, so that no reader finds it empty.
bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::ReadWrite | QIODevice::Unbuffered) && file.write(content) == content.size() &&
           file.resize(content.size());
}

QByteArray levelText(GpioTree::Level level)
{
    switch (level) {
    case GpioTree::Level::Low:
        return "0\n";
    case GpioTree::Level::High:
        return "1\n";
    case GpioTree::Level::Unreadable:
        break;
    }
    return "unreadable\n"; // not a level for any reader, even for root
}

bool has(const std::initializer_list<uint> &models, uint model)
{
    return std::find(models.begin(), models.end(), model) != models.end();
}

GpioTree::Line lineFrom(const LineRow &row, int i)
{
    const int number = row.number + i;
    const int file = row.expander != nullptr ? row.expander->base + (number - row.expander->first) : number;
    const bool isRelay = QLatin1String(row.prefix) != QLatin1String("gpio");
    return {QLatin1String(row.prefix) + QString::number(row.suffix + i),
            number,
            file,
            isRelay,
            GpioTree::Level::Low,
            false};
}

} // namespace

GpioTree::GpioTree(QObject *parent, QString root, uint model)
    : QObject(parent),
      m_root(std::move(root)),
      m_controllerBase(model == shiftedModel ? shift : 0),
      m_controllerLines(highestControllerLine + 1)
{
    for (const LineRow &row : lineRows)
        for (int i = 0; has(row.models, model) && i < row.count; ++i)
            m_lines.push_back(lineFrom(row, i));
    connect(&m_watcher, &QFileSystemWatcher::fileChanged, this, &GpioTree::onFileChanged);
}

bool GpioTree::start(bool exportAll, QString &error)
{
    for (Line &line : m_lines)
        line.exported = exportAll;
    error = makeTree();
    return error.isEmpty();
}

void GpioTree::setOutput(const QString &name)
{
    if (Line *line = lineOf(name))
        line->output = true;
}

QString GpioTree::setLevel(const QString &nameOrNumber, Level level)
{
    Line *line = lineOf(nameOrNumber);
    if (line == nullptr)
        return QStringLiteral("no such line: %1").arg(nameOrNumber);
    line->level = level;
    return m_there && line->exported ? writeLevel(*line) : QString();
}

QString GpioTree::exportLine(const QString &nameOrNumber)
{
    Line *line = lineOf(nameOrNumber);
    if (line == nullptr)
        return QStringLiteral("no such line: %1").arg(nameOrNumber);
    if (line->exported)
        return QStringLiteral("%1 is exported already").arg(line->name);
    line->exported = true;
    return m_there ? makeLine(*line) : QString();
}

QString GpioTree::unexportLine(const QString &nameOrNumber)
{
    Line *line = lineOf(nameOrNumber);
    if (line == nullptr)
        return QStringLiteral("no such line: %1").arg(nameOrNumber);
    if (!line->exported)
        return QStringLiteral("%1 is not exported").arg(line->name);
    line->exported = false;
    QDir(filePath(QStringLiteral("gpio%1").arg(line->file))).removeRecursively();
    return {};
}

QString GpioTree::remove()
{
    if (!m_there)
        return QStringLiteral("the GPIO tree is removed already");
    clearRoot();
    QDir().rmdir(m_root); // fails for a mount point
    m_there = false;
    return {};
}

QString GpioTree::restore()
{
    return m_there ? QStringLiteral("the GPIO tree is in place") : makeTree();
}

/// A number was written to `export` or `unexport`.
void GpioTree::onFileChanged(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
        return; // removed with the tree
    const QByteArray text = file.readAll().trimmed();
    if (text.isEmpty())
        return; // emptied by the writer, or by the line below
    file.resize(0);
    bool isNumber = false;
    const int number = text.toInt(&isNumber);
    const auto line = std::find_if(m_lines.begin(), m_lines.end(), [&](const Line &l) { return l.file == number; });
    if (!isNumber || line == m_lines.end()) {
        say(QStringLiteral("gpio: no line for what was written to %1: %2").arg(path, QString::fromUtf8(text)));
        return;
    }
    const bool wanted = path == filePath(QStringLiteral("export"));
    say(QStringLiteral("gpio: %1 %2").arg(wanted ? QStringLiteral("export") : QStringLiteral("unexport")).arg(number));
    if (line->exported != wanted)
        wanted ? exportLine(line->name) : unexportLine(line->name);
}

/// A line by its name, or by the device's number.
GpioTree::Line *GpioTree::lineOf(const QString &nameOrNumber)
{
    const auto line = std::find_if(m_lines.begin(), m_lines.end(), [&](const Line &l) {
        return l.name == nameOrNumber || QString::number(l.number) == nameOrNumber;
    });
    return line == m_lines.end() ? nullptr : &*line;
}

QString GpioTree::makeTree()
{
    clearRoot();
    if (!QDir().mkpath(m_root))
        return QStringLiteral("cannot make the folder %1").arg(m_root);
    struct Chip {
        QByteArray label;
        int base;
        int lines;
    };
    for (const Chip &chip : {Chip{"controller", m_controllerBase, m_controllerLines},
                             Chip{expander21.label, expander21.base, expanderLines},
                             Chip{expander22.label, expander22.base, expanderLines}}) {
        const QString folder = filePath(QStringLiteral("gpiochip%1").arg(chip.base));
        if (!QDir().mkpath(folder) ||
            !writeFile(folder + QLatin1String("/base"), QByteArray::number(chip.base) + '\n') ||
            !writeFile(folder + QLatin1String("/label"), chip.label + '\n') ||
            !writeFile(folder + QLatin1String("/ngpio"), QByteArray::number(chip.lines) + '\n'))
            return QStringLiteral("cannot write %1").arg(folder);
    }
    for (const Line &line : m_lines) {
        QString error = line.exported ? makeLine(line) : QString();
        if (!error.isEmpty())
            return error;
    }
    // last, so that a reader who finds them finds the rest, too
    for (const char *name : {"unexport", "export"}) {
        const QString path = filePath(QLatin1String(name));
        if (!writeFile(path, {}) || !m_watcher.addPath(path))
            return QStringLiteral("cannot watch %1").arg(path);
    }
    m_there = true;
    return {};
}

QString GpioTree::makeLine(const Line &line) const
{
    const QString folder = filePath(QStringLiteral("gpio%1").arg(line.file));
    if (!QDir().mkpath(folder) || !writeFile(folder + QLatin1String("/direction"), line.output ? "out\n" : "in\n") ||
        !writeFile(folder + QLatin1String("/edge"), "none\n") ||
        !writeFile(folder + QLatin1String("/active_low"), "0\n"))
        return QStringLiteral("cannot write %1").arg(folder);
    return writeLevel(line);
}

QString GpioTree::writeLevel(const Line &line) const
{
    const QString path = filePath(QStringLiteral("gpio%1/value").arg(line.file));
    return writeFile(path, levelText(line.level)) ? QString() : QStringLiteral("cannot write %1").arg(path);
}

/// Removes only the files of a GPIO tree from the folder.
void GpioTree::clearRoot()
{
    if (!m_watcher.files().isEmpty())
        m_watcher.removePaths(m_watcher.files());
    static const QRegularExpression folders(QStringLiteral("^gpio(chip)?[0-9]+$"));
    for (const QString &name : QDir(m_root).entryList(QDir::Dirs | QDir::NoDotAndDotDot).filter(folders))
        QDir(filePath(name)).removeRecursively();
    QFile::remove(filePath(QStringLiteral("export")));
    QFile::remove(filePath(QStringLiteral("unexport")));
}

} // namespace simulator
