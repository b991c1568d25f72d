#pragma once

// The diagnostics of a Beckhoff industrial PC as it publishes them over OPC UA: nine
// integer variables under fixed string ids in namespace 2, for the module's Beckhoff
// IPC sensor.

#include "opcua_sim/server.h"

#include <cstdint>
#include <string>

namespace opcua_sim {

inline constexpr const char* beckhoff_namespace_uri = "urn:opcua-sim:beckhoff";

// The ids as the device spells them, "nn" included.
namespace beckhoff_node {
inline constexpr const char* cpu_load = "ns=2;s=Modules|CPU|CPU0|0x8nn1|0x02";
inline constexpr const char* cpu_temperature = "ns=2;s=Modules|CPU|CPU0|0x8nn1|0x03";
inline constexpr const char* mainboard_temperature = "ns=2;s=Modules|MAINBOARD|MAINBOARD|0x8nn1|0x0a";
inline constexpr const char* memory_size = "ns=2;s=Modules|Memory|Memory|0x8nn1|0x01";
inline constexpr const char* memory_available = "ns=2;s=Modules|Memory|Memory|0x8nn1|0x02";
inline constexpr const char* memory_size_wide = "ns=2;s=Modules|Memory|Memory|0x8nn1|0x06";
inline constexpr const char* memory_available_wide = "ns=2;s=Modules|Memory|Memory|0x8nn1|0x07";
inline constexpr const char* raid_state = "ns=2;s=Modules|RAID Controller|Scsi0:|0x8nn1|0x01";
inline constexpr const char* raid_offline_reason = "ns=2;s=Modules|RAID Controller|Scsi0:|0x8nn1|0x02";
}  // namespace beckhoff_node

// What the device reports; the defaults are those the address space starts with.
//
// | Field                 | Variable                       | Data type |
// |-----------------------|--------------------------------|-----------|
// | cpu_load              | CPU0 0x02, percent             | UInt16    |
// | cpu_temperature       | CPU0 0x03, degrees Celsius     | Int16     |
// | mainboard_temperature | MAINBOARD 0x0a                 | Int16     |
// | memory_size           | Memory 0x01, 32 bits           | UInt32    |
// | memory_available      | Memory 0x02, 32 bits           | UInt32    |
// | memory_size_wide      | Memory 0x06, 64 bits           | UInt64    |
// | memory_available_wide | Memory 0x07, 64 bits           | UInt64    |
// | raid_state            | Scsi0: 0x01 (1 good .. 4 off)  | UInt16    |
// | raid_offline_reason   | Scsi0: 0x02 (0 .. 3)           | UInt16    |
//
// The device reports memory in both widths; once the size outgrows 31 bits the narrow
// pair sticks at 0x7fffffff (beckhoff_narrow_saturated) and only the wide pair is right.
struct beckhoff_status {
    std::uint16_t cpu_load = 12;
    std::int16_t cpu_temperature = 45;
    std::int16_t mainboard_temperature = 38;
    std::uint32_t memory_size = 4096;
    std::uint32_t memory_available = 1024;
    std::uint64_t memory_size_wide = 4096;
    std::uint64_t memory_available_wide = 1024;
    std::uint16_t raid_state = 1;
    std::uint16_t raid_offline_reason = 0;
};

inline constexpr std::uint32_t beckhoff_narrow_saturated = 0x7fffffff;

// Memory as the device reports it: a size that fits 31 bits gives both pairs alike;
// a larger one saturates the narrow pair and keeps the real figures in the wide one.
// Available memory above 31 bits saturates the same way.
void set_beckhoff_memory(beckhoff_status& status, std::uint64_t size, std::uint64_t available);

// The setup adds the namespace beckhoff_namespace_uri and puts the nine variables, read
// only, below the object ns=2;s=Modules in the Objects folder, with the values of
// `initial`. The ids assume that the namespace is index 2, that is, the first one added
// (no options::namespace_uris, no other setup before it).
address_space_setup beckhoff_address_space(const beckhoff_status& initial = {});

// Writes all nine values with server::set_value, each in the data type of the table, so
// that the variables keep their type (a value of another type would replace the node).
void set_beckhoff_status(server& target, const beckhoff_status& status);

}  // namespace opcua_sim
