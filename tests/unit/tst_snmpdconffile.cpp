// snmpd.conf as the self-check reads it.
#include "support/testprogram.h"

#include "check/snmpdconffile.h"

namespace {
/// "empty, master, socket; versions; access rules; listening addresses; receivers".
QByteArray meaningOf(const SnmpdConf &conf)
{
    QByteArrayList versions;
    QByteArrayList rules;
    QByteArrayList addresses;
    QByteArrayList receivers;
    if (conf.allowsVersion1())
        versions << "v1";
    if (conf.allowsVersion2c())
        versions << "v2c";
    for (const AccessRule &rule : conf.accessRules())
        rules << QByteArray::number(rule.line) + ' ' + rule.source + ' ' + rule.community +
                     (rule.isIpv6 ? " IPv6" : "");
    for (const ListenAddress &address : conf.listenAddresses())
        addresses << address.text;
    for (const Receiver &receiver : conf.receivers())
        receivers << receiver.directive + ' ' + receiver.address;
    return (conf.isEmpty() ? "empty " : "") + QByteArray(conf.isAgentxMaster() ? "master " : "") + conf.agentxSocket() +
           "; " + versions.join(' ') + "; " + rules.join(", ") + "; " + addresses.join(", ") + "; " +
           receivers.join(", ");
}
} // namespace

class TestSnmpdConfFile : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void words()
    {
        const std::pair<const char *, QByteArrayList> rows[] = {
            {" a \t b\r", {"a", "b"}},
            {"access G \"\" 'x y'", {"access", "G", "", "x y"}},
            {"\"a\\\"b\"", {"a\"b"}},
            {"\"a b", {"a b"}}, // a quote never closed
            {"  ", {}},
        };
        for (const auto &[line, words] : rows)
            QCOMPARE(confWords(line), words);
    }

    void listenAddress()
    {
        // clang-format off
        static constexpr const char *rows[][2] = { // the transport, the host and the port; 0: refused
            {"udp:161", "udp||161"},                      {"udp6:1161", "udp6||1161"},
            {"161", "udp||161"},                          {"10.0.0.1", "udp|10.0.0.1|161"},
            {"10.0.0.1:162", "udp|10.0.0.1|162"},         {"udp:localhost:161", "udp|localhost|161"},
            {"udp6:[::1]:1161", "udp6|::1|1161"},         {"udp6:[::1]", "udp6|::1|161"},
            {"udp6:::1", "udp6|::1|161"},                 {"udp6:[::1", "udp6|::1|161"},
            {"udp:", "udp||0"},                           {"udp:snmp", "udp|snmp|161"}, // a name
            {"udp:161x", "udp||0"},                       {"udp:70000", "udp||0"},
            {"udp:0", "udp||0"},                          {"tcp:161", "tcp||161"},
            {"unix:/tmp/x", "unix|/tmp/x|161"},
        };
        // clang-format on
        for (const auto &[text, meaning] : rows) {
            const AtRow at(text);
            const ListenAddress address = listenAddressOf(text);
            const QByteArray port = QByteArray::number(address.port.value_or(0));
            QCOMPARE(address.transport + '|' + address.host + '|' + port, meaning);
            QCOMPARE(address.text, text);
        }
    }

    void access()
    {
        // clang-format off
        static constexpr struct { bool isIpv6; const char *source; const char *address; bool allowed; } rows[] = {
            {false, "default", "127.0.0.1", true},               {false, "default", "::1", false}, // of one family
            {false, "localhost", "127.0.0.1", true},             {false, "localhost", "10.0.0.1", false},
            {false, "10.0.0.1", "10.0.0.1", true},               {false, "10.0.0.1", "10.0.0.2", false},
            {false, "10.0.0.0/8", "10.1.2.3", true},             {false, "10.0.0.0/8", "11.1.2.3", false},
            {false, "10.0.0.0/255.0.0.0", "10.1.2.3", true},     {false, "10.0.0.0", "10.0.0.2", false}, // one address
            {false, "nms.example.com", "10.0.0.1", false},       {false, "", "127.0.0.1", false},
            {true, "::1", "::1", true},                          {true, "fd00::/8", "fd00::1", true},
            {true, "default", "fd00::1", true},                  {true, "127.0.0.1", "::1", false},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.source);
            QCOMPARE(allows({1, row.isIpv6, row.source, "public"}, QHostAddress(QLatin1String(row.address))),
                     row.allowed);
        }
    }

    void receiverHost()
    {
        static constexpr const char *rows[][2] = {
            {"10.0.0.1", "10.0.0.1"},
            {"10.0.0.1:1162", "10.0.0.1"},
            {"udp:nms:162", "nms"},
            {"nms public 162", "nms"},
            {"udp6:[fd00::1]:162", "fd00::1"},
            {"[fd00::1]:162", "fd00::1"},
            {"fd00::1", "fd00::1"},
            {"", ""},
        };
        for (const auto &[address, host] : rows)
            QCOMPARE(hostOfReceiver(address), host);
    }

    void wholeFile()
    {
        static constexpr const char *rows[][3] = {
            // a name, the text and its meaning
            {"written by the daemon",
             "master agentx\n"
             "sysName amp\n"
             "informsink 10.0.0.3\n"
             "trap2sink 10.0.0.4\n"
             "com2sec mynetwork 10.0.0.1 secret\n"
             "com2sec6 mynetwork ::1 secret\n"
             "#group MyROGroup v1         mynetwork\n"
             "group MyROGroup v2c         mynetwork\n"
             "view all    included .1\n"
             "access MyROGroup \"\"      any       noauth    prefix  all    none   none\n"
             "agentAddress udp6:1161,udp:1161\n",
             "master /var/agentx/master; v2c; 5 10.0.0.1 secret, 6 ::1 secret IPv6; udp6:1161, udp:1161; "
             "informsink 10.0.0.3, trap2sink 10.0.0.4"},
            {"comments", "#com2sec\n  # agentAddress udp:foo\n\n", "empty /var/agentx/master; ; ; udp:161; "},
            {"the community in the place of the source", "com2sec mynetwork  public\n",
             "/var/agentx/master; ; ; udp:161; "},
            {"made by hand",
             "MASTER AgentX\n"
             "agentXSocket unix:/run/ax,tcp:localhost:705\n"
             "rocommunity one\n"
             "rocommunity6 two fd00::/8\n"
             "com2sec -Cn ctx name default three\n",
             "master /run/ax; v1 v2c; 3 default one, 4 fd00::/8 two IPv6, 5 default three; udp:161; "},
            {"sections of other programs",
             "[snmptrapd] rocommunity here\n"
             "[snmpd] rocommunity line\n"
             "[snmptrapd]\n"
             "rocommunity there\n"
             "[snmpd]\n"
             "rocommunity block\n",
             "/var/agentx/master; v1 v2c; 2 default line, 6 default block; udp:161; "},
        };
        for (const auto &[name, text, meaning] : rows) {
            const AtRow at(name);
            QCOMPARE(meaningOf(SnmpdConf(text)), meaning);
        }
    }
};

const TestEntry entry("tst_snmpdconffile", runTest<TestSnmpdConfFile>);
#include "tst_snmpdconffile.moc"
