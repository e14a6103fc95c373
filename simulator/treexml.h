// XML of data tree nodes: what comes in is checked, what goes out is compact.
#pragma once

#include <pugixml.hpp>
#include <string>
#include <string_view>

namespace simulator {

/// Appends `text` to `xml`, escaped so that any reader gives it back unchanged.
void appendEscaped(std::string &xml, std::string_view text);

/// A node as XML without white space between elements.
std::string nodeXml(pugi::xml_node node);

/// True when XML 1.0 can carry the text (UTF-8).
bool isXmlText(std::string_view text);

/// Reads one element of elements and texts, as the tree holds them, into `document`. False, with the reason in `error`,
/// for anything else: attributes, text beside elements, a document type, an apostrophe in a key, two children that
/// nothing tells apart. Keys may still be missing, because a path may name them.
bool readNode(std::string_view xml, pugi::xml_document &document, std::string &error);

/// False, with the reason in `error`, when the node or one below it lacks a key that its kind cannot be without.
bool hasItsKeys(pugi::xml_node node, std::string &error);

/// Makes a child of `parent`, in its place: key leaves first, `enabled` of a trap next, all else at the end.
pugi::xml_node insertChild(pugi::xml_node parent, const char *name);

/// Copies `source` and all below it into `parent`, each child in its place.
pugi::xml_node copyInto(pugi::xml_node parent, pugi::xml_node source);

/// True for a node without element children.
bool isLeaf(pugi::xml_node node);

/// Gives a leaf its text.
void setText(pugi::xml_node leaf, const std::string &text);

} // namespace simulator
