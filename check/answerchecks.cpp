// The manager's view: snmpd, the sub-agent, and a value.
#include "check/agentxping.h"
#include "check/checks.h"
#include "check/processes.h"
#include "check/subject.h"

#include "snmpdconf/snmpdhost.h"

#include <QFileInfo>
#include <QHostAddress>
#include <QNetworkInterface>

#include <algorithm>
#include <cstring>

namespace {

const SnmpName upTimeName = {1, 3, 6, 1, 2, 1, 1, 3, 0};
const SnmpName modelNumberName = {1, 3, 6, 1, 4, 1, 52717, 3, 1, 3, 0};
const SnmpName enterprise = {1, 3, 6, 1, 4, 1, 52717};
const SnmpName moduleNames = {1, 3, 6, 1, 4, 1, 8072, 1, 2, 1, 1, 4}; // snmpd's list of its registrations
constexpr std::uint32_t registrationLengths[] = {10, 11};             // of the objects under the enterprise
constexpr int maxRegistrations = 200;

bool startsWith(const SnmpName &name, const SnmpName &start)
{
    return name.size() >= start.size() && std::equal(start.begin(), start.end(), name.begin());
}

/// Loopback first: it always exists.
QList<QHostAddress> ownAddresses()
{
    QList<QHostAddress> addresses = {QHostAddress(QHostAddress::LocalHost), QHostAddress(QHostAddress::LocalHostIPv6)};
    for (const QHostAddress &address : QNetworkInterface::allAddresses())
        if (!address.isLoopback() && !address.isLinkLocal())
            addresses.append(address);
    return addresses;
}

bool listensAt(const ListenAddress &place, const QHostAddress &address)
{
    const bool isIpv6 = address.protocol() == QAbstractSocket::IPv6Protocol;
    if (!place.transport.startsWith("udp") || place.transport.contains('6') != isIpv6)
        return false;
    const QHostAddress bound(QString::fromLatin1(place.host));
    return place.host.isEmpty() || bound == QHostAddress(QHostAddress::AnyIPv4) ||
           bound == QHostAddress(QHostAddress::AnyIPv6) || bound == address ||
           (place.host == "localhost" && address.isLoopback());
}

/// A way to query this device from itself: from an address with access in the file, at an address where snmpd listens.
/// A datagram to a local address also comes from it.
std::optional<SnmpTarget> ownTarget(const SnmpdConf &conf, int timeoutMs)
{
    const std::vector<AccessRule> rules = conf.accessRules();
    const std::vector<ListenAddress> places = conf.listenAddresses();
    for (const QHostAddress &address : ownAddresses()) {
        // snmpd uses the first matching rule and ignores a later one with another community.
        const auto rule = std::find_if(rules.begin(), rules.end(),
                                       [&](const AccessRule &candidate) { return allows(candidate, address); });
        const auto place = std::find_if(places.begin(), places.end(),
                                        [&](const ListenAddress &candidate) { return listensAt(candidate, address); });
        if (rule == rules.end() || place == places.end() || !place->port)
            continue;
        const bool isIpv6 = address.protocol() == QAbstractSocket::IPv6Protocol;
        const QString text = isIpv6 ? QStringLiteral("udp6:[%1]:%2") : QStringLiteral("udp:%1:%2");
        return SnmpTarget{text.arg(address.toString()).arg(*place->port).toLatin1(), rule->community,
                          !conf.allowsVersion2c(), timeoutMs};
    }
    return std::nullopt;
}

int registrationsUnderEnterprise(SnmpClient &client)
{
    int count = 0;
    for (const std::uint32_t length : registrationLengths) {
        SnmpName start = moduleNames; // index: context "" and the registered name, each after its length
        start.push_back(0);
        start.push_back(length);
        start.insert(start.end(), enterprise.begin(), enterprise.end());
        SnmpReply reply = client.getNext(start);
        while (reply.kind == SnmpReply::Kind::Other && startsWith(reply.name, start) && count < maxRegistrations) {
            ++count;
            reply = client.getNext(reply.name);
        }
    }
    return count;
}

} // namespace

Outcome checkSnmpdAnswer(Subject &subject)
{
    if (!subject.conf.allowsVersion1() && !subject.conf.allowsVersion2c())
        return failed(QStringLiteral("snmpd.conf gives access to no version"),
                      QStringLiteral("add a group line for v2c to the custom file"));
    const std::optional<SnmpTarget> target = ownTarget(subject.conf, subject.timeoutMs);
    if (!target)
        return warning(
            QStringLiteral("snmpd.conf gives access to no address of this device: not asked"),
            QStringLiteral("send requests from the manager that it names; without an answer check nms_ip in the "
                           "settings and the network between"));
    auto client = std::make_unique<SnmpClient>(*target);
    const SnmpReply reply = client->get(upTimeName);
    const QString place = QString::fromLatin1(target->address);
    if (reply.kind == SnmpReply::Kind::NoAnswer)
        return failed(QStringLiteral("no answer at %1 within %2 s (%3)")
                          .arg(place)
                          .arg(subject.timeoutMs / 1000.0)
                          .arg(reply.error),
                      QStringLiteral("snmpd hangs, or runs with another configuration than the file: %1, and kvsnmp "
                                     "restarts it")
                          .arg(restartHint()));
    if (reply.kind == SnmpReply::Kind::Error || reply.kind == SnmpReply::Kind::NoSuchName)
        return failed(QStringLiteral("%1 answers, but not with its up time").arg(place),
                      QStringLiteral("check view and access in snmpd.conf: the view has to include .1"));
    subject.client = std::move(client);
    return ok(QStringLiteral("answers at %1 (%2)")
                  .arg(place, target->isVersion1 ? QStringLiteral("version 1") : QStringLiteral("version 2c")));
}

Outcome checkAgentxSocket(Subject &subject)
{
    const QByteArray path = subject.conf.agentxSocket();
    subject.agentxConnections = agentxConnections(contentsOf(QStringLiteral("/proc/net/unix")), path);
    const QString name = QString::fromLocal8Bit(path);
    if (!path.startsWith('/'))
        return skipped(name + QStringLiteral(" is not a local socket"));
    const QString hint =
        QStringLiteral("kvsnmp cannot connect there; %1, and kvsnmp restarts snmpd, which creates the socket again")
            .arg(restartHint());
    if (!QFileInfo::exists(name))
        return failed(name + QStringLiteral(" is not there"),
                      hint + QStringLiteral("; the folder has to exist: snmpd does not create it"));
    const AgentxAnswer answer = pingAgentx(path, subject.timeoutMs);
    if (!answer.connected)
        return failed(QStringLiteral("%1: %2").arg(name, QString::fromLocal8Bit(std::strerror(answer.error))), hint);
    if (!answer.answered)
        return failed(QStringLiteral("%1 takes the connection, but does not answer within %2 s")
                          .arg(name)
                          .arg(subject.timeoutMs / 1000.0),
                      QStringLiteral("snmpd hangs; ") + hint);
    return ok(name + QStringLiteral(" answers"));
}

Outcome checkSubAgent(Subject &subject)
{
    const int connections = subject.agentxConnections;
    const QString hint =
        QStringLiteral("kvsnmp tries to connect once a second (agentXPingInterval in %1/kvagent.conf); "
                       "if it does not succeed, restart kvsnmp")
            .arg(snmpdConfFolder());
    if (!subject.client) { // only from the kernel's information
        if (connections == 0)
            return failed(QStringLiteral("no sub-agent is connected to snmpd"), hint);
        return ok(QStringLiteral("%1 connected; its registrations could not be queried").arg(connections));
    }
    const int registrations = registrationsUnderEnterprise(*subject.client);
    if (registrations > 0)
        return ok(QStringLiteral("%1 objects and tables are registered").arg(registrations));
    if (subject.client->getNext(moduleNames).kind != SnmpReply::Kind::Other)
        return skipped(QStringLiteral("this snmpd does not list its registrations"));
    if (connections == 0)
        return failed(QStringLiteral("no sub-agent is connected to snmpd"), hint);
    return failed(QStringLiteral("a sub-agent is connected, but nothing is registered under the enterprise"), hint);
}

Outcome checkModelNumberServed(Subject &subject)
{
    if (!subject.client)
        return skipped(QStringLiteral("snmpd could not be queried from this device"));
    const SnmpReply reply = subject.client->get(modelNumberName);
    const QString restart = QStringLiteral("restart kvsnmp; in the foreground, kvsnmp -d, it prints its actions");
    switch (reply.kind) {
    case SnmpReply::Kind::Integer:
        break;
    case SnmpReply::Kind::NoAnswer:
        return failed(QStringLiteral("no answer within %1 s").arg(subject.timeoutMs / 1000.0),
                      QStringLiteral("kvsnmp hangs; ") + restart);
    case SnmpReply::Kind::Error:
        return failed(QStringLiteral("snmpd answers: ") + reply.error, QStringLiteral("kvsnmp hangs; ") + restart);
    default:
        return failed(QStringLiteral("snmpd has no such object"), restart);
    }
    if (reply.integer != subject.model)
        return failed(QStringLiteral("%1 is served, the identity file says %2").arg(reply.integer).arg(subject.model),
                      QStringLiteral("the file has changed since kvsnmp read it; restart kvsnmp"));
    return ok(QStringLiteral("%1 is served").arg(reply.integer));
}
