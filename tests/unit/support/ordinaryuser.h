// What is forbidden to an ordinary user, for tests that root may run.
#pragma once

#include <QtGlobal>

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
