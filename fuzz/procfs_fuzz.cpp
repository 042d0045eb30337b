// Command lines of the process and of the kernel.
#include <kest/utils/procfs.h>

#include <map>
#include <string>
#include <vector>

#include "support/fuzz.h"

void kest::fuzz::fuzz(std::string_view input) {
    setProcFiles(input);
    std::string program;
    std::vector<std::string> arguments;
    CHECK(utils::ReadCommandLine(program, arguments));
    std::string joined = program;
    for (const std::string& argument : arguments)
        joined += '\0' + argument;
    // A NUL at the end ends the last argument, it starts no further one.
    if (joined != input) CHECK(joined + '\0' == input);

    std::map<std::string, std::string> parameters;
    CHECK(utils::ReadKernelCommandLine(parameters));
    int mode = 0;
    CHECK(utils::GetRunMode(mode) == (parameters.count("KEST_runmode") != 0));

    std::string text;
    const int result = utils::readProc("/proc/any", text, 64);
    CHECK(result == (input.size() < 64 ? 0 : -3) && text == (result == 0 ? input : ""));
}
