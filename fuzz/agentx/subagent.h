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
    /// `device` as KVSNMP_FUZZ_DEVICE names it; `folder` stands in for every path of the library.
    SubAgent(std::string_view device, const std::string &folder, Master &master);
    SubAgent(const SubAgent &) = delete;
    SubAgent &operator=(const SubAgent &) = delete;

    /// Passes of the library until nothing is left to do.
    void run();

    /// Lets time pass, then runs.
    void wait(std::chrono::seconds duration);

    /// Stores a value as the data service does. The tables show it when they load again, 60 s after the last time.
    void store(std::size_t place, std::uint32_t value);

    /// True when the notification was handed to the library.
    bool sendTrap(std::uint32_t number, const char *description, std::int32_t level, const char *time);

private:
    void fill();
    void handOver();

    Master &m_master;
    TableRecords m_records{};
    InfoData m_info{};
};
