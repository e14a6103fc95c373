// Queries snmpd like a manager, without reading or writing any file of the SNMP library.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

using SnmpName = std::vector<std::uint32_t>;

struct SnmpTarget {
    QByteArray address; ///< e.g. "udp:127.0.0.1:161"
    QByteArray community;
    bool isVersion1 = false;
    int timeoutMs = 3000;
};

struct SnmpReply {
    enum class Kind : std::uint8_t { NoAnswer, Error, NoSuchName, Integer, Other };

    Kind kind = Kind::NoAnswer;
    QString error{}; ///< with NoAnswer and Error
    SnmpName name{}; ///< of the object in the answer
    std::int64_t integer = 0;
    QByteArray text{};
};

class SnmpClient {
public:
    explicit SnmpClient(const SnmpTarget &target);
    ~SnmpClient();

    SnmpReply get(const SnmpName &name);
    SnmpReply getNext(const SnmpName &name);

private:
    class Session;
    SnmpReply ask(int command, const SnmpName &name);

    std::unique_ptr<Session> m_session;
};
