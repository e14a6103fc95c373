// The data service's local socket and its clients.
#include "simulator/talserver.h"

#include "simulator/messages.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalSocket>
#include <algorithm>
#include <sys/stat.h>

namespace simulator {

TalServer::TalServer(QObject *parent, DataTree &tree) : QObject(parent), m_tree(tree)
{
    connect(&m_server, &QLocalServer::newConnection, this, &TalServer::onNewConnection);
    m_tree.setListener([this](const Change &change) {
        for (Session *session : m_sessions)
            session->notify(change);
    });
}

bool TalServer::listen(const QString &path, QString &error)
{
    return listenAt(m_server, path, error);
}

void TalServer::flush()
{
    for (Session *session : m_sessions)
        session->flush();
}

qint64 TalServer::owed() const
{
    qint64 bytes = 0;
    for (const Session *session : m_sessions)
        if (session->keepsUp())
            bytes += session->queued();
    return bytes;
}

void TalServer::onNewConnection()
{
    while (QLocalSocket *socket = m_server.nextPendingConnection()) {
        auto *session = new Session(this, socket, m_tree, ++m_lastNumber);
        m_sessions.push_back(session);
        connect(session, &Session::progressed, this, &TalServer::progressed);
        connect(session, &Session::subscribed, this, &TalServer::subscribed);
        connect(session, &Session::ended, this, [this, session] {
            m_sessions.erase(std::remove(m_sessions.begin(), m_sessions.end(), session), m_sessions.end());
            session->deleteLater();
            Q_EMIT progressed();
        });
    }
}

bool listenAt(QLocalServer &server, const QString &path, QString &error)
{
    QLocalSocket probe;
    probe.connectToServer(path);
    if (probe.waitForConnected(1000)) {
        error = QStringLiteral("%1 is served by another program").arg(path);
        return false;
    }
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
        error = QStringLiteral("%1 is there and is no socket").arg(path);
        return false;
    }
    QLocalServer::removeServer(path);
    server.setSocketOptions(QLocalServer::WorldAccessOption);
    if (server.listen(path))
        return true;
    if (!QFileInfo(path).absoluteDir().exists())
        error = QStringLiteral("%1: its folder is not there").arg(path);
    else
        error = QStringLiteral("%1: %2").arg(path, server.errorString());
    return false;
}

} // namespace simulator
