// Paths of the data tree.
#include "simulator/datapath.h"

#include <algorithm>

namespace simulator {

namespace {

bool isNameStart(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || static_cast<unsigned char>(c) >= 0x80;
}

bool isNameByte(char c)
{
    return isNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

/// Scans the text of a path; each take...() consumes its result.
class PathReader {
public:
    explicit PathReader(std::string_view text) : m_rest(text) {}

    bool atEnd() const { return m_rest.empty(); }

    bool take(char c)
    {
        if (m_rest.empty() || m_rest.front() != c)
            return false;
        m_rest.remove_prefix(1);
        return true;
    }

    std::string_view takeName()
    {
        std::size_t size = 0;
        while (size < m_rest.size() && (size == 0 ? isNameStart(m_rest[0]) : isNameByte(m_rest[size])))
            ++size;
        return takeBytes(size);
    }

    std::optional<std::string_view> takeUntil(char end)
    {
        const std::size_t size = m_rest.find(end);
        if (size == std::string_view::npos)
            return std::nullopt;
        const std::string_view taken = takeBytes(size);
        m_rest.remove_prefix(1);
        return taken;
    }

private:
    std::string_view takeBytes(std::size_t size)
    {
        const std::string_view taken = m_rest.substr(0, size);
        m_rest.remove_prefix(size);
        return taken;
    }

    std::string_view m_rest;
};

/// Reads the text after a '['. False if it is malformed.
bool readPredicate(PathReader &reader, Predicate &predicate)
{
    predicate.key = reader.takeName();
    if (predicate.key.empty() || !reader.take('='))
        return false;
    const char quote = reader.take('\'') ? '\'' : reader.take('"') ? '"' : '\0';
    const std::optional<std::string_view> value = reader.takeUntil(quote != '\0' ? quote : ']');
    if (!value || (quote != '\0' && !reader.take(']')))
        return false;
    predicate.value = *value;
    return quote != '\0' || !value->empty();
}

bool hasLeaf(pugi::xml_node node, const Predicate &predicate)
{
    const pugi::xml_node leaf = node.child(predicate.key.c_str());
    return leaf && predicate.value == leaf.child_value();
}

} // namespace

std::optional<DataPath> parsePath(std::string_view text, std::string &error)
{
    DataPath path;
    PathReader reader(text);
    while (!reader.atEnd()) {
        if (!reader.take('/'))
            break;
        PathStep &step = path.emplace_back();
        step.name = reader.takeName();
        if (step.name.empty())
            break;
        while (reader.take('[')) {
            if (!readPredicate(reader, step.predicates.emplace_back())) {
                error = "malformed predicate after '" + step.name + "' in path: " + std::string(text);
                return std::nullopt;
            }
        }
    }
    if (!reader.atEnd() || path.empty() || path.back().name.empty()) {
        error = "malformed path (one is like /state/fans/fan[kid='fan1']): " + std::string(text);
        return std::nullopt;
    }
    return path;
}

bool isElementName(std::string_view text)
{
    return !text.empty() && isNameStart(text.front()) && std::all_of(text.begin(), text.end(), isNameByte);
}

std::array<const char *, 2> keyNames(std::string_view elementName)
{
    if (elementName == "sys_message")
        return {"reporter", "rep_ref"};
    if (elementName == "trap")
        return {"name", nullptr};
    return {"kid", "port_id"};
}

std::vector<pugi::xml_node> keyLeaves(pugi::xml_node node)
{
    std::vector<pugi::xml_node> leaves;
    for (const pugi::xml_node child : node.children()) {
        if (!isKeyOf(node, child.name()))
            break; // do not search a list of thousands of nodes for keys
        leaves.push_back(child);
    }
    return leaves;
}

bool isKeyOf(pugi::xml_node parent, std::string_view name)
{
    const std::array<const char *, 2> names = keyNames(parent.name());
    return std::any_of(names.begin(), names.end(), [&](const char *key) { return key != nullptr && name == key; });
}

bool stepMatches(const PathStep &step, pugi::xml_node node)
{
    return step.name == node.name() && std::all_of(step.predicates.begin(), step.predicates.end(),
                                                   [&](const Predicate &p) { return hasLeaf(node, p); });
}

std::string stepText(pugi::xml_node node)
{
    std::string text = node.name();
    for (const pugi::xml_node leaf : keyLeaves(node))
        text.append("[").append(leaf.name()).append("='").append(leaf.child_value()).append("']");
    return text;
}

std::string pathText(pugi::xml_node node)
{
    return node.type() == pugi::node_element ? pathText(node.parent()) + "/" + stepText(node) : std::string();
}

} // namespace simulator
