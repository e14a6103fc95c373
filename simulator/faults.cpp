// Faults and traps in the tree.
#include "simulator/faults.h"

#include "simulator/treexml.h"

#include <algorithm>

namespace simulator {

namespace {

const DataPath messagesPath{{"state", {}}, {"sys_messages", {}}, {"sys_message", {}}};
const DataPath trapsPath{{"state", {}},         {"config", {}}, {"snmp_settings", {}},
                         {"trap_settings", {}}, {"traps", {}},  {"trap", {}}};

std::string faultPath(const std::string &reporter, const std::string &ref)
{
    return "/state/sys_messages/sys_message[reporter='" + reporter + "'][rep_ref='" + ref + "']";
}

std::string leafXml(const char *name, const std::string &text)
{
    std::string xml = std::string("<") + name + ">";
    appendEscaped(xml, text);
    return xml + "</" + name + ">";
}

} // namespace

Refusal raiseFault(DataTree &tree, const Fault &fault, bool replace)
{
    if (fault.reporter.find('\'') != std::string::npos || fault.ref.find('\'') != std::string::npos)
        return "reporter and reference may hold no apostrophe";
    if (!fault.id.empty() && !isElementName(fault.id))
        return "not a message identifier: " + fault.id;
    for (const std::string *text : {&fault.reporter, &fault.ref, &fault.level, &fault.text, &fault.timestamp})
        if (!isXmlText(*text))
            return "XML cannot carry a control character of this value";

    const std::string path = faultPath(fault.reporter, fault.ref);
    const std::string xml = "<sys_message>" + leafXml("reporter", fault.reporter) + leafXml("rep_ref", fault.ref) +
                            "<msgdata>" + (fault.id.empty() ? "" : "<" + fault.id + "/>") + "</msgdata>" +
                            leafXml("text", fault.text) + leafXml("timestamp", fault.timestamp) +
                            leafXml("level", fault.level) + "</sys_message>";
    return replace && tree.contains(path) ? tree.replace(path, xml) : tree.create(path, xml);
}

Refusal clearFault(DataTree &tree, const std::string &reporter, const std::string &ref)
{
    return tree.remove(faultPath(reporter, ref));
}

std::vector<Fault> faults(const DataTree &tree)
{
    std::vector<Fault> list;
    for (const pugi::xml_node node : tree.select(messagesPath))
        list.push_back({node.child_value("reporter"), node.child_value("rep_ref"),
                        node.child("msgdata").first_child().name(), node.child_value("level"), node.child_value("text"),
                        node.child_value("timestamp")});
    return list;
}

Refusal enableTrap(DataTree &tree, const std::string &name, bool enabled)
{
    const std::vector<TrapSetting> traps = trapSettings(tree);
    if (std::none_of(traps.begin(), traps.end(), [&](const TrapSetting &trap) { return trap.name == name; }))
        return "no such trap: " + name;
    return tree.patch("/state/config/snmp_settings/trap_settings/traps/trap[name='" + name + "']/enabled",
                      enabled ? "<enabled>true</enabled>" : "<enabled>false</enabled>");
}

std::vector<TrapSetting> trapSettings(const DataTree &tree)
{
    std::vector<TrapSetting> list;
    for (const pugi::xml_node trap : tree.select(trapsPath))
        list.push_back({trap.child_value("name"), trap.child_value("enabled")});
    return list;
}

} // namespace simulator
