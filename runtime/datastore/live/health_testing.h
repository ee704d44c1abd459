// Drive health answers as drives give them, for tests.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_HEALTH_TESTING_H
#define KELP_RUNTIME_DATASTORE_LIVE_HEALTH_TESTING_H

#include <cstddef>
#include <initializer_list>
#include <string>
#include <utility>

namespace kelp::live::testing {

// An NVMe SMART / health log (page 0x02, 512 bytes).
inline std::string smartLog(unsigned warning, unsigned used)
{
    std::string log(512, '\0');
    log[0] = static_cast<char>(warning);
    log[1] = static_cast<char>(0x3c); // 316 K
    log[2] = static_cast<char>(0x01);
    log[3] = 100; // available spare
    log[4] = 10;  // its threshold
    log[5] = static_cast<char>(used);
    return log;
}

// An NVMe controller's Identify Controller data (4096 bytes) with its
// warning and critical composite temperature thresholds, in kelvin.
inline std::string identifyController(unsigned warningK, unsigned criticalK)
{
    std::string data(4096, '\0');
    data[0] = 0x4d; // PCI vendor id
    data[1] = 0x14;
    data[266] = static_cast<char>(warningK & 0xff);
    data[267] = static_cast<char>(warningK >> 8);
    data[268] = static_cast<char>(criticalK & 0xff);
    data[269] = static_cast<char>(criticalK >> 8);
    return data;
}

// LOG SENSE page 0x2f with its general parameter (code 0) alone: the
// exception's code and qualifier, the temperature and the trip point.
inline std::string iePage(unsigned asc, unsigned ascq, unsigned temperature = 38,
                          unsigned tripPoint = 65)
{
    return std::string("\x2f\0\0\x08"  // page code, length 8
                       "\0\0\x03\x04", // parameter 0, 4 bytes
                       8) +
           static_cast<char>(asc) + static_cast<char>(ascq) + static_cast<char>(temperature) +
           static_cast<char>(tripPoint);
}

// LOG SENSE page 0x0d: the temperature (parameter 0) and the reference
// temperature (parameter 1).
inline std::string temperaturePage(unsigned reading, unsigned reference)
{
    return std::string("\x0d\0\0\x0c"
                       "\0\0\x03\x02\0",
                       9) +
           static_cast<char>(reading) + std::string("\0\x01\x03\x02\0", 5) +
           static_cast<char>(reference);
}

// The ATA status return descriptor of SMART RETURN STATUS.
inline std::string ataStatus(unsigned mid, unsigned high)
{
    std::string d(14, '\0');
    d[0] = 0x09;
    d[1] = 0x0c;
    d[9] = static_cast<char>(mid);
    d[11] = static_cast<char>(high);
    d[13] = 0x50; // DRDY, DSC
    return d;
}

// An ATA disk's SMART data (SMART READ DATA, 512 bytes) holding the given
// attributes, each as its id and the lowest byte of its raw value.
inline std::string ataSmartData(std::initializer_list<std::pair<unsigned, unsigned>> attributes)
{
    std::string data(512, '\0');
    data[0] = 0x10; // revision
    size_t at = 2;
    for (const auto &[id, raw] : attributes) {
        data[at] = static_cast<char>(id);
        data[at + 3] = 100; // value
        data[at + 4] = 100; // worst
        data[at + 5] = static_cast<char>(raw);
        at += 12;
    }
    return data;
}

} // namespace kelp::live::testing

#endif // KELP_RUNTIME_DATASTORE_LIVE_HEALTH_TESTING_H
