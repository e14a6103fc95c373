// The trap sender: what it hands to the library, and when it refuses. The library's sending end is replaced here.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "agent/trapgate.h"
#include "device/trapcatalogue.h"

#include <QtTest>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <string>

#include <unistd.h>

namespace {
QList<QStringList> sent; // the notifications, each as its variables
bool hostNameFails = false;
std::string hostName = "bench-host";

QString oidText(const oid *name, std::size_t length)
{
    QStringList arcs;
    for (std::size_t i = 0; i < length; ++i)
        arcs.append(QString::number(name[i]));
    return arcs.join(QLatin1Char('.')).replace(QLatin1String("1.3.6.1.4.1.52717."), QLatin1String("E."));
}
} // namespace

extern "C" void send_v2trap(netsnmp_variable_list *variables)
{
    QStringList lines;
    for (const netsnmp_variable_list *variable = variables; variable != nullptr; variable = variable->next_variable) {
        QString line = oidText(variable->name, variable->name_length);
        if (variable->type == ASN_OBJECT_ID)
            line += QLatin1String(" OID ") + oidText(variable->val.objid, variable->val_len / sizeof(oid));
        else if (variable->type == ASN_INTEGER)
            line += QStringLiteral(" INTEGER %1").arg(*variable->val.integer);
        else if (variable->type == ASN_OCTET_STR)
            line += QLatin1String(" STRING ") + QString::fromUtf8(reinterpret_cast<const char *>(variable->val.string),
                                                                  static_cast<int>(variable->val_len));
        lines.append(line);
    }
    sent.append(lines);
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system's names are reserved ones
extern "C" int gethostname(char *buffer, std::size_t size) noexcept
{
    if (hostNameFails) {
        errno = EFAULT;
        return -1;
    }
    std::memcpy(buffer, hostName.c_str(), std::min(size, hostName.size() + 1));
    return 0;
}

class TestTrapSender : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("TZ", "UTC");
        tzset();
        QCOMPARE(sendTrap(1, "too early", 1, "0"), -1);
        printed([] { kaAgentStart(6410, 1, ""); });
        QVERIFY(kvAgent->sendTrap == &sendTrap);
    }

    void init()
    {
        trapGate().openSession(-1);
        setSystemName("");
        hostNameFails = false;
        hostName = "bench-host";
        sent.clear();
    }

    void refusesBadArguments()
    {
        QCOMPARE(sendTrap(0, "text", 1, "0"), -1);
        QCOMPARE(sendTrap(21, "text", 1, "0"), -1);
        QCOMPARE(sendTrap(4294967295U, "text", 1, "0"), -1);
        QCOMPARE(sendTrap(1, nullptr, 1, "0"), -1);
        QCOMPARE(sendTrap(1, "text", 1, nullptr), -1);
        QVERIFY(sent.isEmpty());
    }

    void refusesWhatTheGateDoesNotAdmit()
    {
        trapGate().closeSession();
        QCOMPARE(sendTrap(1, "text", 1, "0"), -1);
        QVERIFY(sent.isEmpty());
        trapGate().openSession(-1);
        QCOMPARE(sendTrap(1, "text", 1, "0"), 0);
        QCOMPARE(sent.size(), 1);
    }

    void variablesStandInTheirOrder()
    {
        QCOMPARE(sendTrap(1, "fan stands", 2, "0"), 0);
        QCOMPARE(sent.first(),
                 (QStringList{QStringLiteral("1.3.6.1.6.3.1.1.4.1.0 OID E.2.8.1"),
                              QStringLiteral("E.2.4.1.0 STRING Orvane IPKiosk"),
                              QStringLiteral("E.2.4.2.0 STRING bench-host"), QStringLiteral("E.2.4.3.0 INTEGER 2"),
                              QStringLiteral("E.2.4.4.0 STRING Thu Jan  1 00.00.00 1970\n"),
                              QStringLiteral("E.2.4.5.0 STRING fan stands")}));
    }

    void aSystemNameAddsSysNameWithoutInstance()
    {
        setSystemName("Hall 3");
        QCOMPARE(sendTrap(1, "fan stands", 2, "0"), 0);
        QCOMPARE(sent.first().size(), 7);
        QCOMPARE(sent.first()[3], QStringLiteral("1.3.6.1.2.1.1.5 STRING Hall 3"));
        QVERIFY(sent.first()[2].startsWith(QStringLiteral("E.2.4.2.0 ")));
        QVERIFY(sent.first()[4].startsWith(QStringLiteral("E.2.4.3.0 ")));

        setSystemName(std::string(300, 'n'));
        QCOMPARE(sendTrap(1, "fan stands", 2, "0"), 0);
        QCOMPARE(sent.last()[3], QLatin1String("1.3.6.1.2.1.1.5 STRING ") + QString(256, QLatin1Char('n')));
    }

    void numbersSelectTheirNotification_data()
    {
        QTest::addColumn<uint>("number");
        QTest::addColumn<uint>("arc");
        const uint arcs[] = {1, 2, 3, 4, 5, 6, 9, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 10};
        for (uint number = 1; number <= 20; ++number)
            QTest::addRow("trap %u", number) << number << arcs[number - 1];
    }

    void numbersSelectTheirNotification()
    {
        QFETCH(uint, number);
        QFETCH(uint, arc);
        QCOMPARE(sendTrap(number, "text", 1, "0"), 0);
        QCOMPARE(sent.first().first(), QStringLiteral("1.3.6.1.6.3.1.1.4.1.0 OID E.2.8.%1").arg(arc));
    }

    void levelsAreSentAsTheyAre_data()
    {
        QTest::addColumn<int>("level");
        for (const int level : {1, 5, 0, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()})
            QTest::addRow("%d", level) << level;
    }

    void levelsAreSentAsTheyAre()
    {
        QFETCH(int, level);
        QCOMPARE(sendTrap(1, "text", level, "0"), 0);
        QCOMPARE(sent.first()[3], QStringLiteral("E.2.4.3.0 INTEGER %1").arg(level));
    }

    void timeTexts_data()
    {
        QTest::addColumn<QByteArray>("time");
        QTest::addColumn<QString>("text");
        const auto add = [](const char *name, const char *time, const char *text) {
            QTest::newRow(name) << QByteArray(time) << QString::fromLatin1(text);
        };
        add("zero is the epoch", "0", "Thu Jan  1 00.00.00 1970\n");
        add("decimal", "1714557727", "Wed May  1 10.02.07 2024\n");
        add("hexadecimal", "0x6632131f", "Wed May  1 10.02.07 2024\n");
        add("a leading 0 is octal", "014614411437", "Wed May  1 10.02.07 2024\n");
        add("not a number is the epoch", "yesterday", "Thu Jan  1 00.00.00 1970\n");
        add("a blank is not empty", " ", "Thu Jan  1 00.00.00 1970\n");
        add("up to the first other character", "60 s", "Thu Jan  1 00.01.00 1970\n");
        add("negative", "-60", "Wed Dec 31 23.59.00 1969\n");
        add("too large for a number: all bits", "99999999999999999999", "Wed Dec 31 23.59.59 1969\n");
        if (sizeof(unsigned long) > 4) // 32 bits hold no time that is too large for a calendar
            add("too large for a calendar: the epoch", "9000000000000000000", "Thu Jan  1 00.00.00 1970\n");
    }

    void timeTexts()
    {
        QFETCH(QByteArray, time);
        QFETCH(QString, text);
        QCOMPARE(sendTrap(1, "text", 1, time.constData()), 0);
        QCOMPARE(sent.first()[4], QLatin1String("E.2.4.4.0 STRING ") + text);
    }

    void anEmptyTimeIsNow()
    {
        const std::time_t before = std::time(nullptr);
        QCOMPARE(sendTrap(1, "text", 1, ""), 0);
        const std::time_t after = std::time(nullptr);
        QStringList possible;
        for (std::time_t moment = before; moment <= after; ++moment)
            possible.append(QLatin1String("E.2.4.4.0 STRING ") +
                            QString::fromLatin1(std::ctime(&moment)).replace(QLatin1Char(':'), QLatin1Char('.')));
        QVERIFY2(possible.contains(sent.first()[4]), qPrintable(sent.first()[4]));
    }

    void aFailedHostNameIsReplaced()
    {
        hostNameFails = true;
        QCOMPARE(sendTrap(1, "text", 1, "0"), 0);
        QCOMPARE(sent.first()[2], QStringLiteral("E.2.4.2.0 STRING not configured"));
    }

    void aHostNameThatFillsTheBufferIsTerminated()
    {
        hostName = std::string(300, 'h');
        QCOMPARE(sendTrap(1, "text", 1, "0"), 0);
        QCOMPARE(sent.first()[2], QLatin1String("E.2.4.2.0 STRING ") + QString(255, QLatin1Char('h')));
    }

    void descriptions_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("kept"); // of its bytes
        const QByteArray longest(64000, 'x');
        QTest::newRow("empty") << QByteArray("") << 0;
        QTest::newRow("longest") << longest << 64000;
        QTest::newRow("longest, two bytes a character") << QString(32000, QChar(0x00FC)).toUtf8() << 64000;
        QTest::newRow("one byte too long") << longest + "x" << 64000;
        QTest::newRow("a character over the edge") << longest.left(63998) + "\xe2\x9c\x93" << 63998;
        QTest::newRow("1 MB") << QByteArray(1000000, 'x') << 64000;
    }

    void descriptions()
    {
        QFETCH(QByteArray, text);
        QFETCH(int, kept);
        const QByteArray expected = text.left(kept);
        const AgentLog log;
        QCOMPARE(sendTrap(1, text.constData(), 1, "0"), 0);
        QCOMPARE(sent.last()[5], QLatin1String("E.2.4.5.0 STRING ") + QString::fromUtf8(expected));
        QStringList said;
        if (kept < text.size())
            said.append(QStringLiteral("4 sendTrap: description cut from %1 to %2 bytes").arg(text.size()).arg(kept));
        QCOMPARE(log.lines, said);
    }

    void aRefusedTrapSaysNothingOfItsLength()
    {
        trapGate().closeSession();
        const AgentLog log;
        QCOMPARE(sendTrap(1, QByteArray(100000, 'x').constData(), 1, "0"), -1);
        QCOMPARE(log.lines, QStringList());
    }

    void atMostTwoHundredBetweenTwoPasses()
    {
        for (int trap = 0; trap < 200; ++trap)
            QCOMPARE(sendTrap(1, "text", 1, "0"), 0);
        QCOMPARE(sendTrap(1, "text", 1, "0"), -1);
        QCOMPARE(sent.size(), 200);
        kaCheckAndProcess();
        QCOMPARE(sendTrap(0, "refused, and not counted", 1, "0"), -1);
        for (int trap = 0; trap < 200; ++trap)
            QCOMPARE(sendTrap(1, "text", 1, "0"), 0);
    }
};

const TestEntry entry("tst_trapsender", runTest<TestTrapSender>);
#include "tst_trapsender.moc"
