// One message of the data service, read and checked.
#include "notifymessage.h"

#include <QTextCodec>
#include <QXmlStreamReader>

namespace {

/// The text of UTF-8 bytes; nothing if they are not valid UTF-8.
std::optional<QString> decodedUtf8(std::string_view bytes)
{
    constexpr int utf8Mib = 106;
    static const QTextCodec *const codec = QTextCodec::codecForMib(utf8Mib);
    QTextCodec::ConverterState state;
    QString text = codec->toUnicode(bytes.data(), static_cast<int>(bytes.size()), &state);
    if (state.invalidChars > 0 || state.remainingChars > 0)
        return std::nullopt;
    return text;
}

struct Field {
    const char *name;
    QString NotifyMessage::*text;
};
constexpr Field fields[] = {
    {"ref", &NotifyMessage::ref},     {"op", &NotifyMessage::op},     {"rpath", &NotifyMessage::rPath},
    {"spath", &NotifyMessage::sPath}, {"data", &NotifyMessage::data},
};
constexpr QString NotifyMessage::*dataField = &NotifyMessage::data;

/// The state of reading one `notify`: the children of the root element, each once, in any order.
class NotifyReader {
public:
    explicit NotifyReader(const QString &text) : m_text(text), m_xml(text) { m_xml.setNamespaceProcessing(false); }

    std::optional<NotifyMessage> read(QString &error)
    {
        while (!m_xml.atEnd())
            take(m_xml.readNext());
        if (!m_xml.hasError() && (m_message.ref.isNull() || m_message.op.isNull()))
            m_xml.raiseError(QStringLiteral("no <ref> or no <op>"));
        if (m_xml.hasError()) {
            error = m_xml.errorString();
            return std::nullopt;
        }
        m_message.dataIsElement = m_dataElements == 1 && !m_dataHasText;
        return std::move(m_message);
    }

private:
    void take(QXmlStreamReader::TokenType token)
    {
        switch (token) {
        case QXmlStreamReader::DTD:
            m_xml.raiseError(QStringLiteral("document type not allowed"));
            break;
        case QXmlStreamReader::StartElement:
            startElement(++m_depth);
            break;
        case QXmlStreamReader::EndElement:
            if (--m_depth == 1)
                endField();
            break;
        case QXmlStreamReader::Characters:
            if (m_depth == 2)
                characters();
            break;
        default:
            break;
        }
    }

    void startElement(int depth)
    {
        if (depth == 1 && m_xml.name() != QLatin1String("notify"))
            m_xml.raiseError(QStringLiteral("root element is not <notify>"));
        else if (depth == 2)
            startField();
        else if (depth == 3 && m_field == dataField)
            ++m_dataElements;
        else if (depth == 3 && m_field)
            m_xml.raiseError(QStringLiteral("element inside a text"));
    }

    void startField()
    {
        m_field = nullptr;
        for (const Field &field : fields) {
            if (m_xml.name() != QLatin1String(field.name))
                continue;
            if (!(m_message.*field.text).isNull())
                return m_xml.raiseError(QStringLiteral("<%1> twice").arg(QLatin1String(field.name)));
            m_field = field.text;
            m_message.*m_field = QLatin1String(""); // present, still empty
            m_dataStart = static_cast<int>(m_xml.characterOffset());
            return;
        }
    }

    void characters()
    {
        if (m_field == dataField)
            m_dataHasText = m_dataHasText || !m_xml.isWhitespace();
        else if (m_field)
            m_message.*m_field += m_xml.text();
    }

    /// `data` is copied from the message: the text between its tags must not pass through a reader and a writer.
    void endField()
    {
        if (m_field == dataField) {
            const int afterEnd = static_cast<int>(m_xml.characterOffset());
            const int end = m_text.lastIndexOf(QLatin1String("</"), afterEnd - 1);
            if (end >= m_dataStart) // else it was <data/>
                m_message.data = m_text.mid(m_dataStart, end - m_dataStart);
        }
        m_field = nullptr;
    }

    const QString &m_text;
    QXmlStreamReader m_xml;
    NotifyMessage m_message;
    QString NotifyMessage::*m_field = nullptr; // the current child
    int m_depth = 0;
    int m_dataStart = 0;
    int m_dataElements = 0;
    bool m_dataHasText = false;
};

} // namespace

std::optional<NotifyMessage> readNotifyMessage(std::string_view bytes, QString &error)
{
    const std::optional<QString> text = decodedUtf8(bytes);
    if (!text) {
        error = QStringLiteral("not UTF-8");
        return std::nullopt;
    }
    return NotifyReader(*text).read(error);
}

bool isWellFormedElement(const QString &xml)
{
    if (!xml.isValidUtf16() || xml.contains(QChar::Null))
        return false;
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false);
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::DTD)
            return false;
    }
    return !reader.hasError();
}
