// Checks the GPIO lines of a station model without exporting any.
#include "check/gpiosurvey.h"

#include "check/processes.h"

#include <QByteArray>
#include <QDir>
#include <QFileInfo>

#include <optional>

namespace {

struct Chip {
    Expander expander;
    const char *labelEnd;
    int firstLine; ///< the number of its first line in the tables
};
constexpr Chip chips[] = {{Expander::At0x21, "-0021", 176}, {Expander::At0x22, "-0022", 192}};

/// The kernel's offset to the numbers of the tables; nothing without the chip.
std::optional<int> offsetOf(const Chip &chip, const QString &root)
{
    for (const QString &folder :
         QDir(root).entryList({QStringLiteral("gpiochip*")}, QDir::Dirs | QDir::System, QDir::Name)) {
        const QString path = root + QLatin1Char('/') + folder;
        bool isNumber = false;
        const int base = contentsOf(path + QStringLiteral("/base")).trimmed().toInt(&isNumber);
        if (isNumber && contentsOf(path + QStringLiteral("/label")).trimmed().endsWith(chip.labelEnd))
            return base - chip.firstLine;
    }
    return std::nullopt;
}

std::optional<int> offsetOf(Expander expander, const QString &root, GpioSurvey &tree)
{
    for (const Chip &chip : chips) {
        if (chip.expander != expander)
            continue;
        const std::optional<int> offset = offsetOf(chip, root);
        if (!offset)
            tree.missingChips.append(QLatin1String(chip.labelEnd));
        return offset;
    }
    return 0; // on the controller
}

void lookAt(const LineSet &set, const QString &root, GpioSurvey &tree)
{
    tree.lines += static_cast<int>(set.lines.size());
    const std::optional<int> offset = offsetOf(set.expander, root, tree);
    if (!offset)
        return;
    for (const int line : set.lines) {
        const int number = line + *offset;
        const QByteArray value = contentsOf(QStringLiteral("%1/gpio%2/value").arg(root).arg(number)).trimmed();
        if (value != "0" && value != "1")
            tree.unreadable.append(QString::number(number));
    }
}

} // namespace

GpioSurvey surveyGpio(const QString &root, std::uint32_t model, bool expanders)
{
    GpioSurvey tree;
    tree.exists = QFileInfo(root).isDir();
    if (!tree.exists)
        return tree;
    for (const LineSet &set : gpioLines)
        if (deviceHas(set, model, expanders))
            lookAt(set, root, tree);
    for (const LineSet &set : relayLines)
        if (deviceHas(set, model, expanders))
            lookAt(set, root, tree);
    return tree;
}
