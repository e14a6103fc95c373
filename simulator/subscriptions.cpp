// Subscriptions.
#include "simulator/subscriptions.h"

#include "simulator/treexml.h"

#include <algorithm>
#include <map>

namespace simulator {

namespace {

struct Match {
    std::string rpath;
    pugi::xml_node node;
};

std::string notifyMessage(const Subscription &subscription, const char *op, const std::string &rpath,
                          pugi::xml_node node)
{
    std::string xml = "<notify><ref>";
    appendEscaped(xml, subscription.ref);
    xml.append("</ref><op>").append(op).append("</op><rpath>");
    appendEscaped(xml, rpath);
    xml += "</rpath><spath>";
    appendEscaped(xml, subscription.pathText);
    xml += "</spath><data>";
    xml += nodeXml(node);
    xml += "</data></notify>";
    return xml;
}

const char *opText(Change::Op op)
{
    switch (op) {
    case Change::Op::Create:
        return "create";
    case Change::Op::Delete:
        return "delete";
    case Change::Op::Replace:
        break;
    }
    return "replace";
}

/// The nodes below `node`, which is at `step - 1`, that match the rest of the path.
void collect(const DataPath &path, std::size_t step, pugi::xml_node node, const std::string &rpath,
             std::vector<Match> &matches)
{
    if (!node)
        return;
    if (step == path.size()) {
        matches.push_back({rpath, node});
        return;
    }
    for (const pugi::xml_node child : node.children(path[step].name.c_str()))
        if (stepMatches(path[step], child))
            collect(path, step + 1, child, rpath + "/" + stepText(child), matches);
}

/// A change above the matched nodes: reports each of them separately.
void notifyInside(const Subscription &subscription, const Change &change, const MessageSink &sink)
{
    std::vector<Match> before;
    std::vector<Match> after;
    collect(subscription.path, change.chain.size(), change.before, change.rpath, before);
    collect(subscription.path, change.chain.size(), change.after, change.rpath, after);

    std::map<std::string, pugi::xml_node> were;
    for (const Match &match : before)
        were.emplace(match.rpath, match.node);
    std::map<std::string, pugi::xml_node> are;
    for (const Match &match : after)
        are.emplace(match.rpath, match.node);

    for (const auto &[rpath, node] : before)
        if (are.count(rpath) == 0)
            sink(notifyMessage(subscription, "delete", rpath, node));
    for (const auto &[rpath, node] : after) {
        const auto was = were.find(rpath);
        if (was == were.end())
            sink(notifyMessage(subscription, "create", rpath, node));
        else if (nodeXml(was->second) != nodeXml(node))
            sink(notifyMessage(subscription, "replace", rpath, node));
    }
}

} // namespace

void notifyExisting(const Subscription &subscription, const DataTree &tree, const MessageSink &sink)
{
    for (const pugi::xml_node node : tree.select(subscription.path))
        sink(notifyMessage(subscription, "create", pathText(node), node));
}

void notifyChange(const Subscription &subscription, const Change &change, const MessageSink &sink)
{
    const DataPath &path = subscription.path;
    const std::size_t common = std::min(path.size(), change.chain.size());
    for (std::size_t i = 0; i < common; ++i)
        if (!stepMatches(path[i], change.chain[i]))
            return;
    if (path.size() > change.chain.size())
        notifyInside(subscription, change, sink);
    else
        sink(notifyMessage(subscription, opText(change.op), change.rpath, change.after ? change.after : change.before));
}

} // namespace simulator
