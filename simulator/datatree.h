// The data tree and the edits on it. Whoever listens is told of each change, node by node.
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

/// One node that came, changed or went.
struct Change {
    enum class Op { Create, Replace, Delete };

    Op op;
    pugi::xml_node before;             ///< the node as it was; null for Create
    pugi::xml_node after;              ///< the node as it is; null for Delete
    std::vector<pugi::xml_node> chain; ///< from the root element to the node itself
    std::string rpath;                 ///< path of the node, with its list keys
};

/// Nothing when an edit was applied, else why it was not.
using Refusal = std::optional<std::string>;

class DataTree {
public:
    using Listener = std::function<void(const Change &)>;

    DataTree();

    /// The one listener; it is called while the node of `Change` still, or already, stands in the tree.
    void setListener(Listener listener) { m_listener = std::move(listener); }

    /// The nodes that the path matches, in document order.
    std::vector<pugi::xml_node> select(const DataPath &path) const;

    /// True when there is a node of exactly this path, with a predicate for each list key.
    bool contains(const std::string &rpath) const { return m_index.count(rpath) != 0; }

    /// Makes the node; refused when it is there or when its parent is not.
    Refusal create(std::string_view path, std::string_view xml);
    /// Puts a whole node in the place of the one that is there.
    Refusal replace(std::string_view path, std::string_view xml);
    /// Gives the leaf, which is there, its text.
    Refusal set(std::string_view path, std::string_view text);
    /// Makes the node or merges into the one that is there, list nodes by their keys; each node that changes is told.
    Refusal patch(std::string_view path, std::string_view xml);
    /// Removes the node, which is there.
    Refusal remove(std::string_view path);

    /// Merges a whole tree, root element included; for the tree files.
    void merge(pugi::xml_node root);

private:
    struct Incoming; // a node that an edit brings, and its parent in the tree

    Refusal readIncoming(std::string_view path, std::string_view xml, Incoming &incoming) const;
    Refusal selectOne(std::string_view path, pugi::xml_node &node) const;
    pugi::xml_node childLike(pugi::xml_node parent, pugi::xml_node node) const;
    void insert(pugi::xml_node parent, pugi::xml_node source);
    void put(pugi::xml_node node, pugi::xml_node source);
    void mergeInto(pugi::xml_node node, pugi::xml_node source);
    void changeText(pugi::xml_node leaf, const std::string &text);
    void tell(Change::Op op, pugi::xml_node before, pugi::xml_node after) const;

    void addToIndex(pugi::xml_node node, const std::string &rpath);
    void takeFromIndex(pugi::xml_node node, const std::string &rpath);

    pugi::xml_document m_document;
    std::unordered_map<std::string, pugi::xml_node> m_index; // every node by its path: lists get thousands of nodes
    Listener m_listener;
};

} // namespace simulator
