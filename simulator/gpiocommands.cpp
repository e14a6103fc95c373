// The commands about the GPIO tree.
#include "simulator/commandrunner.h"
#include "simulator/gpiotree.h"

#include <QFile>

namespace simulator {

namespace {

/// Runs an action that returns an error text, if there is a GPIO tree.
template <typename Action>
Reply onTree(Device &device, Action action)
{
    if (device.gpio == nullptr)
        return {Reply::Refused, QStringLiteral("no GPIO tree: talservice was started without --gpio-root")};
    const QString error = action(*device.gpio);
    return {error.isEmpty() ? Reply::Done : Reply::Refused, error};
}

QString contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()).trimmed() : QStringLiteral("missing");
}

Reply list(Device &device, const QStringList &)
{
    QStringList rows;
    const Reply reply = onTree(device, [&](const GpioTree &tree) {
        for (const GpioTree::Line &line : tree.lines()) {
            const QString folder = QStringLiteral("gpio%1").arg(line.file);
            const QString path = tree.root() + QLatin1Char('/') + folder;
            rows +=
                QStringList{line.name, QString::number(line.number), folder,
                            contentOf(path + QLatin1String("/direction")), contentOf(path + QLatin1String("/value"))}
                    .join(QLatin1Char('\t'));
        }
        return QString();
    });
    return reply.code == Reply::Done ? Reply{Reply::Done, rows.join(QLatin1Char('\n'))} : reply;
}

Reply removeTree(Device &device, const QStringList &)
{
    return onTree(device, [](GpioTree &tree) { return tree.remove(); });
}

Reply restore(Device &device, const QStringList &)
{
    return onTree(device, [](GpioTree &tree) { return tree.restore(); });
}

Reply exportLine(Device &device, const QStringList &arguments)
{
    return onTree(device, [&](GpioTree &tree) { return tree.exportLine(arguments[0]); });
}

Reply unexportLine(Device &device, const QStringList &arguments)
{
    return onTree(device, [&](GpioTree &tree) { return tree.unexportLine(arguments[0]); });
}

Reply setLevel(Device &device, const QStringList &arguments)
{
    using Level = GpioTree::Level;
    const QString &word = arguments[1];
    if (word != QLatin1String("0") && word != QLatin1String("1") && word != QLatin1String("unreadable"))
        return {Reply::Usage, usageOf("gpio")};
    const Level level = word == QLatin1String("0")   ? Level::Low
                        : word == QLatin1String("1") ? Level::High
                                                     : Level::Unreadable;
    return onTree(device, [&](GpioTree &tree) { return tree.setLevel(arguments[0], level); });
}

constexpr CommandAction gpioTable[] = {
    {"gpio", setLevel},        {"gpio list", list},         {"gpio remove", removeTree},
    {"gpio restore", restore}, {"gpio export", exportLine}, {"gpio unexport", unexportLine},
};

} // namespace

std::span<const CommandAction> gpioActions()
{
    return gpioTable;
}

} // namespace simulator
