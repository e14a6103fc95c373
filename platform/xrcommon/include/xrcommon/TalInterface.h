// The data-service client of the platform library.
#pragma once

#include <QObject>
#include <QString>

#include <memory>

enum TALTARGET_ENUM { TALTARGET_DEFAULT = 0 };

/// One connection to the data service's local socket (`TAL_SOCKET`, otherwise `/var/run/tal.sock`). It connects when it
/// is created and retries every second without limit. The static requests use the only instance; without an instance or
/// a connection they are dropped with one debug line.
class TalInterface : public QObject {
    Q_OBJECT

public:
    explicit TalInterface(QObject *parent);
    ~TalInterface() override;

    static void requestDataSubscribeSingleLevel(const QString &ref, const QString &path, const QString &operation,
                                                const QString &flag, TALTARGET_ENUM target);
    static void requestData(const QString &xml, TALTARGET_ENUM target);
    static void requestDataEdit(const QString &ref, const QString &path, const QString &operation, const QString &xml);

    /// Finds the first element that `xpath` selects in the tree of `rPath` and `data`, and stores its text in `out`.
    /// False, with `out` unchanged, if there is none or an argument is malformed.
    static bool xpathGetTextNode(QString &out, const QString &xpath, const QString &sPath, const QString &rPath,
                                 const QString &data);

    /// Prints each message sent and received as a debug line from now on.
    static void debugPrintEnable();

Q_SIGNALS:
    void talLocalUnixSocketConnectedSignal();
    void talNotifySignal(const QString refStr, const QString op, const QString rPath, const QString sPath,
                         const QString data);

private:
    class Client;
    std::unique_ptr<Client> m_client;
};
