// Texts of a notification, found by XPath. The input is four texts: three lines (expression, subscribed path, path),
// then the data.
#include "support.h"

#include "notifymessage.h"
#include "xpath.h"

#include <xrcommon/TalInterface.h>

#include <QXmlStreamReader>

namespace {

struct Answer {
    bool found;
    QString text;
    bool operator==(const Answer &) const = default;
};

Answer ask(const QString &expression, const QString &sPath, const QString &rPath, const QString &data)
{
    static const QString untouched = QStringLiteral("untouched");
    Answer answer{false, untouched};
    answer.found = TalInterface::xpathGetTextNode(answer.text, expression, sPath, rPath, data);
    require(answer.found || answer.text == untouched, "nothing found leaves the text untouched");
    return answer;
}

void forgetTheLastTree()
{
    QString text;
    require(textOfNotification(text, QStringLiteral("/other"), {}, QStringLiteral("/other"),
                               QStringLiteral("<other>1</other>")),
            "another notification is read afterwards");
    require(text == QLatin1String("1"), "another notification is read rightly afterwards");
}

/// The text of one element, found by another reader.
QString wholeText(const QString &element)
{
    QXmlStreamReader reader(element);
    reader.setNamespaceProcessing(false);
    reader.readNextStartElement();
    return reader.readElementText(QXmlStreamReader::IncludeChildElements);
}

/// The other reader accepts some texts that are not well-formed: it allows more characters in names.
void checkWholeText(const QString &data)
{
    const Answer answer = ask(QStringLiteral("/*"), {}, QStringLiteral("/top"), data);
    if (data.isEmpty()) {
        require(answer == Answer{true, QString()}, "a node that is gone is found with an empty text");
        return;
    }
    if (!answer.found)
        return;
    require(isWellFormedElement(data), "what gives a tree is well-formed");
    require(answer.text == wholeText(data), "the text is the one of another reader");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    static const bool quiet = (quieten(), true);
    static_cast<void>(quiet);
    std::string_view rest = viewOf(bytes, size);
    const QString expression = textOf(takeUpTo(rest, '\n'));
    const QString sPath = textOf(takeUpTo(rest, '\n'));
    const QString rPath = textOf(takeUpTo(rest, '\n'));
    const QString data = textOf(rest);

    const Answer first = ask(expression, sPath, rPath, data);
    require(ask(expression, sPath, rPath, data) == first, "the tree that is kept gives the same answer");
    forgetTheLastTree();
    if (isWellFormedElement(data))
        setCheckedData(data); // as for data of a message that was already read
    require(ask(expression, sPath, rPath, data) == first, "data that was checked before gives the same answer");
    checkWholeText(data);
    setCheckedData({});
    forgetTheLastTree();
    return 0;
}
