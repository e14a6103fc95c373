// The data tree and the edits on it. Reports each change to its listener, node by node.
#pragma once

#include "simulator/datapath.h"

#include <functional>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace simulator {

/// One node that was created, changed or deleted.
struct Change {
    enum class Op { Create, Replace, Delete };

    Op op;
    pugi::xml_node before;             ///< the old node; null for Create
    pugi::xml_node after;              ///< the new node; null for Delete
    std::vector<pugi::xml_node> chain; ///< from the root element to the node
    std::string rpath;                 ///< path of the node, with its list keys
};

/// Nothing if an edit was applied, otherwise the reason.
using Refusal = std::optional<std::string>;

class DataTree {
public:
    using Listener = std::function<void(const Change &)>;

    DataTree();

    /// The only listener; called while the node of `Change` is still, or already, in the tree.
    void setListener(Listener listener) { m_listener = std::move(listener); }

    /// The nodes that the path matches, in document order.
    std::vector<pugi::xml_node> select(const DataPath &path) const;

    /// True if a node with exactly this path exists, with a predicate for each list key.
    bool contains(const std::string &rpath) const { return m_index.count(rpath) != 0; }

    /// Creates the node; refused if it exists or its parent does not.
    Refusal create(std::string_view path, std::string_view xml);
    /// Replaces an existing node.
    Refusal replace(std::string_view path, std::string_view xml);
    /// Sets the text of an existing leaf.
    Refusal set(std::string_view path, std::string_view text);
    /// Creates the node or merges into the existing one, list nodes by their keys; reports each changed node.
    Refusal patch(std::string_view path, std::string_view xml);
    /// Removes an existing node.
    Refusal remove(std::string_view path);

    /// Merges a whole tree, including the root element; for the tree files.
    void merge(pugi::xml_node root);

private:
    struct Incoming; // the node of an edit, and its parent in the tree

    Refusal readIncoming(std::string_view path, std::string_view xml, Incoming &incoming) const;
    Refusal selectOne(std::string_view path, pugi::xml_node &node) const;
    pugi::xml_node childLike(pugi::xml_node parent, pugi::xml_node node) const;
    void insert(pugi::xml_node parent, pugi::xml_node source);
    void put(pugi::xml_node node, pugi::xml_node source);
    void mergeInto(pugi::xml_node node, pugi::xml_node source);
    void changeText(pugi::xml_node leaf, const std::string &text);
    void announce(Change::Op op, pugi::xml_node before, pugi::xml_node after) const;

    void addToIndex(pugi::xml_node node, const std::string &rpath);
    void takeFromIndex(pugi::xml_node node, const std::string &rpath);

    pugi::xml_document m_document;
    std::unordered_map<std::string, pugi::xml_node>
        m_index; // every node by its path: lists can have thousands of nodes
    Listener m_listener;
};

} // namespace simulator
