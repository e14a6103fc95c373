// What the library passes to itself: each message once and in order, whether it is served or the library selects.
#include "support/innersessions.h"
#include "support/testprogram.h"

#include <poll.h>

#include <random>

namespace {
/// How many of the sessions' pipes a select() would find readable.
int readablePipes()
{
    int readable = 0;
    for (netsnmp_session *session : {callback_master_sess, agentx_callback_sess}) {
        pollfd pipe = {.fd = snmp_sess_transport(snmp_sess_pointer(session))->sock, .events = POLLIN, .revents = 0};
        readable += poll(&pipe, 1, 0);
    }
    return readable;
}

/// One pass of the library, without alarms.
void selectAndRead()
{
    int end = 0;
    int block = 0;
    timeval none = {};
    fd_set readable;
    FD_ZERO(&readable);
    snmp_select_info(&end, &readable, &none, &block);
    none = {};
    if (select(end, &readable, nullptr, nullptr, &none) > 0)
        snmp_read(&readable);
}

std::vector<long> ofKind(std::vector<long> numbers, bool answers)
{
    std::erase_if(numbers, [answers](long number) { return answers != (number < 0); });
    return numbers;
}
} // namespace

class TestInnerSessions : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aPipeIsReadableWhileMessagesWaitForTheLibrary()
    {
        InnerSessions sessions;
        QCOMPARE(readablePipes(), 0);
        sessions.pass(1);
        sessions.pass(2);
        QCOMPARE(readablePipes(), 1); // the requests
        serveTaken();
        QCOMPARE(readablePipes(), 0);
        QCOMPARE(sessions.taken(), (std::vector<long>{1, -1, 2, -2}));
        QVERIFY(!hasInnerMessages());
    }

    void otherWorkGetsATurn()
    {
        InnerSessions sessions;
        for (long number = 1; number <= 20; ++number)
            sessions.pass(number);
        serveTaken();
        QCOMPARE(sessions.taken().size(), std::size_t{32}); // requests and answers
        QCOMPARE(readablePipes(), 1);
        serveTaken();
        QCOMPARE(sessions.taken().size(), std::size_t{40});
        QCOMPARE(readablePipes(), 0);
    }

    void nothingStaysWithAReplacedSession()
    {
        InnerSessions sessions;
        sessions.pass(1);
        selectAndRead(); // the answer waits
        sessions.replace();
        QVERIFY(!hasInnerMessages());
        sessions.pass(2);
        serveTaken();
        QCOMPARE(sessions.taken(), (std::vector<long>{1, 2, -2}));
    }

    void theSessionMayEndWhileItIsServed()
    {
        InnerSessions sessions;
        for (const long number : {2L, InnerSessions::lastRequest, 3L})
            sessions.pass(number);
        serveTaken();
        bypassPipes();
        serveTaken();
        QCOMPARE(sessions.taken(),
                 (std::vector<long>{2, -2, InnerSessions::lastRequest, 3, -InnerSessions::lastRequest, -3}));
    }

    void eachMessageArrivesOnceAndInOrder()
    {
        std::mt19937 random(20261123); // NOLINT(cert-msc51-cpp): the same in each run
        for (int run = 0; run < 200; ++run) {
            InnerSessions sessions;
            std::vector<long> passed;
            std::vector<long> answers;
            for (int step = 0; step < 60; ++step) {
                switch (random() % 8) {
                case 0:
                    restorePipes(); // the library's bytes count the messages now
                    selectAndRead();
                    bypassPipes();
                    break;
                case 1:
                    serveReadable(snmp_sess_transport(snmp_sess_pointer(callback_master_sess))->sock);
                    break;
                case 2:
                    serveTaken();
                    break;
                case 3:
                    selectAndRead();
                    break;
                default:
                    passed.push_back(static_cast<long>(passed.size()) + 1);
                    answers.push_back(-passed.back());
                    sessions.pass(passed.back());
                }
                QCOMPARE(readablePipes() > 0, hasInnerMessages());
            }
            while (hasInnerMessages())
                selectAndRead();
            QCOMPARE(ofKind(sessions.taken(), false), passed);
            QCOMPARE(ofKind(sessions.taken(), true), answers);
        }
    }
};

const TestEntry entry("tst_innersessions", runTest<TestInnerSessions>);
#include "tst_innersessions.moc"
