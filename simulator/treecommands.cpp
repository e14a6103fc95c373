// The commands about the data tree, its faults and its traps.
#include "simulator/commandrunner.h"
#include "simulator/faults.h"
#include "simulator/treexml.h"

#include <QDateTime>

namespace simulator {

namespace {

Reply replyOf(const Refusal &refusal)
{
    return refusal ? Reply{Reply::Refused, QString::fromStdString(*refusal)} : Reply{};
}

QString contentOf(pugi::xml_node node, std::string (*xmlOf)(pugi::xml_node))
{
    return isLeaf(node) ? QString::fromUtf8(node.child_value()) : QString::fromStdString(xmlOf(node));
}

Reply get(Device &device, const QStringList &arguments)
{
    std::string error;
    const std::optional<DataPath> path = parsePath(arguments[0].toStdString(), error);
    if (!path)
        return {Reply::Refused, QString::fromStdString(error)};
    const std::vector<pugi::xml_node> found = device.tree.select(*path);
    if (found.empty())
        return {Reply::Refused, QStringLiteral("no such node: %1").arg(arguments[0])};
    if (found.size() == 1)
        return {Reply::Done, contentOf(found.front(), nodeXmlInLines)};
    QStringList list;
    for (const pugi::xml_node node : found)
        list += QString::fromStdString(pathText(node)) + QLatin1Char('\t') + contentOf(node, nodeXml);
    return {Reply::Done, list.join(QLatin1Char('\n'))};
}

Reply set(Device &device, const QStringList &arguments)
{
    return replyOf(device.tree.set(arguments[0].toStdString(), arguments[1].toStdString()));
}

Reply create(Device &device, const QStringList &arguments)
{
    return replyOf(device.tree.create(arguments[0].toStdString(), arguments[1].toStdString()));
}

Reply replace(Device &device, const QStringList &arguments)
{
    return replyOf(device.tree.replace(arguments[0].toStdString(), arguments[1].toStdString()));
}

Reply patch(Device &device, const QStringList &arguments)
{
    return replyOf(device.tree.patch(arguments[0].toStdString(), arguments[1].toStdString()));
}

Reply removeNode(Device &device, const QStringList &arguments)
{
    return replyOf(device.tree.remove(arguments[0].toStdString()));
}

Reply raise(Device &device, const QStringList &arguments)
{
    constexpr int texts = 5; // the number without options
    QStringList words = arguments;
    const bool replaces = words.removeAll(QStringLiteral("--replace")) > 0;
    const bool anyLevel = words.removeAll(QString(anyOption)) > 0;
    QString timestamp = QString::number(QDateTime::currentSecsSinceEpoch());
    const int option = words.indexOf(QStringLiteral("--timestamp"));
    if (option >= 0 && option + 1 < words.size()) {
        timestamp = words.takeAt(option + 1);
        words.removeAt(option);
    }
    if (words.size() != texts)
        return {Reply::Usage, usageOf("fault raise")};
    // The device takes any other text as unclassified.
    const QStringList levels = QStringLiteral("emerg alert crit err warning notice info debug").split(QLatin1Char(' '));
    if (!anyLevel && !levels.contains(words[3]))
        return unknownWord(QStringLiteral("level"), words[3], levels);
    const Fault fault{words[0].toStdString(), words[1].toStdString(), words[2].toStdString(),
                      words[3].toStdString(), words[4].toStdString(), timestamp.toStdString()};
    return replyOf(raiseFault(device.tree, fault, replaces));
}

Reply clear(Device &device, const QStringList &arguments)
{
    return replyOf(clearFault(device.tree, arguments[0].toStdString(), arguments[1].toStdString()));
}

Reply listFaults(Device &device, const QStringList &)
{
    QStringList list;
    for (const Fault &fault : faults(device.tree)) {
        QStringList cells;
        for (const std::string *cell :
             {&fault.reporter, &fault.ref, &fault.id, &fault.level, &fault.timestamp, &fault.text})
            cells += QString::fromStdString(*cell);
        list += cells.join(QLatin1Char('\t'));
    }
    return {Reply::Done, list.join(QLatin1Char('\n'))};
}

Reply enable(Device &device, const QStringList &arguments)
{
    return replyOf(enableTrap(device.tree, arguments[0].toStdString(), true));
}

Reply disable(Device &device, const QStringList &arguments)
{
    return replyOf(enableTrap(device.tree, arguments[0].toStdString(), false));
}

Reply listTraps(Device &device, const QStringList &)
{
    QStringList list;
    for (const TrapSetting &trap : trapSettings(device.tree))
        list += QString::fromStdString(trap.name + '\t' + trap.enabled);
    return {Reply::Done, list.join(QLatin1Char('\n'))};
}

// clang-format off
constexpr CommandAction treeTable[] = {
    {"get",          get},
    {"set",          set},
    {"create",       create},
    {"replace",      replace},
    {"patch",        patch},
    {"delete",       removeNode},
    {"fault raise",  raise},
    {"fault clear",  clear},
    {"fault list",   listFaults},
    {"trap enable",  enable},
    {"trap disable", disable},
    {"trap list",    listTraps},
};
// clang-format on

} // namespace

std::span<const CommandAction> treeActions()
{
    return treeTable;
}

} // namespace simulator
