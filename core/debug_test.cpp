#include <vxtools3/debug.h>

#include "testkit/capture.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(Debug, OutputOnlyWhileDebugModeIsOnToAFileThatOpened)
{
    vxtest::DebugCapture debug;
    EXPECT_NE(DBmode(), 0);
    EXPECT_EQ(DBprintf("%s %d\n", "frame", 24), 9);
    EXPECT_EQ(DBenable(0), 1);
    EXPECT_EQ(DBmode(), 0);
    EXPECT_EQ(DBprintf("hidden\n"), 0);
    DBenable(1);
    const std::string path = DBfilePath();
    EXPECT_EQ(DBfile("/nonexistent-directory/x/debug.txt"), 0);
    EXPECT_STREQ(DBfilePath(), path.c_str()) << "a file that cannot be opened keeps the destination";
    DBprintf("%05.1f|%x\n", 3.14159, 255u);
    EXPECT_EQ(debug.Text(), "frame 24\n003.1|ff\n");
}

TEST(Debug, LinesFromManyThreadsStayWhole)
{
    vxtest::DebugCapture debug;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i)
                DBprintf("thread %d line %03d ........................................\n", t, i);
        });
    for (auto &t : threads)
        t.join();
    std::istringstream lines(debug.Text());
    std::set<std::string> seen;
    for (std::string line; std::getline(lines, line);) {
        ASSERT_EQ(line.size(), 58u) << line;
        seen.insert(line);
    }
    EXPECT_EQ(seen.size(), 800u);
}

std::vector<std::string> g_alerts;
void CollectAlert(const char *title, const char *headline, const char *detail)
{
    g_alerts.push_back(std::string(title) + "|" + headline + "|" + detail);
}

TEST(Debug, AlertsReachTheInstalledFunctionFromTheSetLevel)
{
    g_alerts.clear();
    AlertFunc *previous = AlertSetFunction(CollectAlert);
    const int previousLevel = AlertLevelSet(ALERT_WARNING);
    Alert(ALERT_INFO, "Info", "dropped", "");
    Alert(ALERT_WARNING, "Warning", "shown", "detail\n");
    Alert(ALERT_FATAL, nullptr, "no title", nullptr);
    EXPECT_EQ(g_alerts, (std::vector<std::string>{"Warning|shown|detail\n", "|no title|"}));
    EXPECT_EQ(AlertLevelSet(previousLevel), ALERT_WARNING);
    EXPECT_EQ(AlertSetFunction(previous), CollectAlert);
}

}  // namespace
