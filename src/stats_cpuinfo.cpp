#include <sys/utsname.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include <kest/utils/stats.h>
#include <kest/utils/string_utils.h>

#include "stats_source.h"

namespace kest::utils {
namespace {

using namespace detail;

struct Design {
    char part[6];
    char name[12];
};

// Part numbers of Arm's own designs, from the description of the main identification register in
// their technical reference manuals: those that small devices have.
constexpr char kArm[] = "0x41";
constexpr Design kArmDesigns[] = {
    {"0x926", "ARM926"},     {"0xb36", "ARM1136"},    {"0xb56", "ARM1156"},
    {"0xb76", "ARM1176"},    {"0xc05", "Cortex-A5"},  {"0xc07", "Cortex-A7"},
    {"0xc08", "Cortex-A8"},  {"0xc09", "Cortex-A9"},  {"0xc0e", "Cortex-A17"},
    {"0xc0f", "Cortex-A15"}, {"0xd01", "Cortex-A32"}, {"0xd03", "Cortex-A53"},
    {"0xd04", "Cortex-A35"}, {"0xd05", "Cortex-A55"}, {"0xd07", "Cortex-A57"},
    {"0xd08", "Cortex-A72"}, {"0xd09", "Cortex-A73"}, {"0xd0a", "Cortex-A75"},
    {"0xd0b", "Cortex-A76"}, {"0xd41", "Cortex-A78"}, {"0xd46", "Cortex-A510"}};

std::string coreName(const std::string& implementer, const std::string& part) {
    if (implementer.empty() || part.empty()) return {};
    const auto known = std::find_if(std::begin(kArmDesigns), std::end(kArmDesigns),
                                    [&](const Design& design) { return design.part == part; });
    if (implementer == kArm && known != std::end(kArmDesigns)) return known->name;
    return implementer + "/" + part;
}

std::string machine() {
    utsname name = {};
    return uname(&name) == 0 ? name.machine : "";
}

// What the lines of the file say, the first one of a kind each time: all cores repeat it, but old
// ARM kernels set it behind the last one.
struct Texts {
    CpuInfo info = {};
    std::string features = {};
    std::string implementer = {};
    std::string part = {};

    // The form with the capital is the model on old ARM kernels, the other one starts a core.
    std::string* of(std::string_view key) {
        if (key == "model name" || key == "Processor") return &info.model;
        if (key == "flags" || key == "Features") return &features;
        if (key == "Hardware") return &info.hardware;
        if (key == "CPU implementer") return &implementer;
        if (key == "CPU part") return &part;
        return nullptr;
    }
};

void readLine(std::string_view line, Texts& texts) {
    const size_t colon = std::min(line.find(':'), line.size());
    const std::string_view key = trimmed(line.substr(0, colon));
    if (key == "processor") ++texts.info.online;
    std::string* text = texts.of(key);
    if (text == nullptr || !text->empty() || colon == line.size()) return;
    *text = trimmed(line.substr(colon + 1));
}

}  // namespace

bool GetCpuInfo(CpuInfo& info) {
    StatsLines lines(StatsFile::CpuInfo);
    Texts texts;
    std::string_view line;
    bool any = false;
    for (; lines.next(line); any = true)
        readLine(line, texts);
    if (!lines.finish(any, __func__)) return false;

    CpuInfo& reading = texts.info;
    reading.core = coreName(texts.implementer, texts.part);
    if (reading.model.empty()) reading.model = reading.core;
    if (reading.model.empty()) reading.model = machine();
    tokenize(texts.features, reading.features, " ", true);
    reading.online = std::max(reading.online, 1U);
    info = std::move(reading);
    return true;
}

}  // namespace kest::utils
