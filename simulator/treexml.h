// XML of data tree nodes: checks input, writes compact output.
#pragma once

#include <pugixml.hpp>
#include <string>
#include <string_view>

namespace simulator {

/// Appends `text` to `xml`, escaped so that every reader returns it unchanged.
void appendEscaped(std::string &xml, std::string_view text);

/// A node as XML without white space between elements.
std::string nodeXml(pugi::xml_node node);

/// The same with each element on a line, indented; readNode() reads it as the same node.
std::string nodeXmlInLines(pugi::xml_node node);

/// True if XML 1.0 can represent the text (UTF-8).
bool isXmlText(std::string_view text);

/// Reads one element of elements and texts into `document`. False, with the reason in `error`, for anything else:
/// attributes, text beside elements, a document type, an apostrophe in a key, two indistinguishable children. Keys may
/// still be missing, because a path may name them.
bool readNode(std::string_view xml, pugi::xml_document &document, std::string &error);

/// False, with the reason in `error`, if the node or one below it lacks a required key.
bool hasItsKeys(pugi::xml_node node, std::string &error);

/// Creates a child of `parent`, in order: key leaves first, `enabled` of a trap next, others at the end.
pugi::xml_node insertChild(pugi::xml_node parent, const char *name);

/// Copies `source` and everything below it into `parent`, each child in order.
pugi::xml_node copyInto(pugi::xml_node parent, pugi::xml_node source);

/// True for a node without element children.
bool isLeaf(pugi::xml_node node);

/// Sets the text of a leaf.
void setText(pugi::xml_node leaf, const std::string &text);

} // namespace simulator
