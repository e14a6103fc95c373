// The whole sub-agent in this process: started once, every table filled, served pass by pass.
#pragma once

#include "agentx/master.h"

#include "device/infodata.h"
#include "device/tablerecords.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class SubAgent {
public:
    /// `device` as in KVSNMP_FUZZ_DEVICE; `folder` replaces every path of the library.
    SubAgent(std::string_view device, const std::string &folder, Master &master);
    SubAgent(const SubAgent &) = delete;
    SubAgent &operator=(const SubAgent &) = delete;

    /// Runs passes of the library until it is idle.
    void run();

    /// Advances the time, then runs.
    void wait(std::chrono::seconds duration);

    /// Stores a value like the data service. The tables show it after their next load, 60 s after the last one.
    void store(std::size_t place, std::uint32_t value);

    /// True if the library has accepted the notification.
    bool sendTrap(std::uint32_t number, const char *description, std::int32_t level, const char *time);

private:
    void fill();
    void handOver();

    Master &m_master;
    TableRecords m_records{};
    InfoData m_info{};
};
