// XML of data tree nodes.
#include "simulator/treexml.h"

#include "simulator/datapath.h"

#include <QXmlStreamReader>
#include <algorithm>
#include <optional>
#include <set>

namespace simulator {

namespace {

constexpr int maxDepth = 64; // far beyond any real tree

/// Checks for malformed XML that the tree's parser accepts, and for content that the tree cannot store.
bool checkText(std::string_view xml, std::string &error)
{
    QXmlStreamReader reader(QByteArray::fromRawData(xml.data(), static_cast<int>(xml.size())));
    int depth = 0;
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::StartDocument:
            if (!reader.documentEncoding().isEmpty() &&
                reader.documentEncoding().compare(QLatin1String("UTF-8"), Qt::CaseInsensitive) != 0)
                error = "only UTF-8 is read";
            break;
        case QXmlStreamReader::StartElement:
            if (!reader.attributes().isEmpty())
                error = "attributes have no place in the tree";
            else if (!isElementName(reader.qualifiedName().toUtf8().toStdString()))
                error = "not a name for a node: " + reader.qualifiedName().toString().toStdString();
            else if (++depth > maxDepth)
                error = "elements are nested too deeply";
            break;
        case QXmlStreamReader::EndElement:
            --depth;
            break;
        case QXmlStreamReader::DTD:
        case QXmlStreamReader::EntityReference:
            error = "document types and custom entities are not allowed";
            break;
        default:
            break;
        }
        if (!error.empty())
            return false;
    }
    if (reader.hasError())
        error = "malformed XML: " + reader.errorString().toStdString();
    return error.empty();
}

bool checkKeys(pugi::xml_node node, std::string &error)
{
    for (const pugi::xml_node leaf : keyLeaves(node)) {
        if (!isLeaf(leaf))
            error = std::string("a key is a leaf: ") + leaf.name();
        else if (std::string_view(leaf.child_value()).find('\'') != std::string_view::npos)
            error = std::string("a key may hold no apostrophe: ") + leaf.child_value();
    }
    return error.empty();
}

void removeTexts(pugi::xml_node node)
{
    pugi::xml_node next;
    for (pugi::xml_node child = node.first_child(); child; child = next) {
        next = child.next_sibling();
        if (child.type() != pugi::node_element)
            node.remove_child(child);
    }
}

void putKeysFirst(pugi::xml_node node)
{
    const std::array<const char *, 2> names = keyNames(node.name());
    for (std::size_t i = names.size(); i-- > 0;)
        if (const pugi::xml_node leaf = names[i] != nullptr ? node.child(names[i]) : pugi::xml_node())
            node.prepend_move(leaf);
}

/// Checks the parsed node and everything below it, moves its keys to the front, joins the text of a leaf and removes
/// blanks between elements.
bool checkNode(pugi::xml_node node, std::string &error)
{
    std::string text;
    std::set<std::string> children;
    for (const pugi::xml_node child : node.children()) {
        if (child.type() != pugi::node_element)
            text += child.value();
        else if (checkNode(child, error) && !children.insert(stepText(child)).second)
            error = "two nodes alike: " + stepText(child);
        if (!error.empty())
            return false;
    }
    if (!children.empty() && text.find_first_not_of(" \t\r\n") != std::string::npos) {
        error = std::string("text beside elements in ") + node.name();
        return false;
    }
    if (children.empty() && !text.empty())
        setText(node, text);
    if (!children.empty() && !text.empty())
        removeTexts(node);
    putKeysFirst(node);
    return checkKeys(node, error);
}

/// Rank of a child among its siblings: keys, then `enabled` of a trap, then the rest.
int rankOf(pugi::xml_node parent, std::string_view name)
{
    constexpr int rest = 3;
    const std::array<const char *, 2> keys = keyNames(parent.name());
    for (std::size_t i = 0; i < keys.size(); ++i)
        if (keys[i] != nullptr && name == keys[i])
            return static_cast<int>(i);
    return std::string_view(parent.name()) == "trap" && name == "enabled" ? rest - 1 : rest;
}

} // namespace

void appendEscaped(std::string &xml, std::string_view text)
{
    for (const char c : text) {
        switch (c) {
        case '&':
            xml += "&amp;";
            break;
        case '<':
            xml += "&lt;";
            break;
        case '>':
            xml += "&gt;";
            break;
        case '\r': // a bare one would become a line feed
            xml += "&#13;";
            break;
        default:
            xml += c;
        }
    }
}

namespace {

/// With an `indent`, each element is on a line that begins with it.
void appendNode(std::string &xml, pugi::xml_node node, const std::optional<std::string> &indent)
{
    xml.append(indent.value_or(""));
    const std::size_t start = xml.size();
    xml.append("<").append(node.name()).append(">");
    const std::size_t content = xml.size();
    bool hasLines = false;
    for (const pugi::xml_node child : node.children()) {
        if (child.type() != pugi::node_element) {
            appendEscaped(xml, child.value());
            continue;
        }
        if (indent)
            xml.append("\n");
        hasLines = indent.has_value();
        appendNode(xml, child, indent ? std::optional(*indent + "  ") : std::nullopt);
    }
    if (hasLines)
        xml.append("\n").append(*indent);
    if (xml.size() == content)
        xml.replace(start, std::string::npos, std::string("<") + node.name() + "/>");
    else
        xml.append("</").append(node.name()).append(">");
}

} // namespace

std::string nodeXml(pugi::xml_node node)
{
    std::string xml;
    appendNode(xml, node, {});
    return xml;
}

std::string nodeXmlInLines(pugi::xml_node node)
{
    std::string xml;
    appendNode(xml, node, "");
    return xml;
}

bool isXmlText(std::string_view text)
{
    const bool hasControls = std::any_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
    });
    // U+FFFE and U+FFFF are the only further ones that well-formed UTF-8 can hold
    return !hasControls && text.find("\xEF\xBF\xBE") == std::string_view::npos &&
           text.find("\xEF\xBF\xBF") == std::string_view::npos;
}

bool readNode(std::string_view xml, pugi::xml_document &document, std::string &error)
{
    if (!checkText(xml, error))
        return false;
    // keeps white space, which may be part of a leaf's text; checkNode() drops it between elements
    constexpr unsigned options = pugi::parse_escapes | pugi::parse_eol | pugi::parse_cdata | pugi::parse_ws_pcdata;
    const pugi::xml_parse_result result = document.load_buffer(xml.data(), xml.size(), options, pugi::encoding_utf8);
    if (!result) {
        error = std::string("malformed XML: ") + result.description();
        return false;
    }
    return checkNode(document.document_element(), error);
}

bool hasItsKeys(pugi::xml_node node, std::string &error)
{
    const std::string_view name = node.name();
    if (name == "sys_message" || name == "trap") {
        for (const char *key : keyNames(name))
            if (key != nullptr && !node.child(key))
                error = "a " + std::string(name) + " needs the leaf " + key;
    }
    for (const pugi::xml_node child : node.children())
        if (error.empty() && child.type() == pugi::node_element)
            hasItsKeys(child, error);
    return error.empty();
}

pugi::xml_node insertChild(pugi::xml_node parent, const char *name)
{
    const int rank = rankOf(parent, name);
    pugi::xml_node next; // the first later sibling
    for (pugi::xml_node sibling = parent.last_child(); sibling && rankOf(parent, sibling.name()) > rank;
         sibling = sibling.previous_sibling())
        next = sibling;
    return next ? parent.insert_child_before(name, next) : parent.append_child(name);
}

pugi::xml_node copyInto(pugi::xml_node parent, pugi::xml_node source)
{
    const pugi::xml_node node = insertChild(parent, source.name());
    if (isLeaf(source)) {
        setText(node, source.child_value());
    } else {
        for (const pugi::xml_node child : source.children())
            if (child.type() == pugi::node_element)
                copyInto(node, child);
    }
    return node;
}

bool isLeaf(pugi::xml_node node)
{
    const auto children = node.children();
    return std::none_of(children.begin(), children.end(),
                        [](pugi::xml_node child) { return child.type() == pugi::node_element; });
}

void setText(pugi::xml_node leaf, const std::string &text)
{
    if (text.empty() || leaf.first_child() != leaf.last_child())
        leaf.remove_children();
    if (!text.empty())
        leaf.text().set(text.c_str()); // in place if it fits
}

} // namespace simulator
