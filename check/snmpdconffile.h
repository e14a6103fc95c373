// Reads snmpd.conf like snmpd: access, listening addresses, trap receivers.
#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QString>

#include <optional>
#include <vector>

struct ConfLine {
    int number = 0;       ///< counted from 1
    QByteArray directive; ///< in lower case: snmpd ignores case
    QList<QByteArray> words;
};

/// A source of requests with its community.
struct AccessRule {
    int line = 0;
    bool isIpv6 = false;
    QByteArray source; ///< "default", an address, a network or a host name
    QByteArray community;
};

/// One address where snmpd listens.
struct ListenAddress {
    QByteArray text;         ///< as it is written
    QByteArray transport;    ///< "udp", "udp6", "tcp", ...; "udp" by default
    QByteArray host;         ///< empty for every address of the machine
    std::optional<int> port; ///< nothing unless a number from 1 to 65535
};

/// A trap or inform receiver.
struct Receiver {
    QByteArray directive;
    QByteArray address; ///< as it is written
};

class SnmpdConf {
public:
    SnmpdConf() = default;
    explicit SnmpdConf(const QByteArray &text);

    bool isEmpty() const { return m_lines.empty(); } ///< a file of only comments is empty
    bool isAgentxMaster() const;
    /// The AgentX socket's path, or another address, e.g. "tcp:localhost:705".
    QByteArray agentxSocket() const;
    /// snmpd's default without a directive.
    std::vector<ListenAddress> listenAddresses() const;
    std::vector<AccessRule> accessRules() const;
    bool allowsVersion1() const { return allowsVersion("v1"); }
    bool allowsVersion2c() const { return allowsVersion("v2c"); }
    std::vector<Receiver> receivers() const;

private:
    bool allowsVersion(const char *version) const;

    std::vector<ConfLine> m_lines;
};

/// The words of a line, split like in snmpd: at blanks, except between quotes.
QList<QByteArray> confWords(const QByteArray &line);

/// Whether a request from that address matches the rule. The only known names are "default" and "localhost".
bool allows(const AccessRule &rule, const QHostAddress &address);

/// Splits "udp6:[::1]:161", "161", "10.0.0.1" and the like.
ListenAddress listenAddressOf(const QByteArray &text);

/// The host of a receiver, without transport, port and anything after a blank.
QByteArray hostOfReceiver(const QByteArray &address);
