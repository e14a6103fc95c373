// The start of the agent, its record and setters, its session to the master and its descriptors.
#include "support/agentbench.h"
#include "support/catalogue.h"
#include "support/recordfields.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "agent/trapgate.h"

#include <sys/resource.h>
#include <unistd.h>

#include <fcntl.h>

namespace {
bool settingsArePrinted = false; // each integer that the agent sets in its library

const TableModule *const tables[] = {
    // in the order in which the application calls their setters
    &voltageTable,       &tempTable,         &fanTable,         &ampChannelTable,
    &controlOutputTable, &controlInputTable, &letChannel1Table, &letChannel2Table,
    &ethMonitoringTable, &powerTable,        &relayTable,       &lineInTable,
};

/// "letChannelTable" for the LET tables, which share most functions.
QString functionsOf(const QString &table)
{
    return table.startsWith(QLatin1String("let")) ? QStringLiteral("letChannelTable") : table;
}

QString capital(const QString &name)
{
    return name[0].toUpper() + name.mid(1);
}

/// What stands between the two library calls of the start.
QStringList moduleLines(uint model, const QString &voltageLabel, const QString &ampLabel)
{
    const auto label = [](const char *table, const QString &text) {
        return text.isEmpty() ? QStringList()
                              : QStringList{QStringLiteral("init%1Model() %2").arg(QLatin1String(table), text)};
    };
    return QStringList{QStringLiteral("init_voltageTable() %1 ").arg(model)} +
           lines({"voltageTable: initialize_table_voltageTable()"}) + label("VoltageTable", voltageLabel) +
           lines({"init_tempTable()", "tempTable: initialize_table_tempTable()", "init_fanTable()",
                  "fanTable: initialize_table_fanTable()", "ampChannelTable: initialize_table_ampChannelTable()"}) +
           label("AmpChannelTable", ampLabel) +
           lines({"controlOutputTable: initialize_table_controlOutputTable()", "controlOutputCount Initializing",
                  "controlInputTable: initialize_table_controlInputTable()", "controlInputCount Initializing",
                  "letChannel1Table: initialize_table_letChannel1Table()",
                  "letChannel2Table: initialize_table_letChannel2Table()",
                  "lineInTable: initialize_table_lineInTable()",
                  "ethMonitoringTable: initialize_table_ethMonitoringTable()",
                  "powerTable: initialize_table_powerTable()", "relayTable: initialize_table_relayTable()"});
}

/// Prints what the functions do that the library holds for an object: a table's outside a request, a scalar's in
/// another mode than GET.
void callFunctionsOf(netsnmp_handler_registration &object, netsnmp_cache *cache)
{
    netsnmp_mib_handler *last = object.handler;
    netsnmp_iterator_info *iterator = nullptr;
    for (; last->next != nullptr; last = last->next)
        if (qstrcmp(last->handler_name, "table_iterator") == 0)
            iterator = static_cast<netsnmp_iterator_info *>(last->myvoid);
    std::printf("%s %d\n", object.handlerName, (object.modes & HANDLER_CAN_RWRITE) == HANDLER_CAN_RONLY);
    if (iterator == nullptr) {
        AgentLog log;
        for (const int mode : {int{MODE_SET_RESERVE1}, int{MODE_SET_RESERVE2}, int{MODE_GETNEXT}}) {
            netsnmp_agent_request_info info = {};
            info.mode = mode;
            std::printf("%d ", last->access_method(nullptr, nullptr, &info, nullptr));
        }
        std::printf("%s\n", qPrintable(log.lines.join(QLatin1Char(' '))));
        return;
    }
    const int handled = last->access_method(nullptr, nullptr, nullptr, nullptr);
    void *loop = nullptr;
    void *row = nullptr;
    netsnmp_variable_list index = {};
    const bool isEmpty = iterator->get_next_data_point(&loop, &row, &index, nullptr) == nullptr;
    cache->free_cache(nullptr, nullptr);
    const int withoutRecord = cache->load_cache(nullptr, nullptr);
    KvAgent *agent = std::exchange(kvAgent, nullptr);
    const int withoutAgent = cache->load_cache(nullptr, nullptr);
    kvAgent = agent;
    std::printf("%d %d %d %d %d\n", handled, isEmpty, cache->timeout, withoutRecord, withoutAgent);
}
} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's
extern "C" int __real_netsnmp_ds_set_int(int store, int which, int value);
extern "C" int __wrap_netsnmp_ds_set_int(int store, int which, int value)
{
    if (settingsArePrinted)
        std::printf("%d: %d = %d\n", store, which, value);
    return __real_netsnmp_ds_set_int(store, which, value);
}
// NOLINTEND(bugprone-reserved-identifier)

class TestKvAgent : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void beforeTheStartNothingHappens()
    {
        QVERIFY(kvAgent == nullptr);
        static TableRecords records = {};
        QCOMPARE(printed([] {
                     setTalTableData(records);
                     setSystemName("name");
                 }),
                 QStringList());
        std::vector<int> descriptors{1, 2, 3};
        kaDescriptors(descriptors);
        QVERIFY(descriptors.empty());
        QCOMPARE(trapGate().state(), TrapGate::State::NoSession);
        QCOMPARE(printed(initInfoScalars), lines({"copyInfoData()  kvAgent->infoData == NULL, cannot continue !"}));
    }

    void theStartPrintsItsSteps()
    {
        const QString vq9 = QStringLiteral("VQ9");
        const std::pair<uint, QStringList> cases[] = {
            {6420, moduleLines(6420, vq9, vq9)},
            {6410, moduleLines(6410, {}, {})},
            {6425, moduleLines(6425, QStringLiteral("VQ9-RX"), vq9)},
            {6720, moduleLines(6720, QStringLiteral("VQ9BAC"), vq9)},
            {6412, {}}, // unknown: nothing is registered
            {0, {}},
        };
        for (const auto &[model, between] : cases)
            QCOMPARE(printedInOwnProcess([model = model] { kaAgentStart(model, 1, ""); }),
                     lines({"Starting kvAgent", "return from init_agent() ret:0"}) + between +
                         lines({"return from init_snmp()", "Init sendTrap() function", "FINISH kaAgentStart()"}));
    }

    void theLibraryIsSetUpAsASubAgent()
    {
        const QStringList facts = printedInOwnProcess([] {
            settingsArePrinted = true;
            kaAgentStart(6720, 1, "");
            std::printf("facts %d %d %d\n", netsnmp_ds_get_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE),
                        netsnmp_ds_get_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_MAX_GETBULKREPEATS),
                        netsnmp_ds_get_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_MAX_GETBULKRESPONSES));
        });
        QCOMPARE(facts.last(), QStringLiteral("facts 1 1 1"));
        // Time limit and retries, the two limits of GETBULK; init_agent() sets the first two back.
        QCOMPARE(facts.mid(0, 6), lines({"Starting kvAgent", "1: 4 = 1", "1: 5 = 1", "1: 13 = 1", "1: 14 = 1",
                                         "return from init_agent() ret:0"}));
    }

    void theLibraryLogsToStandardError()
    {
        const QStringList output = printedInOwnProcess([] {
            snmp_enable_calllog(); // with no log at all the library falls back on standard error by itself
            dup2(STDOUT_FILENO, STDERR_FILENO);
            kaAgentStart(6720, 1, "");
            snmp_log(LOG_ERR, "said by the library\n");
        });
        QVERIFY(output.contains(QStringLiteral("said by the library")));
    }

    void everyObjectIsRegisteredUnderItsNameWithItsOwnFunctions()
    {
        QVector<catalogue::Row> objects;
        for (const catalogue::Row &object : catalogue::rows("objects"))
            if (object.text("syntax") == QLatin1String("table") || object.text("arc").count(QLatin1Char('.')) < 3)
                objects << object; // no column
        QCOMPARE(objects.size(), 28);
        const QStringList output = printedInOwnProcess([&objects] {
            startAgent(6420);
            for (const catalogue::Row &object : qAsConst(objects)) {
                std::vector<oid> name{1, 3, 6, 1, 4, 1, 52717, 3};
                for (const QString &arc : object.text("arc").split(QLatin1Char('.')))
                    name.push_back(arc.toULong());
                const netsnmp_subtree *tree = netsnmp_subtree_find(name.data(), name.size(), nullptr, "");
                if (tree == nullptr || tree->reginfo == nullptr || tree->reginfo->rootoid_len != name.size())
                    std::printf("%s is not registered\n", qPrintable(object.text("object")));
                else
                    callFunctionsOf(*tree->reginfo,
                                    netsnmp_cache_find_by_oid(name.data(), static_cast<int>(name.size())));
            }
        });
        QStringList expected;
        for (const catalogue::Row &object : qAsConst(objects)) {
            const QString name = object.text("object");
            expected << name + QLatin1String(" 1");
            if (object.text("syntax") == QLatin1String("table")) {
                const QString shared = functionsOf(name);
                expected << shared + QLatin1String("_handler() ERROR reqinfo was NULL ")
                         << name + QLatin1String("_get_next_data_point()") << shared + QLatin1String("_free()")
                         << name + QLatin1String("_load()")
                         << QStringLiteral("%1_load() kvAgent->tal%2Data == NULL").arg(name, capital(shared))
                         << name + QLatin1String("_load()") << name + QLatin1String("_load() kvAgent == NULL")
                         << QStringLiteral("3 1 60 -1 -1");
            } else {
                const QString logged =
                    name == QLatin1String("letChannel2Count") ? QStringLiteral("letChannel1Count") : name; // intended
                expected << QStringLiteral("5 5 5 3 unknown mode (0) in handle_%1 3 unknown mode (1) in handle_%1 "
                                           "3 unknown mode (161) in handle_%1")
                                .arg(logged);
            }
        }
        QCOMPARE(output, expected);
    }

    void theEntryFunctionsOnlyPrint()
    {
        for (const TableModule *table : tables) {
            const QString name = functionsOf(QString::fromLatin1(table->name));
            QCOMPARE(printed(table->hooks.createEntry), QStringList{name + QLatin1String("_createEntry()")});
            QCOMPARE(printed(table->hooks.removeEntry), QStringList{name + QLatin1String("_removeEntry()")});
        }
    }

    void settersRefillAtOnceButForPowerAndRelays()
    {
        const QStringList output = printedInOwnProcess([] {
            static TableRecords records = recordfields::distinct();
            startAgent(6420);
            setTalTableData(records);
        });
        QStringList expected;
        for (const TableModule *table : tables) {
            const QString name = capital(QString::fromLatin1(table->name));
            if (name.startsWith(QLatin1String("Let")))
                expected << QStringLiteral("copyTalLetChannelTableData() for letChannel: %1").arg(name[10]);
            else if (table != &powerTable && table != &relayTable)
                expected << QStringLiteral("copyTal%1Data()").arg(name)
                         << QStringLiteral("refill%1Entries()").arg(name);
        }
        QCOMPARE(output, expected);
    }

    void loadsOfModelsWithoutARowSetSucceedButForRelays()
    {
        const auto loadsOn = [](uint model) {
            return printedInOwnProcess([model] {
                static TableRecords records = recordfields::distinct();
                startAgent(model);
                printed([] { setTalTableData(records); });
                for (const TableModule *table : tables)
                    std::printf("%d\n", table->hooks.load(nullptr, nullptr));
            });
        };
        QStringList expected;
        for (const TableModule *table : tables) {
            const QString name = QString::fromLatin1(table->name);
            expected << name + QLatin1String("_load()");
            if (name.startsWith(QLatin1String("control")) || table == &relayTable)
                expected << QStringLiteral("copyTal%1Data()").arg(capital(name))
                         << QStringLiteral("refill%1Entries()").arg(capital(name));
            expected << QStringLiteral("0");
        }
        QCOMPARE(loadsOn(6891), expected);
        const QStringList loads = loadsOn(6410);
        QCOMPARE(loads.mid(loads.indexOf(QStringLiteral("relayTable_load()")), 2), lines({"relayTable_load()", "-1"}));
    }

    void descriptorsBeyondTheSelectLimitAreNamed()
    {
        const QStringList output = printedInOwnProcess([] {
            rlimit limit = {};
            getrlimit(RLIMIT_NOFILE, &limit);
            limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
            setrlimit(RLIMIT_NOFILE, &limit);
            for (int last = 0; last >= 0 && last < FD_SETSIZE + 10;)
                last = dup(STDERR_FILENO);
            startAgent(6410);
            std::vector<int> descriptors;
            kaDescriptors(descriptors);
            std::printf("%d\n", !descriptors.empty() && descriptors.front() > FD_SETSIZE);
        });
        QCOMPARE(output, lines({"1"}));
    }

    // Up to here this process itself has started no agent; from here it has.
    void sessionsOpenAndCloseTheGate()
    {
        int opened = 0;
        trapGate().setOpened([&opened] { ++opened; });
        startAgent(6410); // there is no master, so no session opens by itself
        QCOMPARE(trapGate().state(), TrapGate::State::NoSession);

        netsnmp_session session = {};
        session.retries = 5;
        snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, &session);
        QCOMPARE(opened, 1);
        QCOMPARE(session.retries, 0); // a notification that is repeated is a doubled trap
        QCOMPARE(trapGate().state(), TrapGate::State::Open);
        setMasterEnding(true);
        QCOMPARE(trapGate().state(), TrapGate::State::MasterEnding);
        setMasterEnding(false);
        QCOMPARE(opened, 2);

        trapGate().setOpened(nullptr);
        snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, &session);
        QCOMPARE(trapGate().state(), TrapGate::State::NoSession);
        snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, &session);
        QCOMPARE(trapGate().state(), TrapGate::State::Open);
        snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, &session);
        QCOMPARE(opened, 2);
    }

    void theDescriptorsAreTheLibrarysPipes()
    {
        QVERIFY(kvAgent != nullptr); // started by the test before
        std::vector<int> descriptors{99};
        kaDescriptors(descriptors);
        QVERIFY(!descriptors.empty());
        QVERIFY(std::is_sorted(descriptors.begin(), descriptors.end()));
        for (const int descriptor : descriptors)
            QVERIFY(fcntl(descriptor, F_GETFD) >= 0);
    }
};

const TestEntry entry("tst_kvagent", runTest<TestKvAgent>);
#include "tst_kvagent.moc"
