// The data tree and the edits on it.
#include "simulator/datatree.h"

#include "simulator/treexml.h"

namespace simulator {

namespace {

std::string childPath(const DataPath &path, std::size_t steps)
{
    std::string text;
    for (std::size_t i = 0; i < steps; ++i) {
        text.append("/").append(path[i].name);
        for (const Predicate &p : path[i].predicates)
            text.append("[").append(p.key).append("='").append(p.value).append("']");
    }
    return text;
}

void selectBelow(pugi::xml_node parent, const DataPath &path, std::size_t step, std::vector<pugi::xml_node> &found)
{
    for (const pugi::xml_node child : parent.children(path[step].name.c_str())) {
        if (!stepMatches(path[step], child))
            continue;
        if (step + 1 == path.size())
            found.push_back(child);
        else
            selectBelow(child, path, step + 1, found);
    }
}

/// Adds the keys in the node's path to the node. A key in both must be the same.
Refusal addKeys(pugi::xml_node node, const PathStep &step)
{
    for (const Predicate &predicate : step.predicates) {
        const pugi::xml_node leaf = node.child(predicate.key.c_str());
        if (!leaf && !isKeyOf(node, predicate.key))
            return "not a list key of " + step.name + ": " + predicate.key;
        if (leaf && predicate.value != leaf.child_value())
            return "path and data differ in " + predicate.key + ": " + predicate.value + ", " + leaf.child_value();
        if (!leaf)
            setText(insertChild(node, predicate.key.c_str()), predicate.value);
    }
    return std::nullopt;
}

} // namespace

struct DataTree::Incoming {
    pugi::xml_document document;
    pugi::xml_node node;     // the new node, with its children in order
    pugi::xml_node parent;   // its place in the tree
    pugi::xml_node existing; // the existing node; null without one
};

DataTree::DataTree()
{
    addToIndex(m_document.append_child("state"), "/state");
}

std::vector<pugi::xml_node> DataTree::select(const DataPath &path) const
{
    std::vector<pugi::xml_node> found;
    selectBelow(m_document.root(), path, 0, found);
    return found;
}

Refusal DataTree::create(std::string_view path, std::string_view xml)
{
    Incoming incoming;
    if (Refusal refusal = readIncoming(path, xml, incoming))
        return refusal;
    if (incoming.existing)
        return "is there already: " + pathText(incoming.existing);
    insert(incoming.parent, incoming.node);
    return std::nullopt;
}

Refusal DataTree::replace(std::string_view path, std::string_view xml)
{
    Incoming incoming;
    if (Refusal refusal = readIncoming(path, xml, incoming))
        return refusal;
    if (!incoming.existing)
        return "no such node: " + std::string(path);
    if (isKeyOf(incoming.existing.parent(), incoming.existing.name()))
        return "a list key does not change: " + pathText(incoming.existing);
    put(incoming.existing, incoming.node);
    return std::nullopt;
}

Refusal DataTree::set(std::string_view path, std::string_view text)
{
    pugi::xml_node leaf;
    if (Refusal refusal = selectOne(path, leaf))
        return refusal;
    if (!isLeaf(leaf))
        return "has nodes below it (replace takes a whole node): " + pathText(leaf);
    if (isKeyOf(leaf.parent(), leaf.name()))
        return "a list key does not change: " + pathText(leaf);
    if (!isXmlText(text))
        return "XML cannot carry a control character of this value";
    changeText(leaf, std::string(text));
    return std::nullopt;
}

Refusal DataTree::patch(std::string_view path, std::string_view xml)
{
    Incoming incoming;
    if (Refusal refusal = readIncoming(path, xml, incoming))
        return refusal;
    if (incoming.existing && isKeyOf(incoming.existing.parent(), incoming.existing.name()))
        return "a list key does not change: " + pathText(incoming.existing);
    if (incoming.existing)
        mergeInto(incoming.existing, incoming.node);
    else
        insert(incoming.parent, incoming.node);
    return std::nullopt;
}

Refusal DataTree::remove(std::string_view path)
{
    pugi::xml_node node;
    if (Refusal refusal = selectOne(path, node))
        return refusal;
    if (node.parent() == m_document)
        return "the root stays: " + pathText(node);
    if (isKeyOf(node.parent(), node.name()))
        return "a list key goes with its node only: " + pathText(node);
    takeFromIndex(node, pathText(node));
    announce(Change::Op::Delete, node, {});
    node.parent().remove_child(node);
    return std::nullopt;
}

void DataTree::merge(pugi::xml_node root)
{
    mergeInto(m_document.document_element(), root);
}

Refusal DataTree::readIncoming(std::string_view path, std::string_view xml, Incoming &incoming) const
{
    std::string error;
    std::optional<DataPath> steps = parsePath(path, error);
    pugi::xml_document read;
    if (!steps || !readNode(xml, read, error))
        return error;
    const PathStep last = steps->back();
    if (last.name != read.document_element().name())
        return "the path names " + last.name + ", the data " + read.document_element().name();
    incoming.node = copyInto(incoming.document.root(), read.document_element());
    if (Refusal refusal = addKeys(incoming.node, last))
        return refusal;
    if (!hasItsKeys(incoming.node, error))
        return error;
    for (const pugi::xml_node key : keyLeaves(incoming.node))
        if (std::string_view(key.child_value()).find('\'') != std::string_view::npos)
            return std::string("a key may hold no apostrophe: ") + key.child_value();

    incoming.parent = m_document.root();
    if (steps->size() > 1) {
        if (Refusal refusal = selectOne(childPath(*steps, steps->size() - 1), incoming.parent))
            return refusal;
        if (isLeaf(incoming.parent) && incoming.parent.first_child())
            return "is a leaf with a text: " + pathText(incoming.parent);
    } else if (last.name != m_document.document_element().name()) {
        return std::string("the root is /") + m_document.document_element().name();
    }
    incoming.existing = childLike(incoming.parent, incoming.node);
    if (!incoming.existing && isKeyOf(incoming.parent, last.name))
        return "a list key comes with its node only: " + std::string(path);
    return std::nullopt;
}

Refusal DataTree::selectOne(std::string_view path, pugi::xml_node &node) const
{
    const auto known = m_index.find(std::string(path));
    if (known != m_index.end()) {
        node = known->second;
        return std::nullopt;
    }
    std::string error;
    const std::optional<DataPath> steps = parsePath(path, error);
    if (!steps)
        return error;
    const std::vector<pugi::xml_node> found = select(*steps);
    if (found.empty())
        return "no such node: " + std::string(path);
    if (found.size() > 1)
        return "names " + std::to_string(found.size()) + " nodes, the first is " + pathText(found.front());
    node = found.front();
    return std::nullopt;
}

/// The child with the name and the list keys of `node`; null without one.
pugi::xml_node DataTree::childLike(pugi::xml_node parent, pugi::xml_node node) const
{
    const auto known = m_index.find(pathText(parent) + "/" + stepText(node));
    return known != m_index.end() ? known->second : pugi::xml_node();
}

void DataTree::insert(pugi::xml_node parent, pugi::xml_node source)
{
    const pugi::xml_node node = copyInto(parent, source);
    addToIndex(node, pathText(node));
    announce(Change::Op::Create, {}, node);
}

void DataTree::put(pugi::xml_node node, pugi::xml_node source)
{
    if (isLeaf(node) && isLeaf(source)) {
        changeText(node, source.child_value());
    } else if (nodeXml(node) != nodeXml(source)) {
        const pugi::xml_node after = node.parent().insert_copy_after(source, node);
        takeFromIndex(node, pathText(node));
        addToIndex(after, pathText(after));
        announce(Change::Op::Replace, node, after);
        node.parent().remove_child(node);
    }
}

void DataTree::mergeInto(pugi::xml_node node, pugi::xml_node source)
{
    if (isLeaf(source)) {
        if (isLeaf(node))
            changeText(node, source.child_value());
        else if (source.first_child())
            put(node, source); // a text replaces nodes
        return;                // an empty element has nothing to merge
    }
    if (isLeaf(node) && node.first_child()) {
        put(node, source); // nodes replace a text
        return;
    }
    for (const pugi::xml_node child : source.children()) {
        const pugi::xml_node existing = childLike(node, child);
        if (existing)
            mergeInto(existing, child);
        else
            insert(node, child);
    }
}

void DataTree::changeText(pugi::xml_node leaf, const std::string &text)
{
    if (text == leaf.child_value())
        return;
    setText(leaf, text);
    announce(Change::Op::Replace, leaf, leaf);
}

void DataTree::announce(Change::Op op, pugi::xml_node before, pugi::xml_node after) const
{
    if (!m_listener)
        return;
    const pugi::xml_node node = after ? after : before;
    Change change{op, before, after, {}, pathText(node)};
    for (pugi::xml_node n = node; n.type() == pugi::node_element; n = n.parent())
        change.chain.insert(change.chain.begin(), n);
    m_listener(change);
}

void DataTree::addToIndex(pugi::xml_node node, const std::string &rpath)
{
    m_index.emplace(rpath, node);
    for (const pugi::xml_node child : node.children())
        if (child.type() == pugi::node_element)
            addToIndex(child, rpath + "/" + stepText(child));
}

void DataTree::takeFromIndex(pugi::xml_node node, const std::string &rpath)
{
    m_index.erase(rpath);
    for (const pugi::xml_node child : node.children())
        if (child.type() == pugi::node_element)
            takeFromIndex(child, rpath + "/" + stepText(child));
}

} // namespace simulator
