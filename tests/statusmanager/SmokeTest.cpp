#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingListener.h"
#include <gtest/gtest.h>
TEST(Smoke, works)
{
    LogCapture log("*=7");
    StatusManager m;
    Orvane::EventThread t("listener", 0);
    RecordingListener l;
    m.registerListener(&l, &t);
    m.registerForStatus(&l, "a");
    m.postStatus("a", "1");
    EXPECT_TRUE(l.waitForValue("a", "1"));
    EXPECT_EQ(m.getClientInfoValue("a"), "1");
    m.updateSystemTime(5);
    ASSERT_TRUE(FakeClock::lastSetting());
    m.unregisterListener(&l);
    for (auto& x : log.lines())
        printf("%d %s %s:%d %*s%s\n", x.level, x.function.c_str(), x.file.c_str(), x.line, x.indent, "",
               x.text.c_str());
}
