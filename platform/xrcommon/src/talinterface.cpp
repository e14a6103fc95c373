// The data-service client: requests out, notifications in.
#include "xrcommon/TalInterface.h"

#include "localconnection.h"
#include "notifymessage.h"
#include "platform/xrcommon/framing/framing.h"
#include "xpath.h"

#include <QDebug>
#include <QPointer>

namespace {

TalInterface *living = nullptr; // the instance for the static requests
bool debugPrint = false;

/// A text as the content of an element. Quotes need no escape there; a bare carriage return does, because readers turn
/// it into a line feed.
QString escaped(const QString &text)
{
    QString xml;
    xml.reserve(text.size());
    for (const QChar c : text) {
        if (c == QLatin1Char('&'))
            xml += QLatin1String("&amp;");
        else if (c == QLatin1Char('<'))
            xml += QLatin1String("&lt;");
        else if (c == QLatin1Char('>'))
            xml += QLatin1String("&gt;");
        else if (c == QLatin1Char('\r'))
            xml += QLatin1String("&#13;");
        else
            xml += c;
    }
    return xml;
}

QString element(const char *name, const QString &content)
{
    const QLatin1String tag(name);
    return QLatin1Char('<') + tag + QLatin1Char('>') + content + QLatin1String("</") + tag + QLatin1Char('>');
}

QString request(const QString &ref, const char *kind, const QString &content)
{
    return element("request", element("ref", escaped(ref)) + element(kind, content));
}

void warnDropped(const QString &reason)
{
    qWarning().noquote() << "TalInterface: message of the data service dropped:" << reason;
}

} // namespace

class TalInterface::Client {
public:
    explicit Client(TalInterface *owner) : m_owner(owner), m_connection(nullptr)
    {
        connect(&m_connection, &LocalConnection::connected, owner, &TalInterface::talLocalUnixSocketConnectedSignal);
        connect(&m_connection, &LocalConnection::lost, owner, [this] { m_framing.clear(); });
        connect(&m_connection, &LocalConnection::received, owner,
                [this](const char *bytes, std::size_t size) { take(bytes, size); });
    }

    /// Sends a request; `name` is that of the call.
    static void send(const char *name, const QString &xml)
    {
        if (!living || !living->m_client->m_connection.isConnected()) {
            qDebug().noquote() << name << "dropped: not connected to the data service";
            return;
        }
        if (debugPrint)
            qDebug().noquote() << "TalInterface sends:" << xml;
        QByteArray message = xml.toUtf8();
        if (static_cast<std::size_t>(message.size()) > maxMessageSize || message.contains('\0')) {
            qWarning().noquote() << name << "dropped: longer than a message may be, or with a NUL in it";
            return;
        }
        message += '\0';
        living->m_client->m_connection.send(message);
    }

private:
    void take(const char *bytes, std::size_t size)
    {
        m_framing.feed(bytes, size);
        const QPointer<TalInterface> owner = m_owner; // a receiver of a notification may delete us
        while (owner) {
            std::string_view message;
            const MessageFraming::Outcome outcome = m_framing.next(message);
            if (outcome == MessageFraming::Outcome::Incomplete)
                return;
            if (outcome == MessageFraming::Outcome::OverLong) {
                warnDropped(QStringLiteral("longer than %1 bytes").arg(maxMessageSize));
                m_connection.lose("to get past an over-long message");
                return;
            }
            notify(message);
        }
    }

    void notify(std::string_view message)
    {
        if (debugPrint)
            qDebug().noquote() << "TalInterface received:"
                               << QString::fromUtf8(message.data(), static_cast<int>(message.size()));
        QString error;
        const std::optional<NotifyMessage> n = readNotifyMessage(message, error);
        if (!n)
            return warnDropped(error);
        if (n->dataIsElement)
            setCheckedData(n->data);
        Q_EMIT m_owner->talNotifySignal(n->ref, n->op, n->rPath, n->sPath, n->data);
    }

    TalInterface *m_owner;
    LocalConnection m_connection;
    MessageFraming m_framing;
};

TalInterface::TalInterface(QObject *parent) : QObject(parent), m_client(std::make_unique<Client>(this))
{
    living = this;
}

TalInterface::~TalInterface()
{
    if (living == this)
        living = nullptr;
}

void TalInterface::requestDataSubscribeSingleLevel(const QString &ref, const QString &path, const QString &operation,
                                                   const QString &flag, TALTARGET_ENUM target)
{
    Client::send("requestDataSubscribeSingleLevel",
                 request(ref, "subscribe",
                         element("path", escaped(path)) + element("operation", escaped(operation)) +
                             element("single_level", escaped(flag)) + element("target", QString::number(target))));
}

void TalInterface::requestData(const QString &xml, TALTARGET_ENUM)
{
    Client::send("requestData", xml);
}

void TalInterface::requestDataEdit(const QString &ref, const QString &path, const QString &operation,
                                   const QString &xml)
{
    QString content = element("path", escaped(path)) + element("operation", escaped(operation));
    if (operation != QLatin1String("delete"))
        content += element("data", xml);
    Client::send("requestDataEdit", request(ref, "edit", content));
}

bool TalInterface::xpathGetTextNode(QString &out, const QString &xpath, const QString &sPath, const QString &rPath,
                                    const QString &data)
{
    return textOfNotification(out, xpath, sPath, rPath, data);
}

void TalInterface::debugPrintEnable()
{
    debugPrint = true;
}
