#include <kest/utils/fileutils.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include <kest/utils/timer.h>

#include "support/child.h"
#include "support/clean_test.h"
#include "support/libc.h"
#include "support/limited.h"
#include "support/temp_dir.h"

using namespace kest::utils;
using namespace kest::test;
using testing::ElementsAre;
using testing::Pair;

// Called before the system call is made; a result other than 0 is the errno that it fails with.
static std::function<int(bool toFile)> onSplice;
static size_t spliceLimit = 4096;  // of what moves on to the file; what moves from it, 3 times that
static std::function<void(const std::string& path)> onOpenat;

extern "C" ssize_t splice(int fdin, loff_t* offin, int fdout, loff_t* offout, size_t len,
                          unsigned flags) {
    if (onSplice && (errno = onSplice(offout != nullptr)) != 0) return -1;
    len = std::min(len, offout != nullptr ? spliceLimit : 3 * spliceLimit);
    return LIBC(splice)(fdin, offin, fdout, offout, len, flags);
}

extern "C" int openat64(int fd, const char* file, int oflag, ...) {
    if (onOpenat) onOpenat(file);
    return LIBC(openat64)(fd, file, oflag);
}

class FileUtilsTest : public CleanTest {
  protected:
    FileUtilsTest() { EXPECT_TRUE(mkdirP(dir / "d/e", false)); }
    ~FileUtilsTest() override {
        onSplice = nullptr;
        onOpenat = nullptr;
        spliceLimit = 4096;
    }
    std::string link(const std::string& target, const std::string& name) const {
        EXPECT_EQ(0, symlink(target.c_str(), (dir / name).c_str()));
        return dir / name;
    }
    static bool copy(const std::string& src, const std::string& dst) {
        return copyFile(src.c_str(), dst.c_str());
    }
    TempDir dir;
};

TEST_F(FileUtilsTest, NormalizePathFollowsItsRules) {
    std::istringstream pathsAndResults(R"(
        /usr//lib/./x/../y/ /usr/lib/y/   ./a ./a   a/../.. ..   ./.. ..   / /   // /   /.. empty
        /a/.. empty   a/.. empty   a/../ empty   a/..//b /b   a// a/   . .   ./ ./   ./. .
        ../ ../   ../../a/../b ../../b   ./../.. ../..   /../../a /a   /./a/. /a   ... ...
        a\/b a\/b   x/a\/../.. x   x/a\/b/.. x   x\\/b/.. x\\   \./\.. \./\..   x/\/\//.. x)");
    for (std::string path, result; pathsAndResults >> path >> result;) {
        std::string out = path;
        EXPECT_TRUE(normalizePath(out, out)) << path;
        EXPECT_EQ(result == "empty" ? "" : result, out) << path;
    }
    for (const char* bad : {static_cast<const char*>(nullptr), "", "a\\", "a/b\\\\\\"}) {
        std::string out = "old";
        EXPECT_TRUE(!normalizePath(bad, out) && out.empty());
    }
}

TEST_F(FileUtilsTest, DirnameAndBasenameOfAnyText) {
    std::istringstream table("a . a  /a / a  // // empty  a/b/ a empty  /a/b /a b  a//b a b");
    for (std::string path, folder, name; table >> path >> folder >> name;) {
        EXPECT_EQ(folder, dirname_safe(path)) << path;
        EXPECT_EQ(name == "empty" ? "" : name, basename_safe(path)) << path;
    }
    const std::string longName(5000, 'x');
    EXPECT_EQ("." + longName, dirname_safe(longName + "/b") + basename_safe("/" + longName));
    EXPECT_EQ(".", dirname_safe(nullptr) + basename_safe(nullptr));
}

TEST_F(FileUtilsTest, MkdirPMakesWhatIsMissingAndRefusesFiles) {
    writeFile(dir / "file", "");
    link("nowhere", "dangling");
    EXPECT_TRUE(mkdirP(dir / "a//b/" + std::string(255, 'n') + "/", true) && isDir(dir / "a/b"));
    EXPECT_TRUE(mkdirP(dir / "dangling", false));
    for (const std::string& bad : {dir / "file", dir / "file/x", dir / "dangling/x", std::string(),
                                   dir / std::string(256, 'n'), dir / std::string("x\0y", 3)}) {
        EXPECT_FALSE(mkdirP(bad, true)) << bad;
    }
    EXPECT_FALSE(fileExists((dir / "x").c_str(), false));
    EXPECT_TRUE(syncFile((dir / "file").c_str(), true));
}

TEST_F(FileUtilsTest, LinksCountAsTheirTargetsUnlessAskedOtherwise) {
    const std::string dangling = link("nowhere", "dangling");
    EXPECT_TRUE(fileExists(dangling.c_str(), false) && !fileExists(dangling.c_str(), true));
    std::string out;
    bool folder = false;
    EXPECT_TRUE(resolvePath(link("d", "good"), out, folder, nullptr) && folder);
    EXPECT_EQ(dir / "d/", out);
    EXPECT_FALSE(resolvePath(dangling, out, folder, nullptr));
}

TEST_F(FileUtilsTest, RmRfRemovesLinksNotTheirTargets) {
    writeFile(dir / "d/kept", "");
    const std::string toFolder = link("d", "link");
    EXPECT_TRUE(!rmRf(toFolder + "/") && rmRf(toFolder) && !rmRf(toFolder));
    EXPECT_TRUE(mkdirP(dir / "tree/swapped", false) && mkdirP(dir / "tree/other/sub", false));
    onOpenat = [&](const std::string& path) {
        if (path != "swapped") return;
        rmdir((dir / "tree/swapped").c_str());
        link(dir / "d", "tree/swapped");
    };
    EXPECT_FALSE(rmRf(dir / "tree"));
    EXPECT_TRUE(isFile(dir / "d/kept") && isDir(dir / "tree") && !isDir(dir / "tree/other"));
}

TEST_F(FileUtilsTest, DepthIsLimitedByNeitherStackNorDescriptors) {
    const std::string top = dir / "deep";
    ASSERT_TRUE(mkdirP(top, false));
    for (int depth = 0; depth < 5000; ++depth) {
        ASSERT_TRUE(mkdirP(dir / "above", false));
        ASSERT_EQ(0, rename(top.c_str(), (dir / "above/n").c_str()));
        ASSERT_EQ(0, rename((dir / "above").c_str(), top.c_str()));
    }
    const Limited few(RLIMIT_NOFILE, 20);
    std::map<std::string, bool> out;
    EXPECT_TRUE(listFolder(top, out, true));
    EXPECT_TRUE(rmRf(top) && !isDir(top));
    EXPECT_EQ((PATH_MAX - 1 - top.size()) / 2, out.size());
}

TEST_F(FileUtilsTest, ListFolderListsEachRealFolderOnce) {
    writeFile(dir / "d/e/back\\slash", "");
    writeFile(dir / "d/e/odd\\", "");
    link("..", "d/e/up");
    link("nowhere", "d/dangling");
    std::map<std::string, bool> out, again;
    EXPECT_TRUE(listFolder(dir / "d", out, true));
    EXPECT_THAT(out, ElementsAre(Pair(dir / "d/", true), Pair(dir / "d/e/", true),
                                 Pair(dir / "d/e/back\\slash", false)));
    EXPECT_THAT(logTexts(), ElementsAre("Unable to resolve path `" + (dir / "d/dangling`"),
                                        "Unable to resolve path `" + (dir / "d/e//odd\\`")));
    EXPECT_TRUE(listFolder(link("d", "link") + "/", again, true) && again == out);
    EXPECT_FALSE(listFolder(dir / "none", out, true));
    EXPECT_EQ("Unable to open folder: " + (dir / "none/ (2) No such file or directory"),
              logTexts().back());
}

TEST_F(FileUtilsTest, CopyFileMovesEveryByteAndTheMode) {
    std::string content;
    while (content.size() < 20000)
        content += std::to_string(content.size());
    writeFile(dir / "src", content);
    chmod((dir / "src").c_str(), 0640);
    spliceLimit = 1000;
    EXPECT_TRUE(copy(dir / "src", dir / "dst"));
    EXPECT_EQ(content, readFile(dir / "dst"));
    EXPECT_EQ(std::filesystem::perms(0640), std::filesystem::status(dir / "dst").permissions());
    EXPECT_TRUE(!cpR(dir / "x", dir / "y") && cpR(dir / "d", dir / "y") && isDir(dir / "y/e"));
    EXPECT_THAT(readFromFile(dir / "dst"), testing::ElementsAreArray(content));
    EXPECT_TRUE(readFromFile(dir / "none").empty() && readFromFile(dir / "d").empty());
    EXPECT_TRUE(copy(link("src", "same"), dir / "src"));
    EXPECT_EQ(content, readFile(dir / "src"));
}

TEST_F(FileUtilsTest, CopyFileOfAShrinkingSourceOrToAFullMediumEnds) {
    writeFile(dir / "src", std::string(20000, 'c'));
    onSplice = [&](bool toFile) { return toFile ? truncate((dir / "src").c_str(), 4096) : 0; };
    EXPECT_TRUE(copy(dir / "src", dir / "dst"));
    EXPECT_EQ(std::string(4096, 'c'), readFile(dir / "dst"));
    onSplice = [](bool toFile) { return toFile ? ENOSPC : 0; };
    EXPECT_FALSE(copy(dir / "src", dir / "dst") || copyFile(9999, 0) || copyFile(0, -1));
    EXPECT_THAT(logTexts(),
                ElementsAre("Failed to splice() from pipe to dst", "Unable to fstat()"));
}

TEST_F(FileUtilsTest, NobodyWaitsForTheOtherEndOfAFifo) {
    ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
    EXPECT_TRUE(copy(dir / "fifo", dir / "dst") && readFromFile(dir / "fifo").empty());
    EXPECT_FALSE(copy(dir / "dst", dir / "fifo") || syncFile((dir / "fifo").c_str(), false));
}

TEST_F(FileUtilsTest, FailuresAreLoggedWithTheirTexts) {
    const std::string none = dir / "none/x";
    writeFile(dir / "file", "");
    EXPECT_FALSE(copy(none, dir / "file") || copy(dir / "file", none));
    EXPECT_FALSE(touchFile(none, false) || touchFile(none, true));
    EXPECT_THAT(logTexts(),
                ElementsAre("Unable to access '" + none + "'", "Unable to open '" + none + "'",
                            "Couldn't open() path: " + none, "Couldn't open() path: " + none));
    const LogLine copying = logLines()[0], touching = logLines()[2];
    EXPECT_EQ("fileutils copyFile", copying.sourceFile + " " + copying.function);
    EXPECT_TRUE(copying.level == 3 && copying.errnoValue == ENOENT);
    EXPECT_TRUE(touching.level == 4 && touching.errnoValue == 0);
}

TEST_F(FileUtilsTest, TouchFileSetsTheTimeAndGlobFindsInOrder) {
    const std::string file = dir / "g1";
    EXPECT_TRUE(touchFile(dir / "g2", true) && touchFile(file, true));
    const timespec old[2] = {{1, 2}, {3, 4}};
    EXPECT_EQ(0, utimensat(AT_FDCWD, file.c_str(), old, 0));
    uint64_t before = 0, after = 0;
    EXPECT_TRUE(lastModTime(file, before) && touchFile(file, false) && lastModTime(file, after));
    EXPECT_TRUE(before == 3000000004 && after > before);
    std::vector<std::string> out = {dir / "g*"};
    EXPECT_EQ(0, kest::utils::glob(out[0].c_str(), out));
    EXPECT_THAT(out, ElementsAre(file, dir / "g2"));
    EXPECT_TRUE(kest::utils::glob(nullptr, out) == 0 && out.empty());
}

TEST_F(FileUtilsTest, WaitForFilesNamesWhatIsMissing) {
    const std::string late = dir / "late", never = dir / "never";
    Child maker([&] { EXPECT_TRUE(sleepMs(50) == 0 && touchFile(late, true)); });
    EXPECT_TRUE(waitForFiles({late, dir / "d"}, 60000) && waitForFiles({late}, 0));
    EXPECT_EQ(0, maker.end());
    const int64_t before = nowMs();
    EXPECT_FALSE(waitForFiles({never, late, dir / "a"}, 20) || waitForFiles({late}, -1));
    EXPECT_GE(nowMs(), before + 20);
    EXPECT_THAT(logTexts(), ElementsAre("Failed to wait for files: " + (dir / "a, ") + never,
                                        "Failed to wait for files: " + late));
}
