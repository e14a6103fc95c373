// A message bus for a test.
#pragma once

#include <QtTest>

class MessageBus {
public:
    MessageBus() = default;
    ~MessageBus() { stop(); }
    Q_DISABLE_COPY(MessageBus)

    QString address() const { return QStringLiteral("unix:path=") + path(); }

    void start()
    {
        m_daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_daemon.start(QStringLiteral("dbus-daemon"),
                       {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address"),
                        QStringLiteral("--address=") + address()});
        if (!m_daemon.waitForReadyRead(30000))
            qFatal("dbus-daemon does not start");
    }

    void stop()
    {
        m_daemon.kill();
        m_daemon.waitForFinished();
        QFile::remove(path());
    }

private:
    QString path() const { return m_folder.filePath(QStringLiteral("bus")); }

    QTemporaryDir m_folder;
    QProcess m_daemon;
};
