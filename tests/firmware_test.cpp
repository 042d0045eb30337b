#include <kest/utils/firmware.h>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

namespace {

using namespace kest::test;
using namespace kest::utils;
using FirmwareTest = CleanTest;

struct Image : File {
    explicit Image(const std::string& bytes) {
        writeFile(folder / "image", bytes);
        EXPECT_TRUE(Initialize(folder / "image", File::Read));
    }
    TempDir folder;
};

TEST_F(FirmwareTest, ThirdPartyIsFourExactBytes) {
    Image open("OPENxyz"), other(std::string("OPE\0xyz", 7)), cut("OPE");
    EXPECT_TRUE(IsThirdPartyFw(open) && IsThirdPartyFw(open) && !IsThirdPartyFw(other));
    EXPECT_TRUE(other.Cursor() == 0 && logLines().empty());
    EXPECT_TRUE(!IsThirdPartyFw(cut) && logLines().size() == 1);
}

TEST_F(FirmwareTest, VersionLosesItsSecondField) {
    const std::string x(124, 'x');
    const std::vector<std::string> texts = {"A.B.v1.2.3", "1..3", "...", "1.2." + x + "beyond",
                                            "",           ".",    "..",  "12",
                                            "1.",         "1.2",  "1.2."};
    const std::vector<std::string> results = {"A.v1.2.3", "1.3", "..", "1." + x, "",    ".",
                                              "..",       "12",  "1.", "1.2",    "1.2."};
    for (size_t i = 0; i < texts.size(); ++i) {
        Image image("OPEN" + texts[i] + std::string(128, '\0'));
        EXPECT_EQ(results[i], ExtractFwVersion(image));
        EXPECT_EQ(0U, image.Cursor());
    }
    for (const unsigned size : {0U, 3U, 4U, 5U, 131U, 132U}) {
        Image image(std::string(size, '1'));
        EXPECT_EQ(size < 132 ? 0 : 128, ExtractFwVersion(image).size());
    }
    EXPECT_EQ(5U, logLines().size());
}

TEST_F(FirmwareTest, UpdateToolJudges) {
    const char* tool = "echo \"$#$1\" >>/run/asked; exit $(cat /run/status)";
    Isolated().file("/run/status", "0").program("/usr/bin/fwupdate", tool).run([] {
        Image image("");
        EXPECT_TRUE(ValidateFwHdr(image) && ValidateFw(image));
        writeFile("/run/status", "1");
        EXPECT_FALSE(ValidateFwHdr(image) || ValidateFw(image));
        EXPECT_EQ("1-h\n1-c\n1-h\n1-c\n", readFile("/run/asked"));
    });
}

}  // namespace
