// The tree that one notification describes.
#include "notificationtree.h"

#include "notificationpath.h"
#include "notifymessage.h"

namespace {

constexpr unsigned parseOptions = pugi::parse_default | pugi::parse_ws_pcdata; // blanks in a leaf are text

void appendElementStart(std::string &xml, std::string_view name)
{
    xml.append("<").append(name).append(">");
}

void appendElementEnd(std::string &xml, std::string_view name)
{
    xml.append("</").append(name).append(">");
}

void appendEscaped(std::string &xml, std::string_view text)
{
    for (const char c : text) {
        switch (c) {
        case '<':
            xml.append("&lt;");
            break;
        case '&':
            xml.append("&amp;");
            break;
        case '\r':
            xml.append("&#13;");
            break;
        default:
            xml.push_back(c);
        }
    }
}

void appendKeys(std::string &xml, const std::vector<PathKey> &keys)
{
    for (const PathKey &key : keys) {
        appendElementStart(xml, key.name);
        appendEscaped(xml, key.value);
        appendElementEnd(xml, key.name);
    }
}

/// The first element in document order; ignores selected attributes and texts.
pugi::xml_node firstElement(const pugi::xml_document &document, const pugi::xpath_query &query)
{
    const pugi::xpath_node first = document.select_node(query);
    if (!first || first.node().type() == pugi::node_element)
        return first.node();
    pugi::xpath_node_set all = document.select_nodes(query);
    all.sort();
    for (const pugi::xpath_node &node : all) {
        if (node.node().type() == pugi::node_element)
            return node.node();
    }
    return {};
}

/// All text below the element. Iterative, because a tree may be a million levels deep.
void appendText(std::string &text, const pugi::xml_node top)
{
    pugi::xml_node node = top;
    do {
        if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata)
            text += node.value();
        if (node.first_child()) {
            node = node.first_child();
            continue;
        }
        while (node != top && !node.next_sibling())
            node = node.parent();
        if (node != top)
            node = node.next_sibling();
    } while (node != top);
}

} // namespace

NotificationTree::NotificationTree(const QString &path, const QString &data, bool dataIsElement)
    : m_path(path), m_data(data), m_valid(build(dataIsElement))
{}

bool NotificationTree::build(bool dataIsElement)
{
    const QByteArray path = m_path.toUtf8();
    const auto steps =
        m_path.isValidUtf16() ? pathSteps({path.constData(), static_cast<std::size_t>(path.size())}) : std::nullopt;
    if (!steps || !(m_data.isEmpty() || dataIsElement || isWellFormedElement(m_data)))
        return false;

    const PathStep &lastStep = steps->back();
    for (const PathStep &step : *steps) {
        if (&step == &lastStep)
            break;
        appendElementStart(m_text, step.name);
        appendKeys(m_text, step.keys);
    }
    if (m_data.isEmpty()) {
        appendElementStart(m_text, lastStep.name);
        appendElementEnd(m_text, lastStep.name);
    } else {
        m_text += m_data.toStdString();
    }
    for (auto step = steps->rbegin() + 1; step != steps->rend(); ++step)
        appendElementEnd(m_text, step->name);
    if (!m_document.load_buffer_inplace(m_text.data(), m_text.size(), parseOptions, pugi::encoding_utf8))
        return false;

    pugi::xml_node node = m_document.root();
    for ([[maybe_unused]] const PathStep &step : *steps) { // one level down for each step
        node = node.last_child();
        while (node && node.type() != pugi::node_element)
            node = node.previous_sibling();
    }
    if (!node)
        return false;
    if (m_data.isEmpty())
        m_hollow = node;
    pugi::xml_node before; // keys come first, in the order of the path
    for (const PathKey &key : lastStep.keys) {
        const std::string name(key.name);
        if (node.child(name.c_str()))
            continue;
        before = before ? node.insert_child_after(name.c_str(), before) : node.prepend_child(name.c_str());
        before.text().set(std::string(key.value).c_str());
    }
    return true;
}

bool NotificationTree::findText(QString &out, const pugi::xpath_query &query) const
{
    const pugi::xml_node element = firstElement(m_document, query);
    if (!element)
        return false;
    std::string text;
    if (element != m_hollow) // a deleted node has no text, although its keys are known
        appendText(text, element);
    out = QString::fromUtf8(text.data(), static_cast<int>(text.size()));
    return true;
}
