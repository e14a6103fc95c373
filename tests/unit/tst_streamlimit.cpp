// Messages from and to the master that are too long: taken off the stream, refused, replaced.
#include "support/innersessions.h"
#include "support/testprogram.h"

#include "agentlib/innersessions.h"
#include "agentlib/masterconnection.h"
#include "agentlib/streamlimit.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr std::size_t longest = 65536; // of the library, in both programs

// Types of AgentX messages.
constexpr char get = 5, getNext = 6, getBulk = 7, testSet = 8, cleanupSet = 11, notify = 12, ping = 13, response = 18;

/// A message of that many bytes in all. Its packet number is 0x01020304, the other numbers are 0x11... and 0x22...
QByteArray message(char type, std::size_t size, bool bigEndian = false)
{
    const auto number = [bigEndian](quint32 value) {
        char bytes[4];
        bigEndian ? qToBigEndian(value, bytes) : qToLittleEndian(value, bytes);
        return QByteArray(bytes, sizeof(bytes));
    };
    QByteArray bytes("\1\0\0\0", 4);
    bytes[1] = type;
    bytes[2] = bigEndian ? 0x10 : 0;
    bytes += number(0x11121314) + number(0x21222324) + number(0x01020304) + number(static_cast<quint32>(size - 20));
    while (bytes.size() < static_cast<int>(size))
        bytes += static_cast<char>(bytes.size() % 251);
    return bytes;
}

/// Error 1, tooBig, at the first name, with the numbers of message().
QByteArray refusal(bool bigEndian = false)
{
    QByteArray bytes = message(response, 28, bigEndian);
    bytes.replace(20, 8, bigEndian ? QByteArray("\0\0\0\0\0\1\0\1", 8) : QByteArray("\0\0\0\0\1\0\1\0", 8));
    return bytes;
}

class Stream {
public:
    Stream()
    {
        s_arriving.clear();
        s_sent.clear();
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, m_sockets.data()) != 0)
            qFatal("no connection");
        m_transport.sock = m_sockets[0];
        m_transport.f_recv = receive;
        m_transport.f_send = send;
        limitStream(m_transport, nullptr);
    }
    ~Stream()
    {
        masterSessionLost();
        for (const int socket : m_sockets)
            close(socket);
    }
    Q_DISABLE_COPY(Stream)

    /// From here the master gets what it reads from its end of the connection, and the library `reads` its own.
    void connectToMaster(bool reads = false)
    {
        masterSessionOpened(&m_transport);
        if (!reads)
            m_transport.f_recv = receive;
        limitStream(m_transport, nullptr);
    }
    QByteArray readByMaster()
    {
        const ssize_t size = recv(m_sockets[1], m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
        return QByteArray(m_buffer.data(), static_cast<int>(qMax<ssize_t>(0, size)));
    }
    int socket() const { return m_sockets[0]; }
    void put(const QByteArray &bytes)
    {
        ::send(m_sockets[1], bytes.constData(), static_cast<std::size_t>(bytes.size()), 0);
    }
    void closeByMaster() { shutdown(m_sockets[1], SHUT_WR); }
    bool lastWasEmpty() const { return m_last == 0 && (m_transport.flags & NETSNMP_TRANSPORT_FLAG_EMPTY_PKT) != 0; }
    bool isShutDown() const
    {
        char byte = 0;
        return recv(m_sockets[1], &byte, 1, MSG_DONTWAIT) == 0;
    }

    QByteArray received(const QByteArray &bytes, int partSize)
    {
        QByteArray got;
        for (int at = 0; at < bytes.size(); at += partSize) {
            s_arriving = bytes.mid(at, partSize);
            while (!s_arriving.isEmpty())
                got += readOnce();
        }
        return got;
    }

    static void arrive(const QByteArray &bytes) { s_arriving = bytes; }

    QByteArray readOnce()
    {
        m_transport.flags = 0;
        void *opaque = nullptr;
        int opaqueLength = 0;
        m_last = m_transport.f_recv(&m_transport, m_buffer.data(), static_cast<int>(m_buffer.size()), &opaque,
                                    &opaqueLength);
        if (lastWasEmpty() && opaque != nullptr)
            qFatal("the library does not free this when it got nothing");
        std::free(opaque);
        return QByteArray(m_buffer.data(), qMax(0, m_last));
    }

    QByteArray sentOf(const QByteArray &bytes)
    {
        s_sent.clear();
        void *opaque = nullptr;
        int opaqueLength = 0;
        m_last = m_transport.f_send(&m_transport, bytes.constData(), bytes.size(), &opaque, &opaqueLength);
        return s_sent;
    }

    static QByteArray sent() { return s_sent; }
    int last() const { return m_last; } ///< result of the last call

    inline static int s_end = 0; ///< the result when nothing more comes

private:
    static int receive(netsnmp_transport *, void *buffer, int size, void **opaque, int *opaqueLength)
    {
        if (s_arriving.isEmpty())
            return s_end;
        const QByteArray part = s_arriving.left(size);
        s_arriving.remove(0, part.size());
        std::memcpy(buffer, part.constData(), static_cast<std::size_t>(part.size()));
        *opaque = std::malloc(1);
        *opaqueLength = 1;
        return part.size();
    }

    static int send(netsnmp_transport *, const void *bytes, int size, void **, int *)
    {
        s_sent += QByteArray(static_cast<const char *>(bytes), size);
        return size;
    }

    inline static QByteArray s_arriving;
    inline static QByteArray s_sent;
    netsnmp_transport m_transport = {};
    std::array<int, 2> m_sockets = {};
    std::array<char, 65536> m_buffer = {}; // of the library's size
    int m_last = 0;
};
} // namespace

class TestStreamLimit : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void requestsArriveUnlessTheyAreTooLong()
    {
        const auto expect = [](const QByteArray &bytes, bool arrives, const QByteArray &answer) {
            for (const int partSize : {1, 7, 19, 20, 21, 4096, 65536, bytes.size()}) {
                Stream stream;
                QCOMPARE(stream.received(bytes, partSize), arrives ? bytes : QByteArray());
                QCOMPARE(stream.sent(), answer);
            }
        };
        for (const QByteArray &bytes :
             {message(ping, 20), message(get, 100), message(get, longest), message(get, longest, true)})
            expect(bytes, true, {});
        for (const QByteArray &bytes : {message(get, longest + 4), message(getNext, longest + 1),
                                        message(getBulk, 5 * longest), message(testSet, longest + 4)})
            expect(bytes, false, refusal());
        expect(message(get, longest + 4, true), false, refusal(true));
        for (const char type : {cleanupSet, response}) // has no answer
            expect(message(type, longest + 4), false, {});
    }

    void theMessagesAroundArrive()
    {
        const QByteArray tooLong = message(getNext, longest + 1000);
        const QByteArray first = message(get, 60);
        const QByteArray second = message(ping, 20, true);
        const QByteArray third = message(getNext, longest);
        for (const int partSize : {1, 3, 20, 50, 1000, 4096, 65536, 1000000}) {
            Stream stream;
            QCOMPARE(stream.received(first + tooLong + second + tooLong + tooLong + third + first, partSize),
                     first + second + third + first);
            QCOMPARE(stream.sent(), refusal() + refusal() + refusal());
        }
    }

    void noRequestIsReadWhileMostPendingBytesArePending()
    {
        InnerSessions inner;
        Stream stream;
        stream.connectToMaster();
        const QByteArray request = message(get, 1024);
        const auto requests = static_cast<int>(mostPending / 1024);
        inner.pass(1);
        QCOMPARE(stream.received(request.repeated(requests), 1024), request.repeated(requests));
        stream.arrive(request);
        QCOMPARE(stream.readOnce(), QByteArray());
        QVERIFY(stream.lastWasEmpty());
        serveTaken();
        QCOMPARE(stream.readOnce(), request);
        inner.pass(1); // the count begins anew
        QCOMPARE(stream.received(request.repeated(requests - 1), 1024), request.repeated(requests - 1));
    }

    void aLengthThatTheLibraryCannotCountEndsTheConnection()
    {
        QByteArray bytes = message(get, 30);
        bytes.replace(16, 4, "\xff\xff\xff\xff");
        Stream stream;
        QCOMPARE(stream.received(message(get, 40) + bytes, 100), message(get, 40));
        QCOMPARE(stream.sent(), QByteArray());
        QVERIFY(stream.isShutDown());
    }

    void aMasterThatDoesNotAnswerIsLeft()
    {
        Stream stream;
        for (int answered = 0; answered < 2; ++answered) {
            for (int asked = 0; asked < mostUnanswered; ++asked) {
                QCOMPARE(stream.sentOf(message(ping, 20)), message(ping, 20));
                QCOMPARE(stream.sentOf(message(notify, 60)), message(notify, 60)); // nobody waits for its answer
                QCOMPARE(stream.sentOf(message(response, 60)), message(response, 60));
            }
            if (answered == 0)
                stream.received(message(response, 28), 28);
        }
        QVERIFY(!stream.isShutDown());
        QCOMPARE(stream.sentOf(message(ping, 20)), QByteArray());
        QCOMPARE(stream.last(), -1);
        QVERIFY(stream.isShutDown());
    }

    void onlyTheConnectionOfASessionIsReadWithoutAPass()
    {
        QVERIFY(!serveReadable(-1));
        Stream stream;
        QVERIFY(!serveReadable(stream.socket()));
        stream.connectToMaster();
        QVERIFY(serveReadable(stream.socket()));
        masterSessionLost();
        QVERIFY(!serveReadable(stream.socket()));
    }

    void nothingToReadIsNotTheEnd()
    {
        Stream stream;
        stream.connectToMaster(true);
        QCOMPARE(stream.readOnce(), QByteArray());
        QVERIFY(stream.lastWasEmpty());
        stream.put(message(get, 60));
        QCOMPARE(stream.readOnce(), message(get, 60));
        stream.closeByMaster();
        QCOMPARE(stream.readOnce(), QByteArray());
        QVERIFY(!stream.lastWasEmpty());
    }

    void whatTheMasterDoesNotReadIsQueued()
    {
        Stream stream;
        stream.connectToMaster();
        std::mt19937 random(20261122); // NOLINT(cert-msc51-cpp): the same in each run
        QByteArray sent;
        while (queuedOutput() <= mostQueued) {
            const QByteArray bytes = message(response, 28 + 4 * (random() % 10000));
            stream.sentOf(bytes);
            QCOMPARE(stream.last(), bytes.size());
            sent += bytes;
        }
        // Requests are refused as long as the queue is so long. The refusal is queued, too.
        QCOMPARE(stream.received(message(get, 60) + message(ping, 20), 80), message(ping, 20));
        sent += refusal();
        QByteArray read;
        while (read.size() < sent.size()) {
            read += stream.readByMaster();
            flushOutput();
        }
        QCOMPARE(read, sent);
        QCOMPARE(queuedOutput(), std::size_t{0});
        QVERIFY(!flushOutput());
        QCOMPARE(stream.received(message(get, 60), 60), message(get, 60));
    }

    void theEndOfTheStreamIsPassedOn()
    {
        Stream stream;
        stream.received(message(get, 60).left(10), 10); // a part of a header is not the end
        QVERIFY(stream.lastWasEmpty());
        for (const int end : {0, -1}) {
            Stream::s_end = end;
            stream.readOnce();
            QCOMPARE(stream.last(), end);
            QVERIFY(!stream.lastWasEmpty());
        }
    }

    void aNewConnectionBeginsWithAMessage()
    {
        Stream former;
        former.received(message(get, longest + 4).left(30000), 4096);
        Stream next;
        QCOMPARE(next.received(message(get, 60), 4096), message(get, 60));
    }

    void answersPassUnlessTheyAreTooLong()
    {
        const auto expect = [](const QByteArray &bytes, const QByteArray &passes) {
            Stream stream;
            QCOMPARE(stream.sentOf(bytes), passes);
            QCOMPARE(stream.last(), bytes.size()); // for the library it is sent
        };
        for (const QByteArray &bytes : {message(response, 100), message(response, longest),
                                        message(notify, longest + 4)}) // a notification is never replaced
            expect(bytes, bytes);
        expect(message(response, longest + 4), refusal());
        expect(message(response, longest + 4, true), refusal(true));
    }
};

const TestEntry entry("tst_streamlimit", runTest<TestStreamLimit>);
#include "tst_streamlimit.moc"
