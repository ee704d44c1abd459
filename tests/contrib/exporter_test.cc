// contrib/prometheus/snmp.yml in Debian's SNMP exporter, scraping a kelpagent
// on the sample model: the global status, controllers and disks with their
// names as labels, states as one series per state name, sizes as gauges, and
// a failed disk seen in every series that should show it.
#include <signal.h>

#include <gtest/gtest.h>

#include "contrib_kit.h"

namespace kelp::test {
namespace {

constexpr const char *kExporter = "/usr/bin/prometheus-snmp-exporter";

// Values of the MIB's status columns (KelpStatus) and of globalStatus, which
// counts the other way.
constexpr double kOk = 3, kNonCritical = 4, kCritical = 5;
constexpr double kGlobalOk = 3, kGlobalCritical = 1;

// An SNMP exporter on a free loopback port with contrib's module.
class Exporter {
  public:
    explicit Exporter(const TempDir &dir) : dir_(dir) {}
    ~Exporter()
    {
        if (process_) {
            process_->signal(SIGTERM);
            process_->wait(10s);
        }
    }

    // False with the reason in *why when it does not come up.
    bool start(std::string *why)
    {
        for (int attempt = 0; attempt < 3; attempt++) {
            port_ = freeTcpPort();
            process_ = std::make_unique<Process>(
                std::vector<std::string>{kExporter,
                                         "--config.file=" + contribPath("prometheus/snmp.yml"),
                                         "--web.listen-address=127.0.0.1:" + std::to_string(port_)},
                std::vector<std::string>{}, dir_ / "exporter.out", dir_ / "exporter.err");
            const bool up = waitFor(
                [&] { return !process_->running() || httpGet(port_, "/", 1s).status == 200; }, 20s);
            if (up && process_->running()) {
                return true;
            }
        }
        *why = "the exporter did not come up:\n" + process_->err();
        return false;
    }

    // The series of one scrape of the module "kelp" at `target`.
    std::vector<Series> scrape(const std::string &target)
    {
        const HttpAnswer answer = httpGet(port_, "/snmp?module=kelp&target=" + target);
        EXPECT_EQ(answer.status, 200) << answer.body << process_->err();
        std::string bad;
        const auto series = parseExposition(answer.body, &bad);
        EXPECT_TRUE(series.has_value()) << "not a sample: " << bad;
        return series.value_or(std::vector<Series>{});
    }

  private:
    const TempDir &dir_;
    int port_ = 0;
    std::unique_ptr<Process> process_;
};

class ContribExporterScrape : public ::testing::Test {
  protected:
    void SetUp() override
    {
        if (!executable(kExporter)) {
            GTEST_SKIP() << kExporter << " is not installed (Debian: prometheus-snmp-exporter)";
        }
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
        ASSERT_TRUE(exporter.start(&why)) << why;
    }

    std::vector<Series> scrape()
    {
        return exporter.scrape("127.0.0.1:" + std::to_string(agent.port()));
    }

    // The one value of `name` with `labels`; fails the test unless exactly one.
    double valueOf(const std::vector<Series> &all, const std::string &name,
                   const std::map<std::string, std::string> &labels = {})
    {
        const std::vector<Series> chosen = select(all, name, labels);
        EXPECT_EQ(chosen.size(), 1u) << name << " with the labels asked for";
        return chosen.empty() ? -1 : chosen.front().value;
    }

    void kelpctl(const std::vector<std::string> &words)
    {
        const RunResult result = agent.kelpctl(words);
        ASSERT_EQ(result.status, 0) << result.out << result.err;
    }

    TempDir dir;
    AgentUnderTest agent;
    Exporter exporter{dir};
};

TEST_F(ContribExporterScrape, AHealthyServerIsOkEverywhere)
{
    const std::vector<Series> all = scrape();
    EXPECT_EQ(valueOf(all, "globalStatus"), kGlobalOk);
    EXPECT_EQ(valueOf(all, "globalRollUpStatus"), kOk);
    // Both controllers, by name.
    EXPECT_EQ(valueOf(all, "controllerRollUpStatus", {{"controllerName", "Vorn RX-240"}}), kOk);
    EXPECT_EQ(valueOf(all, "controllerRollUpStatus", {{"controllerName", "Vorn HX-120"}}), kOk);
    // The sample model has 25 array disks, each with its name and status.
    const std::vector<Series> disks = select(all, "arrayDiskStatus");
    EXPECT_EQ(disks.size(), 25u);
    for (const Series &disk : disks) {
        EXPECT_FALSE(disk.labels.at("arrayDiskName").empty());
        EXPECT_EQ(disk.value, kOk) << disk.labels.at("arrayDiskName");
    }
    EXPECT_EQ(valueOf(all, "arrayDiskStatus",
                      {{"arrayDiskIndex", "1"}, {"arrayDiskName", "Physical Disk 0:0:0"}}),
              kOk);
}

TEST_F(ContribExporterScrape, StatesAreOneSeriesPerNamedState)
{
    const std::vector<Series> all = scrape();
    // Disk 300 (row 1) is online: its "online" series is 1, every other 0.
    const std::vector<Series> states = select(all, "arrayDiskState", {{"arrayDiskIndex", "1"}});
    ASSERT_GT(states.size(), 2u);
    double sum = 0;
    for (const Series &state : states) {
        sum += state.value;
    }
    EXPECT_EQ(sum, 1);
    EXPECT_EQ(
        valueOf(all, "arrayDiskState", {{"arrayDiskIndex", "1"}, {"arrayDiskState", "online"}}), 1);
}

TEST_F(ContribExporterScrape, SizesAreGauges)
{
    const std::vector<Series> all = scrape();
    // 8192 MiB of controller cache (sample.xml's CacheSize of the RX-240).
    EXPECT_EQ(valueOf(all, "controllerCacheSize", {{"controllerName", "Vorn RX-240"}}), 8192);
    EXPECT_GT(valueOf(all, "arrayDiskLength", {{"arrayDiskIndex", "1"}}), 0);
}

TEST_F(ContribExporterScrape, AFailedDiskShowsInItsRowItsVirtualDiskAndTheRollUp)
{
    for (const auto &words : failDisk("300", "100", "20", "1")) {
        kelpctl(words);
    }
    const std::vector<Series> all = scrape();
    EXPECT_EQ(valueOf(all, "globalStatus"), kGlobalCritical);
    EXPECT_EQ(valueOf(all, "globalRollUpStatus"), kCritical);
    EXPECT_EQ(valueOf(all, "controllerRollUpStatus", {{"controllerName", "Vorn RX-240"}}),
              kCritical);
    EXPECT_EQ(valueOf(all, "controllerRollUpStatus", {{"controllerName", "Vorn HX-120"}}), kOk);
    EXPECT_EQ(valueOf(all, "arrayDiskStatus",
                      {{"arrayDiskIndex", "1"}, {"arrayDiskName", "Physical Disk 0:0:0"}}),
              kCritical);
    EXPECT_EQ(
        valueOf(all, "arrayDiskState", {{"arrayDiskIndex", "1"}, {"arrayDiskState", "failed"}}), 1);
    EXPECT_EQ(
        valueOf(all, "arrayDiskState", {{"arrayDiskIndex", "1"}, {"arrayDiskState", "online"}}), 0);
    // Only that disk.
    EXPECT_EQ(select(all, "arrayDiskStatus").size(), 25u);
    int failed = 0;
    for (const Series &disk : select(all, "arrayDiskStatus")) {
        failed += disk.value == kCritical ? 1 : 0;
    }
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(valueOf(all, "virtualDiskStatus", {{"virtualDiskIndex", "1"}}), kNonCritical);
}

TEST_F(ContribExporterScrape, AFailedFanShowsWithItsNameBesideTheTemperatures)
{
    // Fan 30 is row 1 of the fan table.
    kelpctl({"set", "30", "ObjState", "2"});
    kelpctl({"set", "30", "ObjStatus", "4"});
    const std::vector<Series> all = scrape();
    EXPECT_EQ(valueOf(all, "fanStatus", {{"fanIndex", "1"}, {"fanName", "Fan 0"}}), kCritical);
    EXPECT_EQ(valueOf(all, "fanState", {{"fanIndex", "1"}, {"fanState", "failed"}}), 1);
    EXPECT_EQ(valueOf(all, "fanStatus", {{"fanIndex", "2"}}), kOk);
    // Three probes, each with its reading between its thresholds.
    const std::vector<Series> readings = select(all, "temperatureProbeReading");
    ASSERT_EQ(readings.size(), 3u);
    for (const Series &reading : readings) {
        const std::string &index = reading.labels.at("temperatureProbeIndex");
        EXPECT_GT(reading.value,
                  valueOf(all, "temperatureProbeMinWarning", {{"temperatureProbeIndex", index}}));
        EXPECT_LT(reading.value,
                  valueOf(all, "temperatureProbeMaxWarning", {{"temperatureProbeIndex", index}}));
    }
}

} // namespace
} // namespace kelp::test
