// The trap sender: what it passes to the library, and when it refuses. The library's sending end is replaced here.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "agent/trapgate.h"

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
    QStringList texts;
    for (const netsnmp_variable_list *variable = variables; variable != nullptr; variable = variable->next_variable) {
        QString value = typeAndValue(*variable);
        if (variable->type == ASN_OBJECT_ID)
            value = QLatin1String("OID ") + oidText(variable->val.objid, variable->val_len / sizeof(oid));
        texts.append(oidText(variable->name, variable->name_length) + QLatin1Char(' ') + value);
    }
    sent.append(texts);
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
        startAgent(6412); // an unknown model sends traps all the same
        QVERIFY(kvAgent->sendTrap == &sendTrap);
        QCOMPARE(kvAgent->systemName, "");
    }

    void init()
    {
        trapGate().openSession(-1);
        setSystemName("");
        hostNameFails = false;
        hostName = "bench-host";
        sent.clear();
    }

    void refusesBadArgumentsAndWhatTheGateDoesNotAdmit()
    {
        for (const std::uint32_t number : {0U, 21U, 4294967295U})
            QCOMPARE(sendTrap(number, "text", 1, "0"), -1);
        QCOMPARE(sendTrap(1, nullptr, 1, "0"), -1);
        QCOMPARE(sendTrap(1, "text", 1, nullptr), -1);
        trapGate().closeSession();
        const AgentLog log;
        QCOMPARE(sendTrap(1, QByteArray(100000, 'x').constData(), 1, "0"), -1);
        QCOMPARE(log.lines, QStringList()); // nothing about its length
        QVERIFY(sent.isEmpty());
    }

    void variablesStandInTheirOrder()
    {
        QStringList variables = lines({"1.3.6.1.6.3.1.1.4.1.0 OID E.2.8.1", "E.2.4.1.0 STRING Orvane IPKiosk",
                                       "E.2.4.2.0 STRING bench-host", "E.2.4.3.0 INTEGER 2",
                                       "E.2.4.4.0 STRING Thu Jan  1 00.00.00 1970\n", "E.2.4.5.0 STRING fan stands"});
        QCOMPARE(sendTrap(1, "fan stands", 2, "0"), 0);
        QCOMPARE(sent.takeLast(), variables);

        const std::pair<std::string, QString> names[] = {
            {std::string(300, 'n'), QString(256, QLatin1Char('n'))},
            {"Hall 3", QStringLiteral("Hall 3")},
        };
        variables.insert(3, QString()); // sysName, without an instance
        for (const auto &[name, served] : names) {
            variables[3] = QLatin1String("1.3.6.1.2.1.1.5 STRING ") + served;
            setSystemName(name);
            QCOMPARE(sendTrap(1, "fan stands", 2, "0"), 0);
            QCOMPARE(sent.takeLast(), variables);
        }
    }

    void levelsAreSentAsTheyAre()
    {
        for (const int level : {1, 5, 0, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
            QCOMPARE(sendTrap(1, "text", level, "0"), 0);
            QCOMPARE(sent.last()[3], QStringLiteral("E.2.4.3.0 INTEGER %1").arg(level));
        }
    }

    void timeTexts()
    {
        // clang-format off
        static constexpr struct { const char *name; const char *time; const char *text; } rows[] = {
            {"zero is the epoch",                "0",                    "Thu Jan  1 00.00.00 1970\n"},
            {"decimal",                          "1714557727",           "Wed May  1 10.02.07 2024\n"},
            {"hexadecimal",                      "0x6632131f",           "Wed May  1 10.02.07 2024\n"},
            {"a leading 0 is octal",             "014614411437",         "Wed May  1 10.02.07 2024\n"},
            {"not a number is the epoch",        "yesterday",            "Thu Jan  1 00.00.00 1970\n"},
            {"a blank is not empty",             " ",                    "Thu Jan  1 00.00.00 1970\n"},
            {"up to the first other character",  "60 s",                 "Thu Jan  1 00.01.00 1970\n"},
            {"negative",                         "-60",                  "Wed Dec 31 23.59.00 1969\n"},
            {"too large for a number: all bits", "99999999999999999999", "Wed Dec 31 23.59.59 1969\n"},
            // 32 bits hold no time that is too large for a calendar
            {"too large for a calendar: epoch",  sizeof(long) > 4 ? "9000000000000000000" : "0",
                                                                         "Thu Jan  1 00.00.00 1970\n"},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.name);
            QCOMPARE(sendTrap(1, "text", 1, row.time), 0);
            QCOMPARE(sent.last()[4], QLatin1String("E.2.4.4.0 STRING ") + QLatin1String(row.text));
        }
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

    void hostNames()
    {
        hostName = std::string(300, 'h'); // fills the buffer
        QCOMPARE(sendTrap(1, "text", 1, "0"), 0);
        QCOMPARE(sent.last()[2], QLatin1String("E.2.4.2.0 STRING ") + QString(255, QLatin1Char('h')));
        hostNameFails = true;
        QCOMPARE(sendTrap(1, "text", 1, "0"), 0);
        QCOMPARE(sent.last()[2], QStringLiteral("E.2.4.2.0 STRING not configured"));
    }

    void longDescriptionsAreCut()
    {
        const QByteArray longest(64000, 'x');
        const std::pair<QByteArray, int> rows[] = {
            // a text, and how many of its bytes are kept
            {"", 0},
            {longest, 64000},
            {QString(32000, QChar(0x00FC)).toUtf8(), 64000},
            {longest + "x", 64000},
            {longest.left(63998) + "\xe2\x9c\x93", 63998}, // a character over the edge
            {QByteArray(1000000, 'x'), 64000},
        };
        for (const auto &[text, kept] : rows) {
            const AtRow at(QByteArray::number(text.size()));
            const AgentLog log;
            QCOMPARE(sendTrap(1, text.constData(), 1, "0"), 0);
            QCOMPARE(sent.last()[5], QLatin1String("E.2.4.5.0 STRING ") + QString::fromUtf8(text.left(kept)));
            const QString said = QStringLiteral("4 sendTrap: description cut from %1 to %2 bytes");
            QCOMPARE(log.lines, kept < text.size() ? QStringList{said.arg(text.size()).arg(kept)} : QStringList());
        }
    }

    void aPassOfTheLibraryMakesRoomInTheGate()
    {
        for (int pass = 0; pass < 2; ++pass) {
            QCOMPARE(sendTrap(0, "refused, and not counted", 1, "0"), -1);
            for (int trap = 0; trap < 200; ++trap)
                QCOMPARE(sendTrap(1, "text", 1, "0"), 0);
            QCOMPARE(sendTrap(1, "text", 1, "0"), -1);
            kaCheckAndProcess();
        }
        QCOMPARE(sent.size(), 400);
    }
};

const TestEntry entry("tst_trapsender", runTest<TestTrapSender>);
#include "tst_trapsender.moc"
