// The start of the agent, its record and setters, its session to the master and its descriptors.
#include "support/agentbench.h"
#include "support/catalogue.h"
#include "support/recordfields.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "agent/trapgate.h"

#include <QtTest>

#include <sys/resource.h>
#include <unistd.h>

#include <fcntl.h>

namespace {
bool settingsArePrinted = false; // each integer that the agent sets in its library

// What stands between the two library calls of the start, on model 6420.
const QStringList moduleLines = lines({
    "init_voltageTable() 6420 ",
    "voltageTable: initialize_table_voltageTable()",
    "initVoltageTableModel() VQ9",
    "init_tempTable()",
    "tempTable: initialize_table_tempTable()",
    "init_fanTable()",
    "fanTable: initialize_table_fanTable()",
    "ampChannelTable: initialize_table_ampChannelTable()",
    "initAmpChannelTableModel() VQ9",
    "controlOutputTable: initialize_table_controlOutputTable()",
    "controlOutputCount Initializing",
    "controlInputTable: initialize_table_controlInputTable()",
    "controlInputCount Initializing",
    "letChannel1Table: initialize_table_letChannel1Table()",
    "letChannel2Table: initialize_table_letChannel2Table()",
    "lineInTable: initialize_table_lineInTable()",
    "ethMonitoringTable: initialize_table_ethMonitoringTable()",
    "powerTable: initialize_table_powerTable()",
    "relayTable: initialize_table_relayTable()",
});

/// The functions of each table; `next` of a LET table, whose messages have names of their own, is not looked at.
struct Module {
    const char *name;
    Netsnmp_Node_Handler *handler;
    NetsnmpCacheLoad *load;
    NetsnmpCacheFree *free;
    Netsnmp_Next_Data_Point *next = nullptr;
    void (*create)() = nullptr;
    void (*remove)() = nullptr;
};
// clang-format off
#define MODULE(NAME) {#NAME, NAME.hooks.handler, NAME.hooks.load, NAME.hooks.free, NAME.hooks.getNext, NAME.hooks.createEntry, NAME.hooks.removeEntry}
const Module modules[] = { // in the order of their registration, which is that of their setters
    MODULE(voltageTable),
    MODULE(tempTable),
    MODULE(fanTable),
    MODULE(ampChannelTable),
    MODULE(controlOutputTable),
    MODULE(controlInputTable),
    {"letChannel1Table", letChannel1Table.hooks.handler, letChannel1Table.hooks.load, letChannel1Table.hooks.free},
    {"letChannel2Table", letChannel1Table.hooks.handler, letChannel2Table.hooks.load, letChannel1Table.hooks.free},
    MODULE(lineInTable),
    MODULE(ethMonitoringTable),
    MODULE(powerTable),
    MODULE(relayTable),
};
#undef MODULE
const struct ScalarCase { const char *name; Netsnmp_Node_Handler *handler; const char *logged = nullptr; } scalars[] = {
    {"infoPackageVersion", handle_infoPackageVersion}, {"infoModelType", handle_infoModelType},
    {"infoModelNumber", handle_infoModelNumber},       {"infoAmplifierType", handle_infoAmplifierType},
    {"infoKernelVersion", handle_infoKernelVersion},   {"infoDeviceTreeVersion", handle_infoDeviceTreeVersion},
    {"infoDisablement", handle_infoDisablement},       {"tempTableCount", tempTable.count.handler},
    {"fanTableCount", fanTable.count.handler},           {"voltageTableCount", voltageTable.count.handler},
    {"ampChannelCount", ampChannelTable.count.handler},       {"ampType", handle_ampType},
    {"letChannel1Count", letChannel1Table.count.handler},     {"letChannel2Count", letChannel2Table.count.handler, "letChannel1Count"}, // intended
    {"controlInputCount", controlInputTable.count.handler},   {"controlOutputCount", controlOutputTable.count.handler},
};
// clang-format on
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
        static const VoltageRecord voltage = {};
        static RelayRecord relay = {};
        QCOMPARE(printed([] {
                     setTalVoltageTableData(&voltage);
                     setTalRelayTableData(&relay);
                     setSystemName("name");
                 }),
                 QStringList());
        std::vector<int> descriptors{1, 2, 3};
        kaDescriptors(descriptors);
        QVERIFY(descriptors.empty());
        QCOMPARE(trapGate().state(), TrapGate::State::NoSession);
        QCOMPARE(printed(initInfoScalars), lines({"copyInfoData()  kvAgent->infoData == NULL, cannot continue !"}));
    }

    void theStartPrintsItsSteps_data()
    {
        QTest::addColumn<uint>("model");
        QTest::addColumn<QStringList>("between");
        QTest::newRow("6420") << 6420U << moduleLines;
        QStringList without = moduleLines;
        without.removeAt(8);
        without.removeAt(2);
        without[0] = QStringLiteral("init_voltageTable() 6410 ");
        QTest::newRow("6410: no lines for its models") << 6410U << without;
        QStringList receiver = moduleLines;
        receiver[0] = QStringLiteral("init_voltageTable() 6425 ");
        receiver[2] = QStringLiteral("initVoltageTableModel() VQ9-RX");
        QTest::newRow("6425") << 6425U << receiver;
        QTest::newRow("6412: unknown, nothing registered") << 6412U << QStringList();
        QTest::newRow("0") << 0U << QStringList();
    }

    void theStartPrintsItsSteps()
    {
        QFETCH(uint, model);
        QFETCH(QStringList, between);
        QStringList expected = lines({"Starting kvAgent", "return from init_agent() ret:0"});
        expected += between;
        expected += lines({"return from init_snmp()", "Init sendTrap() function", "FINISH kaAgentStart()"});
        QCOMPARE(printedInOwnProcess([model] { kaAgentStart(model, 1, ""); }), expected);
    }

    void theStartFillsTheRecord()
    {
        const QStringList facts = printedInOwnProcess([] {
            const char *text = "Orvane Brisel";
            kaAgentStart(6720, 200, text);
            const KvAgent &agent = *kvAgent;
            std::printf("facts %u %d %d", agent.modelNumber, agent.ampType, agent.modelText == text);
            std::printf(" %d", agent.talVoltageTableData == nullptr && agent.talTempTableData == nullptr &&
                                   agent.talFanTableData == nullptr && agent.talAmpChannelTableData == nullptr &&
                                   agent.talControlOutputTableData == nullptr &&
                                   agent.talControlInputTableData == nullptr &&
                                   agent.talLetChannelTableData == nullptr && agent.talLineInTableData == nullptr &&
                                   agent.talEthMonitoringTableData == nullptr && agent.talPowerTableData == nullptr &&
                                   agent.talRelayTableData == nullptr && agent.infoData == nullptr);
            std::printf(" %d %d\n", agent.sendTrap == &sendTrap, agent.systemName[0]);
        });
        QCOMPARE(facts.last(), QStringLiteral("facts 6720 200 1 1 1 0"));
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

    void anUnknownModelSendsTrapsAllTheSame()
    {
        const QStringList output = printedInOwnProcess([] {
            {
                StandardOutput progress;
                kaAgentStart(6412, 1, "");
            }
            trapGate().openSession(-1);
            std::printf("%d\n", kvAgent->sendTrap(1, "fan stands", 1, "0"));
        });
        QCOMPARE(output, lines({"0"}));
    }

    void everyObjectIsRegisteredUnderItsNameWithItsOwnFunctions()
    {
        const QStringList output = printedInOwnProcess([] {
            {
                StandardOutput progress;
                kaAgentStart(6420, 1, "");
            }
            int found = 0;
            for (const catalogue::Row &object : catalogue::rows("objects")) {
                const auto named = [&](const auto &entry) {
                    return object.text("object") == QLatin1String(entry.name);
                };
                const auto *module = std::find_if(std::begin(modules), std::end(modules), named);
                const auto *scalar = std::find_if(std::begin(scalars), std::end(scalars), named);
                const bool isTable = module != std::end(modules);
                if (!isTable && scalar == std::end(scalars))
                    continue; // a column
                ++found;
                std::vector<oid> name{1, 3, 6, 1, 4, 1, 52717, 3};
                for (const QString &arc : object.text("arc").split(QLatin1Char('.')))
                    name.push_back(arc.toULong());
                const netsnmp_subtree *tree = netsnmp_subtree_find(name.data(), name.size(), nullptr, "");
                if (tree == nullptr || tree->reginfo == nullptr) {
                    std::printf("%s is not registered\n", qPrintable(object.text("object")));
                    continue;
                }
                const netsnmp_handler_registration &entry = *tree->reginfo;
                const netsnmp_mib_handler *last = entry.handler;
                while (last->next != nullptr)
                    last = last->next;
                if (entry.handlerName != object.latin1("object") || entry.rootoid_len != name.size() ||
                    (entry.modes & HANDLER_CAN_RWRITE) != HANDLER_CAN_RONLY ||
                    last->access_method != (isTable ? module->handler : scalar->handler))
                    std::printf("%s is registered otherwise\n", entry.handlerName);
                const netsnmp_cache *cache = netsnmp_cache_find_by_oid(name.data(), static_cast<int>(name.size()));
                if (isTable && (cache == nullptr || cache->timeout != 60 || cache->load_cache != module->load ||
                                cache->free_cache != module->free))
                    std::printf("%s has another cache\n", entry.handlerName);
            }
            std::printf("%d compared\n", found);
        });
        QCOMPARE(output, lines({"28 compared"}));
    }

    void settersStoreAndRefillAtOnce()
    {
        const QStringList output = printedInOwnProcess([] {
            static TableRecords records = recordfields::telling();
            {
                StandardOutput progress;
                kaAgentStart(6420, 1, "");
            }
            handOver(records);
            const KvAgent &agent = *kvAgent;
            std::printf(
                "%d", agent.talVoltageTableData == &records.voltage && agent.talTempTableData == &records.temp &&
                          agent.talFanTableData == &records.fan &&
                          agent.talAmpChannelTableData == &records.ampChannel &&
                          agent.talControlOutputTableData == &records.controlOutput &&
                          agent.talControlInputTableData == &records.controlInput &&
                          agent.talLetChannelTableData == &records.let && agent.talLineInTableData == &records.lineIn &&
                          agent.talEthMonitoringTableData == &records.ethMonitoring &&
                          agent.talPowerTableData == &records.power && agent.talRelayTableData == &records.relay);
        });
        QCOMPARE(output, lines({"copyTalVoltageTableData()", "refillVoltageTableEntries()", "copyTalTempTableData()",
                                "refillTempTableEntries()", "copyTalFanTableData()", "refillFanTableEntries()",
                                "copyTalAmpChannelTableData()", "refillAmpChannelTableEntries()",
                                "copyTalControlOutputTableData()", "refillControlOutputTableEntries()",
                                "copyTalControlInputTableData()", "refillControlInputTableEntries()",
                                "copyTalLetChannelTableData() for letChannel: 1",
                                "copyTalLetChannelTableData() for letChannel: 2", "copyTalEthMonitoringTableData()",
                                "refillEthMonitoringTableEntries()", "copyTalLineInTableData()",
                                "refillLineInTableEntries()", "1"}));
    }

    void powerAndRelaySettersOnlyStore()
    {
        const QStringList output = printedInOwnProcess([] {
            static PowerRecord power = {{{3, 3}, {3, 3}}};
            static RelayRecord relay = {};
            kaAgentStart(6410, 1, "");
            setTalPowerTableData(&power);
            setTalRelayTableData(&relay);
            StandardOutput progress;
            kvAgent->talPowerTableData = nullptr; // so that the request's load copies nothing
            const QStringList stored = snmpGet({QStringLiteral("3.5.1.1.4.1")});
            kvAgent->talPowerTableData = &power;
            expireCache(QStringLiteral("3.5.1"));
            const QStringList loaded = snmpGet({QStringLiteral("3.5.1.1.4.1")});
            progress.takeText();
            std::fprintf(stderr, "%s %s\n", qPrintable(stored.first()), qPrintable(loaded.first()));
            std::_Exit(stored.first().endsWith(QLatin1String("INTEGER 1")) &&
                               loaded.first().endsWith(QLatin1String("INTEGER 3"))
                           ? 0
                           : 1);
        });
        QCOMPARE(output.last(), QStringLiteral("FINISH kaAgentStart()"));
    }

    void loadsOfModelsWithoutARowSetSucceed()
    {
        const QStringList output = printedInOwnProcess([] {
            static TableRecords records = recordfields::telling();
            {
                StandardOutput progress;
                kaAgentStart(6891, 1, "");
                handOver(records);
            }
            for (const Module &module : modules)
                std::printf("%d\n", module.load(nullptr, nullptr));
        });
        QStringList expected;
        for (const Module &module : modules) {
            QString name = QString::fromLatin1(module.name);
            expected << name + QLatin1String("_load()");
            name[0] = name[0].toUpper();
            if (qstrncmp(module.name, "control", 7) == 0 || qstrcmp(module.name, "relayTable") == 0)
                expected << QStringLiteral("copyTal%1Data()").arg(name)
                         << QStringLiteral("refill%1Entries()").arg(name);
            expected << QStringLiteral("0");
        }
        QCOMPARE(output, expected);
    }

    void theRelayLoadFailsOnOtherModels()
    {
        const QStringList output = printedInOwnProcess([] {
            static RelayRecord relay = {};
            {
                StandardOutput progress;
                kaAgentStart(6410, 1, "");
            }
            std::printf("%d\n", relayTable.hooks.load(nullptr, nullptr)); // the messages come first
            setTalRelayTableData(&relay);
            std::printf("%d\n", relayTable.hooks.load(nullptr, nullptr));
        });
        QCOMPARE(output, lines({"relayTable_load()", "relayTable_load() kvAgent->talRelayTableData == NULL", "-1",
                                "relayTable_load()", "-1"}));
    }

    void ampChannelRowsOfSingleOutputModelsStayAtOne()
    {
        const QStringList output = printedInOwnProcess([] {
            static const AmpChannelRecord channels = {{{3, 7, 0, 0}, {3, 7, 0, 0}}};
            {
                StandardOutput progress;
                kaAgentStart(6601, 1, "");
            }
            setTalAmpChannelTableData(&channels);
            StandardOutput progress;
            const QStringList answers = snmpGet({QStringLiteral("3.7.3.1.3.1"), QStringLiteral("3.7.3.1.4.1")});
            std::_Exit(answers == lines({"3.7.3.1.3.1 INTEGER 1", "3.7.3.1.4.1 INTEGER 1"}) ? 0 : 1);
        });
        QCOMPARE(output, lines({"copyTalAmpChannelTableData()", "refillAmpChannelTableEntries()"}));
    }

    void everyModuleSaysWhatIsMissing_data()
    {
        QTest::addColumn<int>("place");
        for (int place = 0; place < int(std::size(modules)); ++place)
            if (modules[place].next != nullptr) // the LET tables have a test of their own
                QTest::newRow(modules[place].name) << place;
    }

    void everyModuleSaysWhatIsMissing()
    {
        QFETCH(int, place);
        const Module &module = modules[place];
        const QString name = QString::fromLatin1(QTest::currentDataTag());
        const QString pointer = QLatin1String("tal") + name[0].toUpper() + name.mid(1) + QLatin1String("Data");

        int result = 0;
        const auto load = [&] { result = module.load(nullptr, nullptr); };
        QCOMPARE(printed(load),
                 (QStringList{name + QLatin1String("_load()"), name + QLatin1String("_load() kvAgent == NULL")}));
        QCOMPARE(result, -1);
        KvAgent agent = {};
        agent.modelNumber = 6214;
        kvAgent = &agent;
        const QStringList said = printed(load);
        kvAgent = nullptr;
        QCOMPARE(said, (QStringList{name + QLatin1String("_load()"),
                                    name + QLatin1String("_load() kvAgent->") + pointer + QLatin1String(" == NULL")}));
        QCOMPARE(result, -1);

        QCOMPARE(printed([&] { result = module.handler(nullptr, nullptr, nullptr, nullptr); }),
                 QStringList{name + QLatin1String("_handler() ERROR reqinfo was NULL ")});
        QCOMPARE(result, 3);
        QCOMPARE(printed([&] { module.free(nullptr, nullptr); }), QStringList{name + QLatin1String("_free()")});
        void *loop = nullptr;
        void *row = nullptr;
        netsnmp_variable_list index = {};
        const void *next = &index;
        QCOMPARE(printed([&] { next = module.next(&loop, &row, &index, nullptr); }),
                 QStringList{name + QLatin1String("_get_next_data_point()")});
        QVERIFY(next == nullptr);
        QCOMPARE(printed(module.create), QStringList{name + QLatin1String("_createEntry()")});
        QCOMPARE(printed(module.remove), QStringList{name + QLatin1String("_removeEntry()")});
    }

    void scalarsRefuseOtherModes()
    {
        for (const ScalarCase &scalar : scalars)
            for (const int mode : {int{MODE_SET_RESERVE1}, int{MODE_SET_RESERVE2}, int{MODE_GETNEXT}}) {
                AgentLog log;
                netsnmp_agent_request_info info = {};
                info.mode = mode;
                QCOMPARE(scalar.handler(nullptr, nullptr, &info, nullptr), 5);
                QCOMPARE(log.lines, QStringList{QStringLiteral("%1 unknown mode (%2) in handle_%3")
                                                    .arg(LOG_ERR)
                                                    .arg(mode)
                                                    .arg(QLatin1String(scalar.logged ? scalar.logged : scalar.name))});
            }
    }

    void theSystemNameIsCutAndTerminated()
    {
        KvAgent agent = {};
        kvAgent = &agent;
        setSystemName(std::string(300, 'n'));
        QCOMPARE(QByteArray(agent.systemName), QByteArray(256, 'n'));
        QCOMPARE(agent.systemName[256], '\0');
        setSystemName("Hall");
        QCOMPARE(QByteArray(agent.systemName), QByteArray("Hall"));
        setSystemName("");
        QCOMPARE(agent.systemName[0], '\0');
        kvAgent = nullptr;
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
            StandardOutput progress;
            kaAgentStart(6410, 1, "");
            std::vector<int> descriptors;
            kaDescriptors(descriptors);
            std::_Exit(!descriptors.empty() && descriptors.front() > FD_SETSIZE ? 0 : 1);
        });
        QCOMPARE(output, QStringList());
    }

    // Up to here this process itself has started no agent; from here it has.
    void sessionsOpenAndCloseTheGate()
    {
        int opened = 0;
        trapGate().setOpened([&opened] { ++opened; });
        printed([] { kaAgentStart(6410, 1, ""); }); // there is no master, so no session opens by itself
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

        snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, &session);
        QCOMPARE(trapGate().state(), TrapGate::State::NoSession);

        trapGate().setOpened(nullptr);
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

        // A session more is a descriptor more, and one less when it closes.
        netsnmp_session peer = {};
        snmp_sess_init(&peer);
        std::string name = "udp:127.0.0.1:9";
        peer.peername = name.data();
        peer.version = SNMP_VERSION_2c;
        netsnmp_session *session = snmp_open(&peer);
        QVERIFY(session != nullptr);
        std::vector<int> more;
        kaDescriptors(more);
        QCOMPARE(more.size(), descriptors.size() + 1);
        snmp_close(session);
        kaDescriptors(more);
        QCOMPARE(more, descriptors);
    }
};

const TestEntry entry("tst_kvagent", runTest<TestKvAgent>);
#include "tst_kvagent.moc"
