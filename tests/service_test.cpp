#include <kest/utils/service.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/limited.h"
#include "support/temp_dir.h"

using namespace kest::test;
using namespace kest::utils;
using namespace std::string_literals;
using testing::ElementsAre, testing::HasSubstr;

static bool oneFileSystem = true;
static int hangups = 0;

// A private "/etc" is never on the file system of "/tmp".
extern "C" int mkostemp(char* path, int /*flags*/) {
    EXPECT_STREQ("/tmp/inittab-XXXXXX", path);
    if (oneFileSystem) memcpy(path, "/etc", 4);
    return mkstemp(path);
}

extern "C" int kill(pid_t pid, int signo) noexcept {
    if (pid != 1) return static_cast<int>(syscall(SYS_kill, pid, signo));
    EXPECT_EQ(SIGHUP, signo);
    return ++hangups > 2 ? -1 : 0;  // the third is refused
}

namespace {

using ServiceTest = CleanTest;

constexpr char kTable[] = "/etc/inittab";

Isolated device() {
    return Isolated()
        .file(kTable, "")
        .empty("/etc/kest")
        .empty("/tmp")
        .program("/bin/pkill", "echo \"$*\" >/tmp/killed; [ $2 != idle ]");
}

TEST_F(ServiceTest, SwitchesStoreAndTableAndTellsTheDaemonAndInit) {
    device().run([] {
        std::string others =
            "\n# dropbear\n::a:/bin/xdropbear\n:: dropbear\n#::a:/dropbear/launcher\n";
        others += std::string(1 << 20, 'x') + ":b dropbear\n::a:dropbear:";
        std::string table, disabled, enabled;
        for (const std::string line : {"::respawn:/usr/sbin/dropbear -F", "##::once:dropbear",
                                       "pts/0::once:dropbear", "::once:/bin/launcher dropbear"}) {
            table += line + "\n";
            disabled += "#" + line + "\n";
            enabled += line.substr(line.find_first_not_of('#')) + "\n";
        }
        writeFile(kTable, table + others);
        const bool owned = chown(kTable, 12, 34) == 0;  // root of a user namespace cannot
        EXPECT_TRUE(chmod(kTable, 0640) == 0 && link(kTable, "/etc/old") == 0);

        int status = -1;
        EXPECT_TRUE(DisableService("ssh") && ServiceStatus("ssh"s, status) && status == 0);
        EXPECT_EQ(disabled + others + "\n", readFile(kTable));
        EXPECT_EQ(table + others, readFile("/etc/old")) << "replaced, not overwritten";
        EXPECT_TRUE(EnableService("ssh"s) && ServiceStatus("ssh", status) && status == 1);
        EXPECT_EQ(enabled + others + "\n", readFile(kTable));
        struct stat now = {};
        EXPECT_TRUE(stat(kTable, &now) == 0 && now.st_mode == (S_IFREG | 0640));
        EXPECT_TRUE(!owned || (now.st_uid == 12 && now.st_gid == 34));
        EXPECT_EQ("-15 dropbear\n", readFile("/tmp/killed"));
        EXPECT_EQ(2, hangups);
    });
}

TEST_F(ServiceTest, FailuresAreToldAndCostNoTable) {
    device().run([] {
        int status = -1;
        EXPECT_FALSE(EnableService("ssh\0d"s) || ServiceStatus("http", status));
        unlink(kTable);
        EXPECT_TRUE(enableDaemon("x") && readFile(kTable).empty()) << "missing is empty";
        writeFile(kTable, "# an important: table\n");
        EXPECT_FALSE(enableDaemon("") || disableDaemon("idle", true));
        signal(SIGXFSZ, SIG_IGN);
        // No descriptor for the table; room for only a few of its bytes.
        const int lowest = dup(0);
        close(lowest);
        for (const auto resource : {RLIMIT_NOFILE, RLIMIT_FSIZE}) {
            const Limited limited(resource, static_cast<rlim_t>(lowest) + 1);
            EXPECT_FALSE(enableDaemon("x"));
        }
        oneFileSystem = false;
        EXPECT_FALSE(enableDaemon("x"));
        oneFileSystem = true;
        EXPECT_FALSE(disableDaemon("x", false));
        EXPECT_EQ("# an important: table\n", readFile(kTable));
        const char* overwrite = "Failed to overwrite /etc/inittab";
        EXPECT_THAT(logTexts(),
                    ElementsAre("Unknown service", "httpd.status is missing", "Invalid arguments",
                                "Failed to kill daemon process: idle",
                                HasSubstr("Unable to open file"), overwrite, overwrite, overwrite,
                                "Failed to send signal", "Failed to disable daemon: x"));
        EXPECT_NE(0, system("ls /etc/inittab-* /tmp/inittab-* 2>/dev/null"));
    });
}

}  // namespace
