// A drive's answers about its health, as a drive's firmware, a SCSI-to-ATA
// translation or a captured tree's files give them to the live source. The
// first byte picks the decoder (its value modulo 7: the NVMe SMART log, the
// SCSI informational exceptions page, the ATA status return descriptor, the
// sense data an ATA pass-through leaves, an ATA disk's SMART data, a SCSI
// disk's temperature page, an NVMe controller's Identify data); the rest is
// the answer, in a buffer of exactly
// its size, so that a read past it is out of bounds.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "datastore/live/health.h"
#include "fuzz_common.h"

namespace {

using kelp::live::DriveHealth;

bool sameHealth(const DriveHealth &a, const DriveHealth &b)
{
    return a.failurePredicted == b.failurePredicted && a.lifeRemaining == b.lifeRemaining &&
           a.readOnly == b.readOnly && a.temperatureC == b.temperatureC &&
           a.highWarningC == b.highWarningC && a.highCriticalC == b.highCriticalC &&
           a.temperatureAlarm == b.temperatureAlarm && a.why == b.why;
}

// A temperature a decoder gives is one a drive can report.
bool plausible(const std::optional<int> &celsius, int low, int high)
{
    return !celsius || (*celsius >= low && *celsius <= high);
}

using Decoder = bool (*)(std::string_view, DriveHealth *, std::string *);

void checkDecoder(Decoder decode, std::string_view answer, bool givesLife)
{
    DriveHealth health;
    health.why = "untouched";
    std::string error;
    if (!decode(answer, &health, &error)) {
        // A refusal says why.
        FUZZ_CHECK(!error.empty());
        return;
    }
    FUZZ_CHECK(!health.why.empty() && health.why != "untouched");
    FUZZ_CHECK(givesLife ? health.lifeRemaining && *health.lifeRemaining >= 0 &&
                               *health.lifeRemaining <= 100 && health.readOnly
                         : !health.lifeRemaining && !health.readOnly);
    FUZZ_CHECK(plausible(health.temperatureC, -273, 65535 - 273));
    FUZZ_CHECK(plausible(health.highWarningC, 1, 254));
    FUZZ_CHECK(!health.highCriticalC);
    DriveHealth again;
    FUZZ_CHECK(decode(answer, &again, &error));
    FUZZ_CHECK(sameHealth(health, again));
}

// SMART data, the temperature page and the Identify data add temperatures
// to what the status, the exceptions page or the SMART log said, and change
// nothing else.
void checkAddition(Decoder decode, std::string_view answer, int lowest, int highest)
{
    DriveHealth health;
    health.failurePredicted = true;
    health.why = "SMART status: threshold exceeded";
    const DriveHealth before = health;
    std::string error;
    if (!decode(answer, &health, &error)) {
        FUZZ_CHECK(!error.empty());
        FUZZ_CHECK(sameHealth(health, before));
        return;
    }
    FUZZ_CHECK(plausible(health.temperatureC, lowest, highest));
    FUZZ_CHECK(plausible(health.highWarningC, lowest, highest));
    FUZZ_CHECK(plausible(health.highCriticalC, lowest, highest));
    health.temperatureC.reset();
    health.highWarningC.reset();
    health.highCriticalC.reset();
    FUZZ_CHECK(sameHealth(health, before));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const std::vector<char> buffer(data + 1, data + size);
    const std::string_view answer(buffer.data(), buffer.size());
    switch (data[0] % 7) {
    case 0:
        checkDecoder(kelp::live::decodeNvmeSmartLog, answer, true);
        break;
    case 1:
        checkDecoder(kelp::live::decodeInformationalExceptions, answer, false);
        break;
    case 2:
        checkDecoder(kelp::live::decodeAtaSmartStatus, answer, false);
        break;
    case 4:
        checkAddition(kelp::live::decodeAtaSmartData, answer, 0, 127);
        break;
    case 5:
        checkAddition(kelp::live::decodeTemperaturePage, answer, 0, 254);
        break;
    case 6:
        // Kelvin in 16 bits, 0 K meaning none.
        checkAddition(kelp::live::decodeNvmeIdentifyController, answer, 1 - 273, 65535 - 273);
        break;
    default: {
        std::string descriptor;
        if (kelp::live::ataStatusFromSense(answer, &descriptor)) {
            // Always a descriptor the status decoder takes as one.
            FUZZ_CHECK(descriptor.size() == 14 && descriptor[0] == 0x09 && descriptor[1] == 0x0c);
            checkDecoder(kelp::live::decodeAtaSmartStatus, descriptor, false);
        }
        break;
    }
    }
    return 0;
}
