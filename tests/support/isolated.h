// Runs part of a test in a child process with mount, pid, ipc and network namespaces of its own
// (loopback up, nothing else), where chosen folders are private and stand-in programs take the
// place of real ones. Folders that are not named stay the machine's own.
//
//     TEST_F(PersistenceTest, AsksTheControlDaemon) {
//         kest::test::Isolated()
//             .empty("/tmp/crashdumps")
//             .file("/etc/inittab", "::respawn:/bin/daemon\n")
//             .program("/bin/kest_ipc_cli", "echo \"$@\" >/tmp/crashdumps/asked")
//             .run([] {
//                 EXPECT_TRUE(enqueuePersist());
//                 EXPECT_EQ("...\n", kest::test::readFile("/tmp/crashdumps/asked"));
//             });
//     }
//
// Failures and skips inside are printed there and become one of the test. What the function changes
// in memory, captured log lines included, stays in the child: look at it inside. It fails the test
// if the function does not come to its end (exit, signal). Process 1 of the namespace adopts and
// reaps what it orphans, and takes what is left along when it ends.
//
// Root needs nothing more; other users are made root of a user namespace, in which files that
// belong to somebody else can be replaced, not changed. Where the kernel allows neither, the test
// is skipped with the reason.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kest::test {

// Folders and files are prepared in the order of the calls. Anything written to a folder named here
// stays private; a folder that does not exist is made in a private copy of the nearest one that
// does.
class Isolated {
  public:
    // An empty folder in place of the real one. A private /dev, also one that a file or copy asks
    // for, holds null, zero, full, random and urandom.
    Isolated& empty(const std::string& folder);

    // The folder with its content, mounts below it excepted.
    Isolated& copy(const std::string& folder);

    // A file in place of a real one, in a private copy of its folder unless that is private
    // already.
    Isolated& file(const std::string& path, const std::string& text, unsigned mode = 0644);

    // The same for a program: a shell script, or any text that starts with "#!".
    Isolated& program(const std::string& path, const std::string& script);

    // Runs the function. The calling process should have no other threads.
    void run(const std::function<void()>& function) const;

  private:
    class Folders;

    [[noreturn]] void runFirst(const std::function<void()>& function) const noexcept;
    [[noreturn]] void runOutside(const std::function<void()>& function) const noexcept;

    std::vector<std::function<void(Folders&)>> steps_;
};

}  // namespace kest::test
