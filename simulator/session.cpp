// One client of the data service.
#include "simulator/session.h"

#include "simulator/messages.h"
#include "simulator/treexml.h"

#include <algorithm>

namespace simulator {

namespace {

constexpr int lagCheckMs = 1000;
constexpr qint64 lagBytes =
    qint64{256} * 1024; // a client that reads less than this in one check, without finishing, lags

using TreeEdit = Refusal (DataTree::*)(std::string_view path, std::string_view xml);

/// Applies an edit with a node: the only element in the request's `data`.
Refusal applyData(DataTree &tree, TreeEdit treeEdit, const std::string &path, pugi::xml_node request)
{
    const pugi::xml_node node = request.child("data").first_child();
    if (node.type() != pugi::node_element || node.next_sibling())
        return "its data is not one element";
    return (tree.*treeEdit)(path, nodeXml(node));
}

constexpr qint64 mostUnread = qint64{32} * 1024 * 1024;

} // namespace

Session::Session(QObject *parent, QLocalSocket *socket, DataTree &tree, int number)
    : QObject(parent), m_socket(socket), m_tree(tree), m_number(number)
{
    m_socket->setParent(this);
    m_socket->setReadBufferSize(static_cast<qint64>(maxMessageSize));
    m_lagTimer.setInterval(lagCheckMs);
    connect(m_socket, &QLocalSocket::readyRead, this, &Session::onReadyRead);
    connect(m_socket, &QLocalSocket::bytesWritten, this, &Session::onBytesWritten);
    connect(m_socket, &QLocalSocket::disconnected, this, &Session::ended, Qt::QueuedConnection);
    connect(&m_lagTimer, &QTimer::timeout, this, &Session::onLagCheck);
    if (m_socket->state() != QLocalSocket::ConnectedState) // it may have disconnected already
        QTimer::singleShot(0, this, &Session::ended);
    else
        QTimer::singleShot(0, this, &Session::onReadyRead);
}

void Session::notify(const Change &change)
{
    if (m_dropped)
        return;
    for (const Subscription &subscription : m_subscriptions)
        notifyChange(subscription, change, [this](const std::string &message) { send(message); });
}

void Session::flush()
{
    if (m_dropped)
        return;
    m_socket->flush();
    if (m_socket->bytesToWrite() > 0 && !m_lagTimer.isActive()) {
        m_takenSinceCheck = 0;
        m_lagTimer.start();
    }
}

void Session::drop(const QString &reason)
{
    if (m_dropped)
        return;
    say(QStringLiteral("client %1 dropped: %2").arg(m_number).arg(reason));
    m_dropped = true; // nothing is sent to it any more
    m_lagTimer.stop();
    QTimer::singleShot(0, m_socket, &QLocalSocket::abort);
    QTimer::singleShot(0, this, &Session::progressed);
}

void Session::onReadyRead()
{
    while (!m_dropped && m_socket->bytesAvailable() > 0) {
        const QByteArray bytes = m_socket->readAll();
        m_framing.feed(bytes.constData(), static_cast<std::size_t>(bytes.size()));
        std::string_view message;
        MessageFraming::Outcome outcome = m_framing.next(message);
        while (outcome == MessageFraming::Outcome::Message && !m_dropped) {
            serve(message);
            outcome = m_framing.next(message);
        }
        if (outcome == MessageFraming::Outcome::OverLong)
            drop(QStringLiteral("a message of more than %1 bytes").arg(maxMessageSize));
    }
    flush();
}

void Session::onBytesWritten(qint64 bytes)
{
    m_takenSinceCheck += bytes;
    if (queued() == 0) {
        m_lagTimer.stop();
        m_lagging = false;
    }
    Q_EMIT progressed();
}

void Session::onLagCheck()
{
    const bool lags = m_takenSinceCheck < lagBytes;
    m_takenSinceCheck = 0;
    if (lags && !m_lagging) {
        m_lagging = true;
        Q_EMIT progressed();
    }
}

void Session::serve(std::string_view message)
{
    pugi::xml_document document;
    std::string error;
    if (!readNode(message, document, error)) {
        say(QStringLiteral("client %1: message ignored: %2").arg(m_number).arg(QString::fromStdString(error)));
        return;
    }
    const pugi::xml_node request = document.child("request");
    if (const pugi::xml_node subscription = request.child("subscribe"))
        subscribe(request.child_value("ref"), subscription);
    else if (const pugi::xml_node node = request.child("edit"))
        edit(node);
    else
        say(QStringLiteral("client %1: request not served: %2")
                .arg(m_number)
                .arg(QString::fromUtf8(message.data(), static_cast<int>(std::min<std::size_t>(message.size(), 200)))));
}

void Session::subscribe(const std::string &ref, pugi::xml_node request)
{
    Subscription subscription{ref, request.child_value("path"), {}};
    std::string error;
    const std::optional<DataPath> path = parsePath(subscription.pathText, error);
    if (!path) {
        say(QStringLiteral("client %1: subscription refused: %2").arg(m_number).arg(QString::fromStdString(error)));
        return;
    }
    subscription.path = *path;
    const auto same = std::find_if(m_subscriptions.begin(), m_subscriptions.end(), [&](const Subscription &other) {
        return other.ref == subscription.ref && other.pathText == subscription.pathText;
    });
    if (same == m_subscriptions.end())
        m_subscriptions.push_back(subscription);
    notifyExisting(subscription, m_tree, [this](const std::string &message) { send(message); });
    Q_EMIT subscribed();
}

void Session::edit(pugi::xml_node request)
{
    const std::string path = request.child_value("path");
    const std::string operation = request.child_value("operation");
    Refusal refusal;
    if (operation == "create")
        refusal = applyData(m_tree, &DataTree::create, path, request);
    else if (operation == "replace")
        refusal = applyData(m_tree, &DataTree::replace, path, request);
    else if (operation == "patch")
        refusal = applyData(m_tree, &DataTree::patch, path, request);
    else if (operation == "delete")
        refusal = m_tree.remove(path);
    else
        refusal = "no such operation";
    if (refusal)
        say(QStringLiteral("client %1: edit refused: %2 %3: %4")
                .arg(QString::number(m_number), QString::fromStdString(operation), QString::fromStdString(path),
                     QString::fromStdString(*refusal)));
}

void Session::send(const std::string &message)
{
    if (m_dropped)
        return;
    if (message.size() > maxMessageSize) { // no client accepts it, and each would reconnect endlessly to get it
        say(QStringLiteral("client %1: a notification of %2 bytes is longer than a message may be, and is not sent")
                .arg(m_number)
                .arg(message.size()));
        return;
    }
    m_socket->write(message.data(), static_cast<qint64>(message.size()));
    m_socket->write("", 1); // the NUL that ends a message
    if (m_socket->bytesToWrite() > mostUnread)
        drop(QStringLiteral("%1 bytes not taken").arg(m_socket->bytesToWrite()));
}

} // namespace simulator
