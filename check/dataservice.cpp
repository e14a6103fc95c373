// Subscribes to the data service as the daemon does, with the daemon's subscriptions and parsers.
#include "check/dataservice.h"

#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <QEventLoop>
#include <QTimer>

#include <functional>

namespace {

class Reader : public QObject {
public:
    explicit Reader(quint32 model) : m_model(model), m_handler(nullptr, model, "")
    {
        connect(&m_service, &TalInterface::talLocalUnixSocketConnectedSignal, this, [this] {
            m_answer.connected = true;
            m_loop.quit();
        });
        connect(&m_service, &TalInterface::talNotifySignal, this, &Reader::take);
        connect(&m_handler, &TalHandler::signalSnmpdConfMib2Settings, this,
                [this](const SnmpMib2Settings &settings) { m_answer.settings.mib2 = settings; });
        connect(&m_handler, &TalHandler::signalSnmpdConfAccessSettings, this,
                [this](const SnmpAccessSettings &settings) { m_answer.settings.access = settings; });
        connect(&m_handler, &TalHandler::signalSnmpdConfTrapSettings, this,
                [this](const SnmpTrapSettings &settings) { m_answer.settings.trap = settings; });
        connect(&m_handler, &TalHandler::signalSnmpdConfVersionSettings, this,
                [this](const SnmpVersionSettings &settings) { m_answer.settings.version = settings; });
        connect(&m_handler, &TalHandler::signalSnmpdConfUseCustomConfFile, this,
                [this](bool custom) { m_answer.customConfig = custom; });
        connect(&m_handler, &TalHandler::signalUpdateEnabledSnmpTraps, this,
                [this](QMap<QString, bool> &traps) { m_answer.enabledTraps = traps; });
    }

    ServiceAnswer ask(int timeoutMs)
    {
        if (!waitUntil([this] { return m_answer.connected; }, timeoutMs))
            return m_answer;
        m_handler.slotTalReady();
        waitUntil([this] { return m_answer.groups.size() == TalHandler::settingsGroups().size(); }, timeoutMs);
        if (m_answer.groups.isEmpty() || m_model == 0)
            return m_answer;

        // A service answers in order. A setting that has already arrived is requested again after the data: when it
        // arrives again, the data have arrived before it.
        m_handler.slotStartSubscribe();
        m_isBarrierSet = true;
        TalInterface::requestDataSubscribeSingleLevel(barrier(), m_barrierPath, QStringLiteral("change"),
                                                      QStringLiteral("true"), TALTARGET_DEFAULT);
        m_answer.isComplete = waitUntil([this] { return m_isBarrierPassed; }, timeoutMs);
        return m_answer;
    }

private:
    QString barrier() const { return QStringLiteral("kvsnmp_check"); }

    void take(const QString &reference, const QString &op, const QString &rPath, const QString &sPath,
              const QString &data)
    {
        m_handler.talHandlerNotifySlot(reference, op, rPath, sPath, data);
        if (m_isBarrierSet && reference == barrier()) {
            m_isBarrierPassed = true;
        } else if (TalHandler::settingsGroups().contains(reference)) {
            m_answer.groups.insert(reference);
            m_barrierPath = sPath;
        } else {
            ++m_answer.values[reference];
        }
        m_loop.quit();
    }

    bool waitUntil(const std::function<bool()> &condition, int timeoutMs)
    {
        QTimer limit;
        limit.setSingleShot(true);
        connect(&limit, &QTimer::timeout, &m_loop, &QEventLoop::quit);
        limit.start(timeoutMs);
        while (!condition() && limit.isActive())
            m_loop.exec();
        return condition();
    }

    quint32 m_model;
    TalInterface m_service{nullptr};
    TalHandler m_handler;
    ServiceAnswer m_answer;
    QEventLoop m_loop;
    QString m_barrierPath;
    bool m_isBarrierSet = false;
    bool m_isBarrierPassed = false;
};

} // namespace

ServiceAnswer askDataService(quint32 model, int timeoutMs)
{
    registerSnmpSettingsTypes();
    // The handler also has a listener for the amplifier monitor, which is not needed here and would wait for a hanging
    // message bus.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/dev/null");
    Reader reader(model);
    return reader.ask(timeoutMs);
}
