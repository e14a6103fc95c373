// snmpd.conf as the self-check reads it.
#include "support/testprogram.h"

#include "check/snmpdconffile.h"

#include <QtTest>

class TestSnmpdConfFile : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void words_data();
    void words();
    void listenAddress_data();
    void listenAddress();
    void access_data();
    void access();
    void receiverHost_data();
    void receiverHost();
    void theFileThatTheDaemonWrites();
    void aFileOfComments();
    void aFileMadeByHand();
    void sectionsOfOtherPrograms();
};

void TestSnmpdConfFile::words_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QList<QByteArray>>("words");
    QTest::newRow("blanks and tabs") << QByteArray(" a \t b\r") << QList<QByteArray>{"a", "b"};
    QTest::newRow("quotes") << QByteArray("access G \"\" 'x y'") << QList<QByteArray>{"access", "G", "", "x y"};
    QTest::newRow("escaped quote") << QByteArray(R"("a\"b")") << QList<QByteArray>{"a\"b"};
    QTest::newRow("quote never closed") << QByteArray("\"a b") << QList<QByteArray>{"a b"};
    QTest::newRow("nothing") << QByteArray("  ") << QList<QByteArray>{};
}

void TestSnmpdConfFile::words()
{
    QFETCH(QByteArray, line);
    QTEST(confWords(line), "words");
}

void TestSnmpdConfFile::listenAddress_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("transport");
    QTest::addColumn<QByteArray>("host");
    QTest::addColumn<int>("port"); // 0: refused
    const auto row = [](const char *text, const char *transport, const char *host, int port) {
        QTest::newRow(text) << QByteArray(text) << QByteArray(transport) << QByteArray(host) << port;
    };
    row("udp:161", "udp", "", 161);
    row("udp6:1161", "udp6", "", 1161);
    row("161", "udp", "", 161);
    row("10.0.0.1", "udp", "10.0.0.1", 161);
    row("10.0.0.1:162", "udp", "10.0.0.1", 162);
    row("udp:localhost:161", "udp", "localhost", 161);
    row("udp6:[::1]:1161", "udp6", "::1", 1161);
    row("udp6:[::1]", "udp6", "::1", 161);
    row("udp6:::1", "udp6", "::1", 161);
    row("udp:", "udp", "", 0);
    row("udp:snmp", "udp", "snmp", 161); // a name
    row("udp:161x", "udp", "", 0);
    row("udp:70000", "udp", "", 0);
    row("udp:0", "udp", "", 0);
    row("udp6:[::1", "udp6", "::1", 161);
    row("tcp:161", "tcp", "", 161);
    row("unix:/tmp/x", "unix", "/tmp/x", 161);
}

void TestSnmpdConfFile::listenAddress()
{
    QFETCH(QByteArray, text);
    const ListenAddress address = listenAddressOf(text);
    QTEST(address.transport, "transport");
    QTEST(address.host, "host");
    QTEST(address.port.value_or(0), "port");
    QCOMPARE(address.text, text);
}

void TestSnmpdConfFile::access_data()
{
    QTest::addColumn<bool>("isIpv6");
    QTest::addColumn<QByteArray>("source");
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("allowed");
    const auto row = [](const char *name, bool isIpv6, const char *source, const char *address, bool allowed) {
        QTest::newRow(name) << isIpv6 << QByteArray(source) << QString::fromLatin1(address) << allowed;
    };
    row("default", false, "default", "127.0.0.1", true);
    row("default is of one family", false, "default", "::1", false);
    row("localhost", false, "localhost", "127.0.0.1", true);
    row("localhost is no other", false, "localhost", "10.0.0.1", false);
    row("the address", false, "10.0.0.1", "10.0.0.1", true);
    row("another address", false, "10.0.0.1", "10.0.0.2", false);
    row("no mask is one address", false, "10.0.0.0", "10.0.0.2", false);
    row("network by bits", false, "10.0.0.0/8", "10.1.2.3", true);
    row("network by mask", false, "10.0.0.0/255.0.0.0", "10.1.2.3", true);
    row("outside the network", false, "10.0.0.0/8", "11.1.2.3", false);
    row("a host name is not known", false, "nms.example.com", "10.0.0.1", false);
    row("IPv6 address", true, "::1", "::1", true);
    row("IPv6 network", true, "fd00::/8", "fd00::1", true);
    row("IPv6 default", true, "default", "fd00::1", true);
    row("IPv4 source in an IPv6 rule", true, "127.0.0.1", "::1", false);
    row("empty", false, "", "127.0.0.1", false);
}

void TestSnmpdConfFile::access()
{
    QFETCH(bool, isIpv6);
    QFETCH(QByteArray, source);
    QFETCH(QString, address);
    QTEST(allows({1, isIpv6, source, "public"}, QHostAddress(address)), "allowed");
}

void TestSnmpdConfFile::receiverHost_data()
{
    QTest::addColumn<QByteArray>("address");
    QTest::addColumn<QByteArray>("host");
    const auto row = [](const char *address, const char *host) {
        QTest::newRow(address) << QByteArray(address) << QByteArray(host);
    };
    row("10.0.0.1", "10.0.0.1");
    row("10.0.0.1:1162", "10.0.0.1");
    row("udp:nms:162", "nms");
    row("nms public 162", "nms");
    row("udp6:[fd00::1]:162", "fd00::1");
    row("[fd00::1]:162", "fd00::1");
    row("fd00::1", "fd00::1");
    row("", "");
}

void TestSnmpdConfFile::receiverHost()
{
    QFETCH(QByteArray, address);
    QTEST(hostOfReceiver(address), "host");
}

void TestSnmpdConfFile::theFileThatTheDaemonWrites()
{
    const SnmpdConf conf("master agentx\n"
                         "sysName amp\n"
                         "informsink 10.0.0.3\n"
                         "trap2sink 10.0.0.4\n"
                         "com2sec mynetwork 10.0.0.1 secret\n"
                         "com2sec6 mynetwork ::1 secret\n"
                         "#group MyROGroup v1         mynetwork\n"
                         "group MyROGroup v2c         mynetwork\n"
                         "view all    included .1\n"
                         "access MyROGroup \"\"      any       noauth    prefix  all    none   none\n"
                         "agentAddress udp6:1161,udp:1161\n");
    QVERIFY(conf.isAgentxMaster());
    QVERIFY(!conf.allowsVersion1());
    QVERIFY(conf.allowsVersion2c());
    QCOMPARE(conf.agentxSocket(), QByteArray("/var/agentx/master"));
    QCOMPARE(conf.accessRules().size(), std::size_t{2});
    QCOMPARE(conf.accessRules()[0].source, QByteArray("10.0.0.1"));
    QCOMPARE(conf.accessRules()[0].community, QByteArray("secret"));
    QCOMPARE(conf.accessRules()[0].line, 5);
    QVERIFY(conf.accessRules()[1].isIpv6);
    QCOMPARE(conf.listenAddresses().size(), std::size_t{2});
    QCOMPARE(conf.listenAddresses()[1].port.value_or(0), 1161);
    QCOMPARE(conf.receivers().size(), std::size_t{2});
    QCOMPARE(conf.receivers()[0].directive, QByteArray("informsink"));
}

void TestSnmpdConfFile::aFileOfComments()
{
    const SnmpdConf conf("#com2sec\n  # agentAddress udp:foo\n\n");
    QVERIFY(conf.isEmpty());
    QVERIFY(!conf.isAgentxMaster());
    QVERIFY(!conf.allowsVersion1() && !conf.allowsVersion2c());
    QCOMPARE(conf.listenAddresses().size(), std::size_t{1});
    QCOMPARE(conf.listenAddresses()[0].port.value_or(0), 161);
    QVERIFY(SnmpdConf("com2sec mynetwork  public\n").accessRules().empty()); // the community is taken for the source
}

void TestSnmpdConfFile::aFileMadeByHand()
{
    const SnmpdConf conf("MASTER AgentX\n"
                         "agentXSocket unix:/run/ax,tcp:localhost:705\n"
                         "rocommunity one\n"
                         "rocommunity6 two fd00::/8\n"
                         "com2sec -Cn ctx name default three\n");
    QVERIFY(conf.isAgentxMaster());
    QCOMPARE(conf.agentxSocket(), QByteArray("/run/ax"));
    QVERIFY(conf.allowsVersion1() && conf.allowsVersion2c());
    QCOMPARE(conf.accessRules().size(), std::size_t{3});
    QCOMPARE(conf.accessRules()[0].source, QByteArray("default"));
    QVERIFY(conf.accessRules()[1].isIpv6);
    QCOMPARE(conf.accessRules()[2].community, QByteArray("three"));
}

void TestSnmpdConfFile::sectionsOfOtherPrograms()
{
    const SnmpdConf conf("[snmptrapd] rocommunity here\n"
                         "[snmpd] rocommunity line\n"
                         "[snmptrapd]\n"
                         "rocommunity there\n"
                         "[snmpd]\n"
                         "rocommunity block\n");
    QCOMPARE(conf.accessRules().size(), std::size_t{2});
    QCOMPARE(conf.accessRules()[0].community, QByteArray("line"));
    QCOMPARE(conf.accessRules()[1].community, QByteArray("block"));
}

const TestEntry entry("tst_snmpdconffile", runTest<TestSnmpdConfFile>);
#include "tst_snmpdconffile.moc"
