#include <kest/cfg/SystemCfgManager.h>

#include <cstdlib>
#include <string>

#include "support/clean_test.h"
#include "support/temp_dir.h"

namespace {

using namespace kest::test;
using kest::cfg::SystemCfgManager;
using testing::IsEmpty;

class SystemCfgManagerTest : public CleanTest {
  protected:
    void SetUp() override {
        setenv("KEST_SYSTEM_CFG", path().c_str(), 1);
        CleanTest::SetUp();
    }
    std::string path() const { return dir_ / "system.db"; }

    TempDir dir_;
};

TEST_F(SystemCfgManagerTest, KeepsWhatIsCommitted) {
    bool changed = false;
    for (const bool commit : {false, true}) {
        SystemCfgManager store;
        ASSERT_TRUE(store.init());
        EXPECT_TRUE(store.set("sshd.status", 1, &changed));
        EXPECT_TRUE(changed);
        EXPECT_TRUE(store.close(commit, false));
    }
    SystemCfgManager store;
    ASSERT_TRUE(store.init());
    int value = 77;
    bool missing = true;
    EXPECT_TRUE(store.set("sshd.status", 1, &changed));
    EXPECT_FALSE(changed);
    EXPECT_TRUE(store.get("sshd.status", &value, &missing));
    EXPECT_EQ(1, value);
    EXPECT_FALSE(missing);
    EXPECT_TRUE(store.get("bled.status", &value, &missing));
    EXPECT_EQ(1, value);
    EXPECT_TRUE(missing);
    EXPECT_THAT(logTexts(), IsEmpty());
}

}  // namespace
