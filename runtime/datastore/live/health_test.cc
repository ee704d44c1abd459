// The health decoders on answers as drives give them, cut short, of
// another kind, or lying about their own lengths; and the capture files.
#include "datastore/live/health.h"

#include <gtest/gtest.h>

#include <string>

#include "datastore/live/health_testing.h"
#include "datastore/live/sgio.h"
#include "datastore/live/tree_testing.h"

namespace kelp::live {
namespace {

using testing::ataSmartData;
using testing::ataStatus;
using testing::iePage;
using testing::smartLog;

TEST(HealthTest, AnNvmeCriticalWarningOtherThanTemperaturePredictsFailure)
{
    DriveHealth h;
    std::string error;
    ASSERT_TRUE(decodeNvmeSmartLog(smartLog(0, 3), &h, &error)) << error;
    EXPECT_FALSE(h.failurePredicted);
    EXPECT_EQ(h.lifeRemaining, 97);
    EXPECT_EQ(h.readOnly, false);
    ASSERT_TRUE(decodeNvmeSmartLog(smartLog(0x08, 3), &h, &error)) << error;
    EXPECT_EQ(h.readOnly, true) << "media placed in read-only mode";
    // Temperature alone: the probe says so, not the disk's failure.
    ASSERT_TRUE(decodeNvmeSmartLog(smartLog(0x02, 3), &h, &error));
    EXPECT_FALSE(h.failurePredicted);
    for (unsigned bit : {0u, 2u, 3u, 4u, 5u}) {
        ASSERT_TRUE(decodeNvmeSmartLog(smartLog(1u << bit, 3), &h, &error));
        EXPECT_TRUE(h.failurePredicted) << "bit " << bit;
        EXPECT_NE(h.why.find("critical warning"), std::string::npos) << h.why;
    }
    // Past its rated life (up to 255%): none left, not a negative share.
    ASSERT_TRUE(decodeNvmeSmartLog(smartLog(0, 180), &h, &error));
    EXPECT_EQ(h.lifeRemaining, 0);
    EXPECT_FALSE(decodeNvmeSmartLog(smartLog(0x04, 3).substr(0, 511), &h, &error));
    EXPECT_NE(error.find("511 bytes"), std::string::npos) << error;
    EXPECT_FALSE(decodeNvmeSmartLog("", &h, &error));
}

TEST(HealthTest, AnNvmeControllerGivesItsTemperatureThresholdsInItsIdentifyData)
{
    DriveHealth h;
    h.temperatureC = 43;
    h.why = "critical warning 0x00";
    std::string error;
    // 343 K and 358 K.
    ASSERT_TRUE(decodeNvmeIdentifyController(testing::identifyController(343, 358), &h, &error))
        << error;
    EXPECT_EQ(h.highWarningC, 70);
    EXPECT_EQ(h.highCriticalC, 85);
    EXPECT_EQ(h.temperatureC, 43) << "what the SMART log said stays";
    EXPECT_EQ(h.why, "critical warning 0x00");
    // 0 is no threshold; each stands alone.
    DriveHealth none;
    ASSERT_TRUE(decodeNvmeIdentifyController(testing::identifyController(0, 358), &none, &error));
    EXPECT_FALSE(none.highWarningC);
    EXPECT_EQ(none.highCriticalC, 85);
    ASSERT_TRUE(decodeNvmeIdentifyController(testing::identifyController(0, 0), &none, &error));
    EXPECT_FALSE(none.highWarningC);
    // Both bytes count: 0x0161 K is 353 K.
    ASSERT_TRUE(decodeNvmeIdentifyController(testing::identifyController(0x161, 0), &none, &error));
    EXPECT_EQ(none.highWarningC, 80);
    // Cut short: refused, and nothing changes.
    DriveHealth cut;
    EXPECT_FALSE(decodeNvmeIdentifyController(testing::identifyController(343, 358).substr(0, 4095),
                                              &cut, &error));
    EXPECT_NE(error.find("4095 bytes"), std::string::npos) << error;
    EXPECT_FALSE(cut.highWarningC);
    EXPECT_FALSE(cut.highCriticalC);
    EXPECT_FALSE(decodeNvmeIdentifyController("", &cut, &error));
}

TEST(HealthTest, ADrivesTemperatureAlarmIsItsOwnAndNoFailurePrediction)
{
    DriveHealth h;
    std::string error;
    // NVMe: critical warning bit 1 alone, and beside the others.
    ASSERT_TRUE(decodeNvmeSmartLog(smartLog(0x02, 3), &h, &error)) << error;
    EXPECT_TRUE(h.temperatureAlarm);
    EXPECT_FALSE(h.failurePredicted);
    ASSERT_TRUE(decodeNvmeSmartLog(smartLog(0x06, 3), &h, &error)) << error;
    EXPECT_TRUE(h.temperatureAlarm);
    EXPECT_TRUE(h.failurePredicted);
    ASSERT_TRUE(decodeNvmeSmartLog(smartLog(0xfd, 3), &h, &error)) << error;
    EXPECT_FALSE(h.temperatureAlarm) << "every bit but 1";
    // SCSI: 0x0b/0x01 (specified temperature exceeded); not another warning,
    // not a failure prediction.
    ASSERT_TRUE(decodeInformationalExceptions(iePage(0x0b, 0x01), &h, &error)) << error;
    EXPECT_TRUE(h.temperatureAlarm);
    EXPECT_FALSE(h.failurePredicted);
    ASSERT_TRUE(decodeInformationalExceptions(iePage(0x0b, 0x02), &h, &error)) << error;
    EXPECT_FALSE(h.temperatureAlarm);
    ASSERT_TRUE(decodeInformationalExceptions(iePage(0x5d, 0x01), &h, &error)) << error;
    EXPECT_FALSE(h.temperatureAlarm);
    EXPECT_TRUE(h.failurePredicted);
}

TEST(HealthTest, AScsiFailurePredictionIsAsc5d)
{
    DriveHealth h;
    std::string error;
    ASSERT_TRUE(decodeInformationalExceptions(iePage(0, 0), &h, &error)) << error;
    EXPECT_FALSE(h.failurePredicted);
    EXPECT_FALSE(h.lifeRemaining);
    EXPECT_FALSE(h.readOnly);
    ASSERT_TRUE(decodeInformationalExceptions(iePage(0x5d, 0x10), &h, &error)) << error;
    EXPECT_TRUE(h.failurePredicted);
    EXPECT_EQ(h.why, "asc/ascq 0x5d/0x10");
    // A warning (temperature exceeded) is not a failure prediction.
    ASSERT_TRUE(decodeInformationalExceptions(iePage(0x0b, 0x01), &h, &error));
    EXPECT_FALSE(h.failurePredicted);
    // The general parameter after another one.
    std::string later = std::string("\x2f\0\0\x0e"
                                    "\x80\x01\x03\x02"
                                    "\x11\x22",
                                    10) +
                        iePage(0x5d, 0).substr(4);
    ASSERT_TRUE(decodeInformationalExceptions(later, &h, &error)) << error;
    EXPECT_TRUE(h.failurePredicted);
}

TEST(HealthTest, DrivesGiveTheirTemperatureWhereTheyKeepOne)
{
    DriveHealth h;
    std::string error;
    // NVMe: the composite temperature, 316 K.
    ASSERT_TRUE(decodeNvmeSmartLog(smartLog(0, 3), &h, &error)) << error;
    EXPECT_EQ(h.temperatureC, 43);
    EXPECT_FALSE(h.highWarningC);
    std::string unreported = smartLog(0, 3);
    unreported[1] = unreported[2] = '\0';
    ASSERT_TRUE(decodeNvmeSmartLog(unreported, &h, &error)) << error;
    EXPECT_FALSE(h.temperatureC) << "0 K is not reported";
    // SCSI: the general parameter's reading and trip point.
    ASSERT_TRUE(decodeInformationalExceptions(iePage(0, 0), &h, &error)) << error;
    EXPECT_EQ(h.temperatureC, 38);
    EXPECT_EQ(h.highWarningC, 65);
    std::string unavailable = iePage(0, 0);
    unavailable[10] = static_cast<char>(0xff);
    unavailable[11] = '\0';
    ASSERT_TRUE(decodeInformationalExceptions(unavailable, &h, &error)) << error;
    EXPECT_FALSE(h.temperatureC) << "0xff: not available";
    EXPECT_FALSE(h.highWarningC) << "0: no sensor";
    // A parameter of two bytes has neither; a page that ends after the
    // reading has no trip point.
    const std::string shortParameter = std::string("\x2f\0\0\x06"
                                                   "\0\0\x03\x02",
                                                   8) +
                                       "\x5d\x10" + "\x26\x41";
    ASSERT_TRUE(decodeInformationalExceptions(shortParameter, &h, &error)) << error;
    EXPECT_TRUE(h.failurePredicted);
    EXPECT_FALSE(h.temperatureC);
    EXPECT_FALSE(h.highWarningC);
    ASSERT_TRUE(decodeInformationalExceptions(iePage(0, 0).substr(0, 11), &h, &error)) << error;
    EXPECT_EQ(h.temperatureC, 38);
    EXPECT_FALSE(h.highWarningC);
}

TEST(HealthTest, AScsiDisksTemperaturePageStandsOverItsExceptionsPage)
{
    DriveHealth h;
    std::string error;
    const DriveHealth fromExceptions = [&] {
        DriveHealth e;
        EXPECT_TRUE(decodeInformationalExceptions(iePage(0x5d, 0x10), &e, &error)) << error;
        return e;
    }();
    h = fromExceptions;
    ASSERT_TRUE(decodeTemperaturePage(testing::temperaturePage(41, 60), &h, &error)) << error;
    EXPECT_EQ(h.temperatureC, 41);
    EXPECT_EQ(h.highWarningC, 60);
    EXPECT_TRUE(h.failurePredicted) << "the rest stays";
    // Not available (0xff): what the exceptions page said stands.
    h = fromExceptions;
    ASSERT_TRUE(decodeTemperaturePage(testing::temperaturePage(0xff, 0xff), &h, &error));
    EXPECT_EQ(h.temperatureC, 38);
    EXPECT_EQ(h.highWarningC, 65);
    // Parameter 0 alone (the page's length ends before parameter 1).
    std::string first = testing::temperaturePage(30, 50);
    first[3] = 6;
    h = fromExceptions;
    ASSERT_TRUE(decodeTemperaturePage(first, &h, &error)) << error;
    EXPECT_EQ(h.temperatureC, 30);
    EXPECT_EQ(h.highWarningC, 65);
    // A parameter too short to hold its degrees, or running past the data,
    // gives nothing.
    std::string shortParameter = testing::temperaturePage(30, 50);
    shortParameter[7] = 1;
    h = fromExceptions;
    ASSERT_TRUE(decodeTemperaturePage(shortParameter.substr(0, 9), &h, &error)) << error;
    EXPECT_EQ(h.temperatureC, 38);
    h = fromExceptions;
    ASSERT_TRUE(decodeTemperaturePage(testing::temperaturePage(30, 50).substr(0, 9), &h, &error));
    EXPECT_EQ(h.temperatureC, 38);
    // Another page, or a header cut short.
    std::string other = testing::temperaturePage(30, 50);
    other[0] = 0x2f;
    EXPECT_FALSE(decodeTemperaturePage(other, &h, &error));
    EXPECT_NE(error.find("0x2f"), std::string::npos) << error;
    EXPECT_FALSE(decodeTemperaturePage(std::string("\x0d\0", 2), &h, &error));
}

TEST(HealthTest, AnAtaDiskGivesItsTemperatureInItsSmartData)
{
    DriveHealth h;
    std::string error;
    ASSERT_TRUE(decodeAtaSmartStatus(ataStatus(0xf4, 0x2c), &h, &error)) << error;
    // Attribute 194 (in a raw value that also keeps the lowest and highest
    // temperature seen, in bytes 2 and 4), before the airflow one, 190.
    std::string data = ataSmartData({{1, 0}, {9, 0x12}, {190, 40}, {194, 36}});
    data[2 + 3 * 12 + 7] = 0x12;
    data[2 + 3 * 12 + 9] = 0x2d;
    ASSERT_TRUE(decodeAtaSmartData(data, &h, &error)) << error;
    EXPECT_EQ(h.temperatureC, 36);
    EXPECT_TRUE(h.failurePredicted) << "the status stays as it was";
    EXPECT_FALSE(h.highWarningC);
    h = DriveHealth{};
    ASSERT_TRUE(decodeAtaSmartData(ataSmartData({{190, 40}}), &h, &error)) << error;
    EXPECT_EQ(h.temperatureC, 40) << "the airflow temperature alone";
    // Neither attribute, or values no disk runs at: no temperature.
    h = DriveHealth{};
    ASSERT_TRUE(decodeAtaSmartData(ataSmartData({{5, 0}, {9, 100}}), &h, &error)) << error;
    EXPECT_FALSE(h.temperatureC);
    ASSERT_TRUE(decodeAtaSmartData(ataSmartData({{194, 0}, {190, 200}}), &h, &error)) << error;
    EXPECT_FALSE(h.temperatureC);
    // The 30th attribute is read; what follows the table is not.
    std::string last(512, '\0');
    last[2 + 29 * 12] = static_cast<char>(194);
    last[2 + 29 * 12 + 5] = 33;
    last[2 + 30 * 12] = static_cast<char>(190);
    last[2 + 30 * 12 + 5] = 44;
    ASSERT_TRUE(decodeAtaSmartData(last, &h, &error)) << error;
    EXPECT_EQ(h.temperatureC, 33);
    h = DriveHealth{};
    ASSERT_TRUE(decodeAtaSmartData(std::string(last).replace(2 + 29 * 12, 1, 1, '\0'), &h, &error));
    EXPECT_FALSE(h.temperatureC) << "past the table";
    EXPECT_FALSE(decodeAtaSmartData(ataSmartData({{194, 36}}).substr(0, 511), &h, &error));
    EXPECT_NE(error.find("511 bytes"), std::string::npos) << error;
    EXPECT_FALSE(h.temperatureC);
}

TEST(HealthTest, ABadScsiLogPageIsRefusedWithoutReadingPastIt)
{
    DriveHealth h;
    std::string error;
    EXPECT_FALSE(decodeInformationalExceptions("", &h, &error));
    EXPECT_FALSE(decodeInformationalExceptions(std::string("\x2f\0", 2), &h, &error));
    // Another page.
    std::string other = iePage(0x5d, 0);
    other[0] = 0x0d;
    EXPECT_FALSE(decodeInformationalExceptions(other, &h, &error));
    EXPECT_NE(error.find("0x0d"), std::string::npos) << error;
    // A page length beyond the bytes given, a parameter length beyond the
    // page: both end where the data ends.
    std::string longer = iePage(0x5d, 0);
    longer[3] = static_cast<char>(0xff);
    EXPECT_TRUE(decodeInformationalExceptions(longer, &h, &error)) << error;
    std::string cut = iePage(0x5d, 0).substr(0, 9);
    EXPECT_FALSE(decodeInformationalExceptions(cut, &h, &error));
    std::string wide = std::string("\x2f\0\0\x08"
                                   "\0\x01\x03\xff",
                                   8) +
                       "abcd";
    EXPECT_FALSE(decodeInformationalExceptions(wide, &h, &error));
    EXPECT_NE(error.find("general parameter"), std::string::npos) << error;
}

TEST(HealthTest, AtaSmartStatusIsItsTwoRegisters)
{
    DriveHealth h;
    std::string error;
    ASSERT_TRUE(decodeAtaSmartStatus(ataStatus(0x4f, 0xc2), &h, &error)) << error;
    EXPECT_FALSE(h.failurePredicted);
    ASSERT_TRUE(decodeAtaSmartStatus(ataStatus(0xf4, 0x2c), &h, &error)) << error;
    EXPECT_TRUE(h.failurePredicted);
    // Neither answer: not a guess either way.
    EXPECT_FALSE(decodeAtaSmartStatus(ataStatus(0, 0), &h, &error));
    EXPECT_NE(error.find("0x00/0x00"), std::string::npos) << error;
    EXPECT_FALSE(decodeAtaSmartStatus(ataStatus(0x4f, 0xc2).substr(0, 13), &h, &error));
    std::string notDescriptor = ataStatus(0x4f, 0xc2);
    notDescriptor[0] = 0x0a;
    EXPECT_FALSE(decodeAtaSmartStatus(notDescriptor, &h, &error));
}

TEST(HealthTest, TheAtaRegistersComeFromEitherFormOfSenseData)
{
    std::string descriptor;
    // Descriptor format, RECOVERED ERROR, ATA PASS-THROUGH INFORMATION
    // AVAILABLE; an information descriptor before the ATA one.
    const std::string ata = ataStatus(0xf4, 0x2c);
    std::string sense = std::string("\x72\x01\x00\x1d\0\0\0", 7) +
                        static_cast<char>(12 + ata.size()) +
                        std::string("\x00\x0a\x80\0\0\0\0\0\0\0\0\x07", 12) + ata;
    ASSERT_TRUE(ataStatusFromSense(sense, &descriptor));
    EXPECT_EQ(descriptor, ata);
    // Its length cut: the descriptor is not read past the sense data.
    EXPECT_FALSE(ataStatusFromSense(sense.substr(0, sense.size() - 1), &descriptor));
    sense[7] = 12;
    EXPECT_FALSE(ataStatusFromSense(sense, &descriptor)) << "the additional length ends first";
    // A descriptor of type 9 with another length is not the ATA one.
    std::string odd = std::string("\x72\x01\x00\x1d\0\0\0\x10", 8) + ata + "\0\0";
    odd[9] = 0x0e;
    EXPECT_FALSE(ataStatusFromSense(odd, &descriptor));
    // Fixed format: status 0x50 at byte 4, LBA high/mid/low at 9, 10, 11.
    std::string fixed(18, '\0');
    fixed[0] = 0x70;
    fixed[2] = 0x01;
    fixed[4] = 0x50;
    fixed[9] = static_cast<char>(0xc2);
    fixed[10] = 0x4f;
    ASSERT_TRUE(ataStatusFromSense(fixed, &descriptor));
    DriveHealth h;
    std::string error;
    ASSERT_TRUE(decodeAtaSmartStatus(descriptor, &h, &error)) << error;
    EXPECT_FALSE(h.failurePredicted);
    EXPECT_FALSE(ataStatusFromSense(fixed.substr(0, 11), &descriptor));
    EXPECT_FALSE(ataStatusFromSense("", &descriptor));
    EXPECT_FALSE(ataStatusFromSense(std::string("\x72\x05\x24\x00\0\0\0\0", 8), &descriptor));
}

TEST(HealthTest, SenseDataGivesItsKeyAndCodeInEitherFormat)
{
    // ILLEGAL REQUEST, INVALID FIELD IN CDB: a page the device does not keep.
    const std::optional<Sense> d = parseSense(std::string("\x72\x05\x24\x00\0\0\0\0", 8));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->key, kSenseIllegalRequest);
    EXPECT_EQ(d->asc, 0x24u);
    std::string fixed(18, '\0');
    fixed[0] = static_cast<char>(0xf0); // valid bit set
    fixed[2] = 0x05;
    fixed[12] = 0x20;
    const std::optional<Sense> f = parseSense(fixed);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->key, kSenseIllegalRequest);
    EXPECT_EQ(f->asc, 0x20u);
    // Cut before its code: the key alone.
    EXPECT_EQ(parseSense(fixed.substr(0, 3))->asc, 0u);
    EXPECT_FALSE(parseSense(""));
    EXPECT_FALSE(parseSense(std::string("\x7f\x05\x24\x00", 4))) << "no sense format";
    EXPECT_EQ(hexText(0x5d, 2), "5d");
    EXPECT_EQ(hexText(0x500f1e71, 8), "500f1e71");
}

TEST(HealthTest, CaptureFilesAreReadByKindAndAMissingOneIsNoHealth)
{
    testing::TempTree t;
    t.file("dev/nvme0.health/smart-log.bin", smartLog(0x04, 12));
    t.file("dev/sg1.health/log-2f.bin", iePage(0x5d, 0x64));
    t.file("dev/sg2.health/ata-status.bin", ataStatus(0x4f, 0xc2));
    t.file("dev/sg3.health/log-2f.bin", "garbage");
    const std::string dev = t.root() + "/dev/";
    DriveHealth h;
    std::string error;
    EXPECT_EQ(readHealthFiles(HealthKind::kNvme, dev + "nvme0.health", &h, &error),
              HealthRead::kRead);
    EXPECT_TRUE(h.failurePredicted);
    EXPECT_EQ(h.lifeRemaining, 88);
    EXPECT_EQ(readHealthFiles(HealthKind::kScsi, dev + "sg1.health", &h, &error),
              HealthRead::kRead);
    EXPECT_TRUE(h.failurePredicted);
    EXPECT_EQ(readHealthFiles(HealthKind::kAta, dev + "sg2.health", &h, &error), HealthRead::kRead);
    EXPECT_FALSE(h.failurePredicted);
    // The file of another kind, or none at all: the drive says nothing.
    EXPECT_EQ(readHealthFiles(HealthKind::kAta, dev + "sg1.health", &h, &error),
              HealthRead::kUnsupported);
    EXPECT_EQ(readHealthFiles(HealthKind::kScsi, dev + "sg9.health", &h, &error),
              HealthRead::kUnsupported);
    EXPECT_EQ(readHealthFiles(HealthKind::kScsi, dev + "sg3.health", &h, &error),
              HealthRead::kFailed);
    EXPECT_NE(error.find("sg3.health/log-2f.bin"), std::string::npos) << error;
    // A file larger than any such answer is refused, not read.
    t.file("dev/sg4.health/ata-status.bin", std::string(4096, '\x09'));
    EXPECT_EQ(readHealthFiles(HealthKind::kAta, dev + "sg4.health", &h, &error),
              HealthRead::kFailed);
}

TEST(HealthTest, AnAtaDisksSmartDataFileAddsItsTemperature)
{
    testing::TempTree t;
    t.file("dev/sg2.health/ata-status.bin", ataStatus(0xf4, 0x2c));
    t.file("dev/sg2.health/ata-smart-data.bin", testing::ataSmartData({{194, 36}}));
    t.file("dev/sg3.health/ata-status.bin", ataStatus(0x4f, 0xc2));
    t.file("dev/sg4.health/ata-status.bin", ataStatus(0x4f, 0xc2));
    t.file("dev/sg4.health/ata-smart-data.bin", "short");
    t.file("dev/sg5.health/ata-smart-data.bin", testing::ataSmartData({{194, 36}}));
    const std::string dev = t.root() + "/dev/";
    DriveHealth h;
    std::string error;
    ASSERT_EQ(readHealthFiles(HealthKind::kAta, dev + "sg2.health", &h, &error), HealthRead::kRead)
        << error;
    EXPECT_TRUE(h.failurePredicted);
    EXPECT_EQ(h.temperatureC, 36);
    // Without it, the status alone.
    ASSERT_EQ(readHealthFiles(HealthKind::kAta, dev + "sg3.health", &h, &error), HealthRead::kRead)
        << error;
    EXPECT_FALSE(h.failurePredicted);
    EXPECT_FALSE(h.temperatureC);
    // A bad one is named; SMART data without a status is no answer.
    EXPECT_EQ(readHealthFiles(HealthKind::kAta, dev + "sg4.health", &h, &error),
              HealthRead::kFailed);
    EXPECT_NE(error.find("sg4.health/ata-smart-data.bin"), std::string::npos) << error;
    EXPECT_EQ(readHealthFiles(HealthKind::kAta, dev + "sg5.health", &h, &error),
              HealthRead::kUnsupported);
    // A SCSI disk's temperature page beside its exceptions page.
    t.file("dev/sg6.health/log-2f.bin", iePage(0, 0));
    t.file("dev/sg6.health/log-0d.bin", testing::temperaturePage(44, 68));
    ASSERT_EQ(readHealthFiles(HealthKind::kScsi, dev + "sg6.health", &h, &error), HealthRead::kRead)
        << error;
    EXPECT_EQ(h.temperatureC, 44);
    EXPECT_EQ(h.highWarningC, 68);
    EXPECT_FALSE(h.highCriticalC);
    // An NVMe controller's Identify data beside its SMART log; a bad one is
    // named; Identify data without a log is no answer.
    t.file("dev/nvme0.health/smart-log.bin", testing::smartLog(0, 3));
    t.file("dev/nvme0.health/id-ctrl.bin", testing::identifyController(343, 358));
    t.file("dev/nvme1.health/smart-log.bin", testing::smartLog(0, 3));
    t.file("dev/nvme1.health/id-ctrl.bin", "short");
    t.file("dev/nvme2.health/id-ctrl.bin", testing::identifyController(343, 358));
    ASSERT_EQ(readHealthFiles(HealthKind::kNvme, dev + "nvme0.health", &h, &error),
              HealthRead::kRead)
        << error;
    EXPECT_EQ(h.temperatureC, 43);
    EXPECT_EQ(h.highWarningC, 70);
    EXPECT_EQ(h.highCriticalC, 85);
    EXPECT_EQ(readHealthFiles(HealthKind::kNvme, dev + "nvme1.health", &h, &error),
              HealthRead::kFailed);
    EXPECT_NE(error.find("nvme1.health/id-ctrl.bin"), std::string::npos) << error;
    EXPECT_EQ(readHealthFiles(HealthKind::kNvme, dev + "nvme2.health", &h, &error),
              HealthRead::kUnsupported);
}

TEST(HealthTest, ADeviceThatIsNoDriveFailsWithItsName)
{
    testing::TempTree t;
    t.file("regular", "not a device");
    DriveHealth h;
    std::string error;
    for (HealthKind kind : {HealthKind::kNvme, HealthKind::kScsi, HealthKind::kAta}) {
        EXPECT_EQ(readHealthDevice(kind, t.root() + "/regular", &h, &error), HealthRead::kFailed);
        EXPECT_NE(error.find("/regular"), std::string::npos) << error;
        EXPECT_EQ(readHealthDevice(kind, t.root() + "/absent", &h, &error), HealthRead::kFailed);
        EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
    }
}

} // namespace
} // namespace kelp::live
