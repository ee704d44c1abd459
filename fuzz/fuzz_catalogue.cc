// The alert catalogue (runtime/evtmsg): any text parsed as a catalogue file,
// and every alert it yields expanded with inserts at capacities around its
// length, the way evtmsg_getAlertMsg fills the plug-in's buffers. The
// input is the catalogue's text; its last line, after "@@inserts", gives
// the inserts separated by '|'.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "evtmsg/catalogue.h"
#include "fuzz_common.h"

namespace {

constexpr std::string_view kInserts = "\n@@inserts\n";

// The result fits the capacity and is whole UTF-8 where the text was.
void expand(std::string_view text, uint32_t eventId, const std::vector<const char *> &inserts,
            size_t capacity)
{
    const std::string result = kelp::rt::evtmsg::expandText(
        text, eventId, static_cast<uint32_t>(inserts.size()), inserts.data(), capacity);
    FUZZ_CHECK(capacity == 0 ? result.empty() : result.size() <= capacity - 1);
    const std::string_view cut = kelp::rt::evtmsg::cutText(text, capacity);
    FUZZ_CHECK(capacity == 0 ? cut.empty() : cut.size() <= capacity - 1);
    FUZZ_CHECK(text.substr(0, cut.size()) == cut);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t cut = input.find(kInserts);
    std::vector<std::string> insertTexts;
    if (cut != std::string_view::npos) {
        std::string_view rest = input.substr(cut + kInserts.size());
        while (insertTexts.size() < kelp::rt::evtmsg::kMaxInsert + 2) {
            const size_t bar = rest.find('|');
            insertTexts.emplace_back(rest.substr(0, bar));
            if (bar == std::string_view::npos) {
                break;
            }
            rest.remove_prefix(bar + 1);
        }
    }
    std::vector<const char *> inserts;
    for (const std::string &text : insertTexts) {
        // An empty insert stands for a null one.
        inserts.push_back(text.empty() ? nullptr : text.c_str());
    }
    kelp::rt::evtmsg::Catalogue catalogue;
    std::string error;
    const bool parsed =
        kelp::rt::evtmsg::parseCatalogue(input.substr(0, cut), "fuzz", &catalogue, &error);
    FUZZ_CHECK(parsed || !error.empty());
    size_t expanded = 0;
    const auto expandAlert = [&](uint32_t id, const kelp::rt::evtmsg::Alert &alert) {
        for (const std::string &text : {alert.message, alert.description}) {
            for (size_t capacity :
                 {size_t{0}, size_t{1}, text.size(), text.size() + 1, size_t{256}, size_t{1024}}) {
                expand(text, id, inserts, capacity);
            }
        }
    };
    for (const auto &[id, alert] : catalogue.alerts) {
        if (expanded++ == 64) {
            break;
        }
        expandAlert(id, alert);
    }
    expandAlert(0, catalogue.fallback);
    return 0;
}
