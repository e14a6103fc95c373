// The link to the amplifier monitor, on a separate bus with the test's monitor.
#include "support/messagebus.h"
#include "support/recordfields.h"
#include "support/talbench.h"
#include "support/testprogram.h"

#include "dbus/dbusinterface.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>

#include <memory>

namespace {
const QString serviceName = QStringLiteral("com.orvane.pamon");
const QString objectPath = QStringLiteral("/monitor");

class SystemBus : public MessageBus {
public:
    bool connectProgram()
    {
        start();
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", address().toUtf8());
        m_watcher = std::make_unique<QDBusServiceWatcher>(serviceName, QDBusConnection::systemBus());
        QObject::connect(m_watcher.get(), &QDBusServiceWatcher::serviceOwnerChanged, m_watcher.get(),
                         [this](const QString &, const QString &, const QString &owner) { m_ownerSeen = owner; });
        return QDBusConnection::systemBus().isConnected();
    }

    /// Whom this program's connection takes for the monitor; announcements of others are dropped.
    QString ownerSeen() const { return m_ownerSeen; }

private:
    std::unique_ptr<QDBusServiceWatcher> m_watcher;
    QString m_ownerSeen;
};

class CallNotes : public QDBusVirtualObject {
public:
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &) override
    {
        calls << message.interface() + QLatin1Char('.') + message.member();
        return false;
    }
    QStringList calls;
};

/// A program on the bus with a separate connection: the monitor if it has taken the name, otherwise a stranger.
class Peer {
public:
    explicit Peer(const SystemBus &bus)
        : m_systemBus(bus),
          m_name(QStringLiteral("peer-%1").arg(++s_count)),
          m_bus(QDBusConnection::connectToBus(bus.address(), m_name))
    {
        m_bus.registerVirtualObject(objectPath, &notes);
    }
    ~Peer()
    {
        if (m_systemBus.ownerSeen() == m_bus.baseService())
            giveUpName();
        m_bus.unregisterObject(objectPath);
        QDBusConnection::disconnectFromBus(m_name);
    }
    Q_DISABLE_COPY(Peer)

    /// Both return once the link's connection has been notified.
    void takeName()
    {
        QVERIFY(m_bus.registerService(serviceName));
        QTRY_COMPARE(m_systemBus.ownerSeen(), m_bus.baseService());
    }
    void giveUpName()
    {
        QVERIFY(m_bus.unregisterService(serviceName));
        QTRY_COMPARE(m_systemBus.ownerSeen(), QString());
    }

    /// Announces and waits until the bus has passed it on.
    void announce(const char *member, const QVariantList &arguments, const QString &path = objectPath,
                  const QString &interface = serviceName)
    {
        QDBusMessage message = QDBusMessage::createSignal(path, interface, qs(member));
        message.setArguments(arguments);
        QVERIFY(m_bus.send(message));
        QVERIFY(!m_bus.interface()->isServiceRegistered(qs("org.example.nobody")).value());
    }

    CallNotes notes;

private:
    static inline int s_count = 0;
    const SystemBus &m_systemBus;
    QString m_name;
    QDBusConnection m_bus;
};

class LinkBench : public TalBench {
public:
    LinkBench() : TalBench(6420), link(handler.findChild<DbusInterface *>(QString(), Qt::FindDirectChildrenOnly))
    {
        QObject::connect(link, &DbusInterface::gpoUpdateSignal, [this](uint index, QString state, QString system) {
            received << QVariantList{qs("onGpoUpdate"), index, state, system};
        });
        QObject::connect(link, &DbusInterface::gpiUpdateSignal, [this](uint index, QString state) {
            received << QVariantList{qs("onGpiUpdate"), index, state};
        });
        QObject::connect(link, &DbusInterface::ampChannelStatusUpdateSignal, [this](uint amp, uint status) {
            received << QVariantList{qs("onAmpChannelStatusUpdate"), amp, status};
        });
        QObject::connect(link, &DbusInterface::letPrecenseUpdateSignal, [this](uint let, uint channel, uint status) {
            received << QVariantList{qs("onLetPrecenseUpdate"), let, channel, status};
        });
        // The bus has read all that the link asked of it once it answers this.
        QDBusConnection::systemBus().interface()->isServiceRegistered(serviceName);
    }

    DbusInterface *link;
    QVector<QVariantList> received; ///< the member and its arguments
};
} // namespace

class TestDbusInterface : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_bus.connectProgram()); }

    void announcementsReachTheClientUnchanged()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        // clang-format off
        const struct { const char *member; QVariantList arguments; const char *line; const char *changes; } rows[] = {
            {"onGpoUpdate", {2U, qs("ok_set"), qs("ok_cleared")}, nullptr, "controlOutput.2=3"}, // without a line
            {"onGpoUpdate", {5U, qs(" Gr\xc3\xbc\xc3\x9f"), qs("\xe4\xb8\xad")}, nullptr, "controlOutput.5=1"},
            {"onGpoUpdate", {0U, qs(""), qs("")}, nullptr, "controlOutput.0=1"},
            {"onGpiUpdate", {9U, qs("fail_shorted")}, "GPI: 9 State: fail_shorted", "controlInput.9.status=4"},
            {"onAmpChannelStatusUpdate", {1U, 2U}, "Amp: 1 Status: 2",
             "ampChannel.1.status=1 ampChannel.1.ampMonitorStatus=2"},
            // By position: the line names the first number "Let:" and the second "Channel:".
            {"onLetPrecenseUpdate", {1U, 4U, 2U}, "Let: 1 Channel: 4 Status: 2",
             "let.1.3.letPresence=2 let.1.3.changed.status=1"},
            // The client ignores numbers out of range.
            {"onGpoUpdate", {6U, qs("ok_set"), qs("ok_set")}, nullptr, ""},
            {"onLetPrecenseUpdate", {0U, 1U, 4294967295U}, "Let: 0 Channel: 1 Status: 4294967295", ""},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.member);
            recordfields::fill(bench.records(), 77);
            const TableRecords before = bench.records();
            bench.received.clear();
            monitor.announce(row.member, row.arguments);
            QTRY_COMPARE(bench.received, QVector<QVariantList>{QVariantList{qs(row.member)} + row.arguments});
            QCOMPARE(recordfields::changes(before, bench.records()).join(QLatin1Char(' ')), qs(row.changes));
            QStringList lines;
            if (row.line != nullptr)
                lines << qs("dbusDo%1Slot %2").arg(qs(row.member).mid(2), qs(row.line));
            QCOMPARE(bench.log.takeLines(), lines);
        }
    }

    void othersAreIgnored()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        Peer stranger(m_bus);
        LinkBench bench;
        const struct {
            Peer &sender;
            const char *member;
            QVariantList arguments;
            QString path = objectPath;
            QString interface = serviceName;
        } rows[] = {
            {monitor, "onPowerConsumptionUpdate", {120U, 80U}},
            {monitor, "onPowerConsumptionUpdate", {120.5, 80.5}},
            {stranger, "onGpoUpdate", {2U, qs("ok_set"), qs("ok_set")}},
            {stranger, "onGpiUpdate", {2U, qs("ok_open")}},
            {stranger, "onAmpChannelStatusUpdate", {0U, 1U}},
            {stranger, "onLetPrecenseUpdate", {0U, 1U, 1U}},
            {monitor, "onGpiUpdate", {2U, qs("ok_open")}, qs("/monitor/other")},
            {monitor, "onGpiUpdate", {2U, qs("ok_open")}, objectPath, qs("com.orvane.other")},
            {monitor, "onOtherUpdate", {2U, qs("ok_open")}},
            {monitor, "onGpiUpdate", {qs("2"), qs("ok_open")}},
            {monitor, "onGpiUpdate", {2U}},
            {monitor, "onGpoUpdate", {2U, qs("ok_set")}},
            {monitor, "onAmpChannelStatusUpdate", {qs("0"), 1U}},
            {monitor, "onLetPrecenseUpdate", {}},
        };
        const TableRecords before = bench.records();
        for (const auto &row : rows)
            row.sender.announce(row.member, row.arguments, row.path, row.interface);
        hears(monitor, bench);
        QCOMPARE(bench.received.size(), 1);
        QCOMPARE(recordfields::changes(before, bench.records()), QStringList{qs("controlInput.0.status=2")});
        QCOMPARE(bench.log.lines(), QStringList{qs("dbusDoGpiUpdateSlot GPI: 0 State: ok_open")});
    }

    void theServiceComesAndIsTakenOver()
    {
        Peer first(m_bus);
        Peer second(m_bus);
        LinkBench bench;
        QVERIFY(bench.link);
        QCOMPARE(bench.log.lines(), QStringList());         // the construction says nothing
        first.announce("onGpiUpdate", {1U, qs("ok_open")}); // not yet the monitor
        first.takeName();
        hears(first, bench);
        QCOMPARE(bench.received.size(), 1);

        first.giveUpName();
        first.announce("onGpiUpdate", {1U, qs("ok_open")});
        second.takeName();
        hears(second, bench);
        first.announce("onGpiUpdate", {1U, qs("ok_open")});
        hears(second, bench);
        QCOMPARE(bench.received.size(), 3);
    }

    void nothingIsCalled()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        hears(monitor, bench);
        QCOMPARE(monitor.notes.calls, QStringList());

        // The played monitor does receive calls.
        QDBusConnection::systemBus().send(
            QDBusMessage::createMethodCall(serviceName, objectPath, serviceName, qs("doPaUiDbusConnected")));
        QTRY_COMPARE(monitor.notes.calls, QStringList{qs("com.orvane.pamon.doPaUiDbusConnected")});
    }

    void signalsAndSlotsInOrder()
    {
        const QMetaObject &link = DbusInterface::staticMetaObject;
        QCOMPARE(ownMethods(link, QMetaMethod::Signal),
                 qs("gpoUpdateSignal(uint,QString,QString) gpiUpdateSignal(uint,QString) "
                    "ampChannelStatusUpdateSignal(uint,uint) letPrecenseUpdateSignal(uint,uint,uint)"));
        QCOMPARE(ownMethods(link, QMetaMethod::Slot),
                 qs("dbusDoGpoUpdateSlot(uint,QString,QString) dbusDoGpiUpdateSlot(uint,QString) "
                    "dbusDoAmpChannelStatusUpdateSlot(uint,uint) dbusDoLetPrecenseUpdateSlot(uint,uint,uint)"));
    }

private:
    /// One announcement arrives, and so everything that was sent before has been looked at.
    static void hears(Peer &peer, LinkBench &bench)
    {
        const int before = bench.received.size();
        peer.announce("onGpiUpdate", {0U, qs("ok_open")});
        QTRY_COMPARE(bench.received.size(), before + 1);
        QCOMPARE(bench.received.last(), QVariantList({qs("onGpiUpdate"), 0U, qs("ok_open")}));
    }

    SystemBus m_bus;
};

const TestEntry entry("tst_dbusinterface", runTest<TestDbusInterface>);
#include "tst_dbusinterface.moc"
