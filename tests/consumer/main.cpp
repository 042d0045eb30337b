// A daemon of one tick: shows that headers, library and platform of an installation fit together.
#include <cstdio>

#include <kest/utils/file.h>
#include <kest/utils/scheduler.h>
#include <kest/variant/variant.h>

int main(int, char** arguments) {
    kest::utils::Scheduler scheduler;
    if (!scheduler.Init()) return 1;

    bool ticked = false;
    scheduler.AddTimerTask(
        10,
        [](void* flag) {
            *static_cast<bool*>(flag) = true;
            return false;
        },
        &ticked);
    while (!ticked && scheduler.Service()) {
    }

    // Its size comes from struct stat, which must be the same on both sides.
    kest::utils::File self;
    if (!self.Initialize(arguments[0], kest::utils::File::Read) || self.Size() <= 0) return 1;

    kest::variant::Variant report;
    report["ticked"] = ticked;
    std::puts(report.ToJson().c_str());
    return report.ToJson() == R"({"ticked":true})" ? 0 : 1;
}
