// What is forbidden to an ordinary user, for tests that root may run.
#pragma once

#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

/// While one lives, the process has no more rights than an ordinary user: root becomes another one, others stay.
class AsOrdinaryUser {
public:
    static constexpr uid_t nobody = 65534;

    AsOrdinaryUser() : m_user(geteuid())
    {
        if (m_user == 0 && seteuid(nobody) != 0)
            qFatal("root that may not become another user");
    }
    ~AsOrdinaryUser()
    {
        if (seteuid(m_user) != 0)
            qFatal("the way back is closed");
    }
    Q_DISABLE_COPY(AsOrdinaryUser)

private:
    uid_t m_user;
};

/// A file that an ordinary user may write and not delete: its folder is read-only while this object lives.
/// Everybody may enter the folder above from then on.
class Undeletable {
public:
    /// If root runs the test, `owner` becomes the file's owner.
    explicit Undeletable(const QString &path, uid_t owner = AsOrdinaryUser::nobody)
        : m_folder(QFile::encodeName(QFileInfo(path).path()))
    {
        const QByteArray above = QFile::encodeName(QFileInfo(QFile::decodeName(m_folder)).path());
        if (geteuid() == 0)
            QCOMPARE(lchown(QFile::encodeName(path).constData(), owner, 0), 0);
        QCOMPARE(chmod(above.constData(), 0711), 0);
        QCOMPARE(chmod(m_folder.constData(), 0555), 0);
    }
    ~Undeletable() { chmod(m_folder.constData(), 0755); }
    Q_DISABLE_COPY(Undeletable)

private:
    QByteArray m_folder;
};
