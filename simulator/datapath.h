// Paths of the data tree: /state/lines/line[kid='ch1']/enable
#pragma once

#include <array>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace simulator {

/// One `[key='value']` of a step.
struct Predicate {
    std::string key;
    std::string value;
};

/// One step: an element name and the predicates that select elements of that name.
struct PathStep {
    std::string name;
    std::vector<Predicate> predicates;
};

using DataPath = std::vector<PathStep>;

/// Reads an absolute path. Values are in apostrophes, in quotation marks or bare, without significant blanks; '/', ']'
/// and blanks inside quotes belong to the value. Nothing, with the reason in `error`, for a malformed path.
std::optional<DataPath> parsePath(std::string_view text, std::string &error);

/// True for a text that can be an element's name in a path.
bool isElementName(std::string_view text);

/// The leaves that can identify list nodes of this element name; unused places are null.
std::array<const char *, 2> keyNames(std::string_view elementName);

/// The key leaves of this node, its first children (readNode() ensures this); none if it is not a list node.
std::vector<pugi::xml_node> keyLeaves(pugi::xml_node node);

/// True if a child of this name is, or would be, a key leaf of `parent`.
bool isKeyOf(pugi::xml_node parent, std::string_view name);

/// True if the node has the step's name and, for each predicate, a leaf with that text.
bool stepMatches(const PathStep &step, pugi::xml_node node);

/// Name of a node with a predicate for each of its list keys; unique among its siblings.
std::string stepText(pugi::xml_node node);

/// Absolute path of a node, with a predicate for each list key on every list step.
std::string pathText(pugi::xml_node node);

} // namespace simulator
