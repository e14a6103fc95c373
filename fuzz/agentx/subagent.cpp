// The sub-agent under test and its data.
#include "agentx/subagent.h"

#include "agentx/virtualtime.h"
#include "support.h"

#include "agent/kvagent.h"
#include "agentlib/netsnmp.h"
#include "device/boundedtext.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <span>

namespace {
void storeText(InfoText &field, std::string_view text)
{
    field.length = copyBounded(field.text, text);
}

int checkLog(int, int, void *message, void *)
{
    const std::string_view text = static_cast<const snmp_log_message *>(message)->msg;
    require(text.find("attempted to be re-opened") == text.npos, "one attempt at a time to open a session");
    return 0;
}
} // namespace

SubAgent::SubAgent(std::string_view device, const std::string &folder, Master &master) : m_master(master)
{
    writeFile(folder + "/kvagent.conf", "agentXPingInterval 1\nkvStandardSensors yes\n");
    writeFile(folder + "/snmp.conf", "defTarget agentx unix " + folder + "/master\n");
    setenv("MIBS", "", 1);
    setenv("SNMPCONFPATH", folder.c_str(), 1);
    setenv("SNMP_PERSISTENT_DIR", folder.c_str(), 1);
    require(std::freopen("/dev/null", "w", stdout) != nullptr, "standard output can be dropped");
    std::signal(SIGPIPE, SIG_IGN); // like the daemon
    virtualtime::whileWaiting([&master] { master.serve(); }, [&master] { master.noteLapse(); });
    fill();

    const auto model = static_cast<std::uint32_t>(std::strtoul(device.data(), nullptr, 10));
    const bool expanders = device.ends_with('+');
    kaAgentStart(model, 3, expanders ? "Orvane Brisel Compact - IP-QRM-B" : "Orvane Brisel Extended");
    snmp_disable_stderrlog();
    snmp_enable_calllog();
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, checkLog, nullptr);
    handOver();
    run();
    require(master.hasSession(), "the sub-agent opens a session");
}

void SubAgent::run()
{
    for (int pass = 0; kaCheckAndProcess() > 0 || !m_master.hasSentAll(); ++pass)
        require(pass < 100000, "the library comes to an end with what was sent to it");
}

void SubAgent::wait(std::chrono::seconds duration)
{
    run();
    virtualtime::advance(duration);
    run();
}

void SubAgent::store(std::size_t place, std::uint32_t value)
{
    if (place % 4 == 0) {
        LetEntry &let = m_records.let.lets[place / 4 % ampChannels][place / 8 % letsPerChannel];
        let.letStatus = value;
        let.letVoltage = value;
        let.description[value % (sizeof let.description - 1)] = '\0';
        let.changed = {1, 1, 1, 1, 1};
        return;
    }
    const std::span numbers(m_records.voltage.values);
    const auto reading = static_cast<Reading>(value % 4);
    numbers[place % numbers.size()] = {value, reading};
    m_records.temp.rows[place % tempRows] = {{value, reading}, value, value};
    m_records.relay.rows[place % relayRows] = {value, value, value};
}

bool SubAgent::sendTrap(std::uint32_t number, const char *description, std::int32_t level, const char *time)
{
    return kvAgent->sendTrap(number, description, level, time) == 0;
}

void SubAgent::fill()
{
    std::memset(&m_records, 0x2A, sizeof m_records); // differs from every starting value of a table
    for (auto &channel : m_records.let.lets) {
        for (LetEntry &let : channel) {
            let.changed = {1, 1, 1, 1, 1};
            for (const std::span<char> text : {std::span<char>(let.description), std::span<char>(let.softwareVersion),
                                               std::span<char>(let.hardwareVersion)})
                text.back() = '\0';
        }
    }
    storeText(m_info.packageVersion, "1.2.3");
    storeText(m_info.modelType, "Orvane Brisel");
    storeText(m_info.amplifierType, "Amplifier");
    storeText(m_info.kernelVersion, "5.15");
    storeText(m_info.deviceTreeVersion, "0.9");
    m_info.modelNumber = {6420, sizeof(std::int32_t)};
}

void SubAgent::handOver()
{
    setTalTableData(m_records);
    setSystemName("fuzzed");
    kvAgent->infoData = &m_info;
    initInfoScalars();
}
