// Reads snmpd.conf like snmpd: access, listening addresses, trap receivers.
#include "check/snmpdconffile.h"

#include <algorithm>
#include <cctype>
#include <iterator>

namespace {

constexpr int snmpPort = 161;
constexpr char defaultSocket[] = "/var/agentx/master";

struct CommunityDirective {
    const char *name;
    bool isIpv6;
};

// clang-format off
constexpr CommunityDirective communityDirectives[] = { // one line instead of com2sec, group, view and access
    {"rocommunity", false}, {"rocommunity6", true}, {"rwcommunity", false}, {"rwcommunity6", true},
};
constexpr const char *transports[] = {
    "udp", "udp6", "udpv6", "udpipv6", "tcp", "tcp6", "tcpv6", "tcpipv6", "unix", "ssh", "tlstcp", "dtlsudp",
};
constexpr const char *receiverDirectives[] = {"trapsink", "trap2sink", "informsink"};
// clang-format on

const CommunityDirective *communityDirective(const QByteArray &name)
{
    const auto *const found = std::find_if(std::begin(communityDirectives), std::end(communityDirectives),
                                           [&](const CommunityDirective &directive) { return name == directive.name; });
    return found == std::end(communityDirectives) ? nullptr : found;
}

/// The transport before the first colon; nothing without one that snmpd knows.
QByteArray transportOf(const QByteArray &text)
{
    const QByteArray word = text.left(text.indexOf(':')).toLower();
    const bool isKnown = text.contains(':') && std::any_of(std::begin(transports), std::end(transports),
                                                           [&](const char *transport) { return word == transport; });
    return isKnown ? word : QByteArray();
}

bool isIpv6Transport(const QByteArray &transport)
{
    return transport.contains('6');
}

std::optional<int> portOf(const QByteArray &text)
{
    bool isNumber = false;
    const int port = text.toInt(&isNumber);
    if (!isNumber || port < 1 || port > 65535)
        return std::nullopt;
    return port;
}

} // namespace

QList<QByteArray> confWords(const QByteArray &line)
{
    QList<QByteArray> words;
    QByteArray word;
    bool inWord = false;
    char quote = 0;
    for (int i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote != 0) {
            if (c == '\\' && i + 1 < line.size())
                word += line[++i];
            else if (c == quote)
                quote = 0;
            else
                word += c;
        } else if (c == '"' || c == '\'') {
            quote = c;
            inWord = true;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            if (inWord)
                words.append(word);
            word.clear();
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord)
        words.append(word);
    return words;
}

SnmpdConf::SnmpdConf(const QByteArray &text)
{
    bool isForSnmpd = true; // until a section of another program
    int number = 0;
    for (const QByteArray &line : text.split('\n')) {
        ++number;
        if (line.trimmed().startsWith('#'))
            continue;
        QList<QByteArray> words = confWords(line);
        if (words.isEmpty())
            continue;
        const QByteArray directive = words.takeFirst().toLower();
        if (directive.startsWith('[')) { // "[snmpd]" applies to everything after it, or to the rest of this line
            const bool isSnmpd = directive == "[snmpd]";
            if (words.isEmpty())
                isForSnmpd = isSnmpd;
            else if (isSnmpd)
                m_lines.push_back({number, words.first().toLower(), words.mid(1)});
            continue;
        }
        if (isForSnmpd)
            m_lines.push_back({number, directive, words});
    }
}

bool SnmpdConf::isAgentxMaster() const
{
    return std::any_of(m_lines.begin(), m_lines.end(), [](const ConfLine &line) {
        const QByteArray value = line.words.value(0).toLower();
        return line.directive == "master" && (value == "agentx" || value == "yes" || value == "on" || value == "all");
    });
}

QByteArray SnmpdConf::agentxSocket() const
{
    QByteArray socket = defaultSocket;
    for (const ConfLine &line : m_lines)
        if (line.directive == "agentxsocket" && !line.words.isEmpty())
            socket = line.words[0].split(',')[0];
    return socket.startsWith("unix:") ? socket.mid(5) : socket;
}

std::vector<ListenAddress> SnmpdConf::listenAddresses() const
{
    std::vector<ListenAddress> addresses;
    for (const ConfLine &line : m_lines) {
        if (line.directive != "agentaddress")
            continue;
        for (const QByteArray &text : line.words.value(0).split(','))
            addresses.push_back(listenAddressOf(text));
    }
    if (addresses.empty())
        addresses.push_back(listenAddressOf("udp:161"));
    return addresses;
}

std::vector<AccessRule> SnmpdConf::accessRules() const
{
    std::vector<AccessRule> rules;
    for (const ConfLine &line : m_lines) {
        QList<QByteArray> words = line.words;
        if (line.directive == "com2sec" || line.directive == "com2sec6") { // [-Cn CONTEXT] NAME SOURCE COMMUNITY
            if (words.value(0) == "-Cn")
                words = words.mid(2);
            if (words.size() >= 3)
                rules.push_back({line.number, line.directive == "com2sec6", words[1], words[2]});
        } else if (const CommunityDirective *directive = communityDirective(line.directive)) {
            if (!words.isEmpty())
                rules.push_back({line.number, directive->isIpv6, words.value(1, "default"), words[0]});
        }
    }
    return rules;
}

bool SnmpdConf::allowsVersion(const char *version) const
{
    return std::any_of(m_lines.begin(), m_lines.end(), [&](const ConfLine &line) {
        if (line.directive == "group")
            return line.words.value(1) == version || line.words.value(1) == "any";
        return communityDirective(line.directive) != nullptr;
    });
}

std::vector<Receiver> SnmpdConf::receivers() const
{
    std::vector<Receiver> receivers;
    for (const ConfLine &line : m_lines) {
        const bool isReceiver = std::any_of(std::begin(receiverDirectives), std::end(receiverDirectives),
                                            [&](const char *directive) { return line.directive == directive; });
        if (isReceiver && !line.words.isEmpty())
            receivers.push_back({line.directive, line.words[0]});
    }
    return receivers;
}

bool allows(const AccessRule &rule, const QHostAddress &address)
{
    const bool isIpv6 = address.protocol() == QAbstractSocket::IPv6Protocol;
    if (rule.isIpv6 != isIpv6)
        return false;
    if (rule.source == "default")
        return true;
    if (rule.source == "localhost")
        return address.isLoopback();
    const QPair<QHostAddress, int> network = QHostAddress::parseSubnet(QString::fromLatin1(rule.source));
    if (network.first.isNull() || (network.first.protocol() == QAbstractSocket::IPv6Protocol) != isIpv6)
        return false;
    // A source without a mask is one address; Qt would parse "10" as a network.
    if (!rule.source.contains('/'))
        return QHostAddress(QString::fromLatin1(rule.source)) == address;
    return address.isInSubnet(network);
}

ListenAddress listenAddressOf(const QByteArray &text)
{
    ListenAddress address{text, transportOf(text), {}, snmpPort};
    QByteArray rest = text;
    if (address.transport.isEmpty())
        address.transport = "udp";
    else
        rest = text.mid(address.transport.size() + 1);
    if (address.transport == "unix") {
        address.host = rest;
        return address;
    }
    if (rest.startsWith('[')) { // [::1]:161
        const int close = rest.indexOf(']');
        address.host = rest.mid(1, close - 1);
        if (close >= 0 && close + 1 < rest.size())
            address.port = portOf(rest.mid(close + 2));
        return address;
    }
    const bool isIpv6Host = isIpv6Transport(address.transport) && rest.count(':') > 1; // ::1, without brackets and port
    const int colon = isIpv6Host ? -1 : rest.lastIndexOf(':');
    const bool isNumber = rest.isEmpty() || std::isdigit(static_cast<unsigned char>(rest[0])) != 0;
    if (colon >= 0) {
        address.host = rest.left(colon);
        address.port = portOf(rest.mid(colon + 1));
    } else if (isNumber && !isIpv6Host && !rest.contains('.')) {
        address.port = portOf(rest); // only a number: the port
    } else {
        address.host = rest;
    }
    return address;
}

QByteArray hostOfReceiver(const QByteArray &address)
{
    QByteArray text = confWords(address).value(0);
    const QByteArray transport = transportOf(text);
    if (!transport.isEmpty())
        text = text.mid(transport.size() + 1);
    if (text.startsWith('['))
        return text.mid(1, text.indexOf(']') - 1);
    if (text.count(':') == 1)
        return text.left(text.indexOf(':'));
    return text; // a name, an IPv4 address, or an IPv6 address without brackets
}
