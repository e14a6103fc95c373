// The agent record, the start of the agent and the setters.
#include "agent/kvagent.h"

#include "agent/modules.h"
#include "agent/standard/standardsensors.h"
#include "agent/trapgate.h"
#include "agentlib/innersessions.h"
#include "agentlib/masterconnection.h"
#include "agentlib/netsnmp.h"
#include "agentlib/streamlimit.h"
#include "device/boundedtext.h"
#include "device/models.h"

#include <cstdio>
#include <initializer_list>

KvAgent *kvAgent = nullptr;

namespace {
constexpr char applicationName[] = "kvagent"; // also names the library's own configuration file

// clang-format off
constexpr void (*modules[])() = { // in the order of registration
    init_voltageTable,
    init_tempTable,
    init_fanTable,
    init_ampChannelTable,
    init_controlOutputTable,
    init_controlInputTable,
    init_infoScalars,
    init_letChannelTables,
    init_lineInTable,
    init_ethMonitoringTable,
    init_powerTable,
    init_relayTable,
};

struct LibrarySetting { int id; int value; };
constexpr LibrarySetting librarySettings[] = {
    {NETSNMP_DS_AGENT_AGENTX_TIMEOUT,        1}, // init_agent() resets this and the next to the library's defaults
    {NETSNMP_DS_AGENT_AGENTX_RETRIES,        1},
    {NETSNMP_DS_AGENT_MAX_GETBULKREPEATS,    1},
    {NETSNMP_DS_AGENT_MAX_GETBULKRESPONSES,  1},
};
// clang-format on

KvAgent record = {};

int sessionStarted(int, int, void *argument, void *)
{
    auto *session = static_cast<netsnmp_session *>(argument);
    session->retries = 0; // a local stream needs no retries, and a retried notification doubles a trap
    netsnmp_transport *const transport = transportOf(session);
    masterSessionOpened(transport);
    if (transport != nullptr)
        limitStream(*transport, session);
    trapGate().openSession(transport != nullptr ? transport->sock : -1);
    return 0;
}

int sessionStopped(int, int, void *, void *)
{
    trapGate().closeSession();
    masterSessionLost();
    return 0;
}

template <class Record>
void store(Record *KvAgent::*pointer, Record *data, std::initializer_list<const TableModule *> refilled)
{
    if (kvAgent == nullptr)
        return;
    kvAgent->*pointer = data;
    for (const TableModule *table : refilled)
        table->refill();
}
} // namespace

void kaAgentStart(std::uint32_t modelNumber, std::uint8_t ampType, const char *modelText)
{
    std::puts("Starting kvAgent");
    record = {};
    record.modelNumber = modelNumber;
    record.modelText = modelText;
    record.ampType = ampType;
    kvAgent = &record;

    snmp_enable_stderrlog();
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1); // a sub-agent
    for (const LibrarySetting &setting : librarySettings)
        netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, setting.id, setting.value);

    std::printf("return from init_agent() ret:%d\n", init_agent(applicationName));
    // After init_agent(), which sets up the library's callbacks; a session may open as early as in init_snmp().
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, sessionStarted, nullptr);
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, sessionStopped, nullptr);

    const bool known = isKnownModel(modelNumber);
    if (known) { // other devices connect with an empty subtree
        for (const auto initModule : modules)
            initModule();
    }
    readStandardSensorsSetting(applicationName);
    boundAttempts();
    init_snmp(applicationName);
    if (known)
        registerStandardSensors();
    std::puts("return from init_snmp()");

    std::puts("Init sendTrap() function");
    record.sendTrap = sendTrap;
    std::puts("FINISH kaAgentStart()");
}

int kaCheckAndProcess(int readable)
{
    allowAttempt();
    flushOutput();
    int result = 1;
    if (!serveReadable(readable)) {
        result = agent_check_and_process(0);
        serveTaken();
    }
    if (flushOutput() && result == 0)
        result = 1;
    trapGate().endPass();
    return result;
}

void kaDescriptors(std::vector<int> &descriptors)
{
    descriptors.clear();
    if (kvAgent != nullptr)
        awaitedDescriptors(descriptors);
}

bool kaDescriptorsChanged()
{
    return takeDescriptorsChanged();
}

void setMasterEnding(bool ending)
{
    trapGate().setMasterEnding(ending);
}

void setSystemName(std::string_view latin1)
{
    if (kvAgent != nullptr)
        copyBounded(kvAgent->systemName, latin1);
}

// clang-format off
void setTalVoltageTableData(const VoltageRecord *data) { store(&KvAgent::talVoltageTableData, data, {&voltageTable}); }
void setTalTempTableData(const TempRecord *data) { store(&KvAgent::talTempTableData, data, {&tempTable}); }
void setTalFanTableData(const FanRecord *data) { store(&KvAgent::talFanTableData, data, {&fanTable}); }
void setTalAmpChannelTableData(const AmpChannelRecord *data) { store(&KvAgent::talAmpChannelTableData, data, {&ampChannelTable}); }
void setTalControlOutputTableData(const ControlOutputRecord *data) { store(&KvAgent::talControlOutputTableData, data, {&controlOutputTable}); }
void setTalControlInputTableData(const ControlInputRecord *data) { store(&KvAgent::talControlInputTableData, data, {&controlInputTable}); }
void setTalLetChannelTableData(LetRecord *data) { store(&KvAgent::talLetChannelTableData, data, {&letChannel1Table, &letChannel2Table}); }
void setTalLineInTableData(const LineInRecord *data) { store(&KvAgent::talLineInTableData, data, {&lineInTable}); }
void setTalEthMonitoringTableData(const EthMonitoringRecord *data) { store(&KvAgent::talEthMonitoringTableData, data, {&ethMonitoringTable}); }
// No refill for the next two: their first load shows the values.
void setTalPowerTableData(const PowerRecord *data) { store(&KvAgent::talPowerTableData, data, {}); }
void setTalRelayTableData(const RelayRecord *data) { store(&KvAgent::talRelayTableData, data, {}); }
// clang-format on

void setTalTableData(TableRecords &records)
{
    setTalVoltageTableData(&records.voltage);
    setTalTempTableData(&records.temp);
    setTalFanTableData(&records.fan);
    setTalAmpChannelTableData(&records.ampChannel);
    setTalControlOutputTableData(&records.controlOutput);
    setTalControlInputTableData(&records.controlInput);
    setTalLetChannelTableData(&records.let);
    setTalEthMonitoringTableData(&records.ethMonitoring);
    setTalPowerTableData(&records.power);
    setTalRelayTableData(&records.relay);
    setTalLineInTableData(&records.lineIn);
}

void initInfoScalars()
{
    copyInfoData();
}
