// The table of `zevshm top` in whatever room there is.
#include "toptable.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace zevshm;

namespace {

TopRow camera(const std::string &name)
{
    TopRow row;
    row.name = name;
    row.carries = "1280x720 yuv420p 25 fps, 48000 Hz x 2";
    row.hasVideo = true;
    row.rate = 25;
    row.declaredRate = 25;
    row.jitterUs = 1234;
    row.ageUs = 12000;
    row.readers = 3;
    row.locksHeld = 2;
    row.dropped = 7;
    row.refused = 1;
    row.bytesASecond = 34752000;
    row.totalBytes = 1000;
    return row;
}

TopRow dead(const std::string &name)
{
    TopRow row;
    row.name = name;
    row.state = "dead";
    return row;
}

bool has(const std::string &line, const std::string &text)
{
    return line.find(text) != std::string::npos;
}

} // namespace

TEST(TopTable, everythingIsShownWhereThereIsRoom)
{
    const auto lines = layOutTable({camera("cam1"), dead("old")}, 0, 0);
    ASSERT_EQ(lines.size(), 3u);
    for (const char *title :
         {"NAME", "STATE", "FPS", "JITTER", "AGE", "READERS", "LOCKS", "DROPS", "BANDWIDTH", "CARRIES"})
        EXPECT_TRUE(has(lines[0], title)) << title;
    for (const char *cell :
         {"cam1", "live", "25.0", "1.23 ms", "12 ms", "3", "2", "7", "34.8 MB/s", "1280x720"})
        EXPECT_TRUE(has(lines[1], cell)) << cell;
    EXPECT_EQ(lines[2].rfind("old   dead", 0), 0u) << lines[2];
    EXPECT_FALSE(has(lines[2], "0")); // nothing is claimed of it
    EXPECT_EQ(layOutTable({}, 80, 24).size(), 1u);
}

TEST(TopTable, noLineIsWiderThanTheTerminalAndNoTableHigher)
{
    std::vector<TopRow> rows;
    for (int i = 0; i < 30; ++i)
        rows.push_back(camera("camera-with-a-long-name-" + std::to_string(i)));
    for (int width = 1; width <= 160; ++width) {
        for (const int height : {1, 2, 3, 10, 30, 31, 40}) {
            const auto lines = layOutTable(rows, width, height);
            ASSERT_LE(lines.size(), static_cast<size_t>(height));
            ASSERT_EQ(lines.size(), static_cast<size_t>(std::min(height, 31)));
            for (const std::string &line : lines)
                ASSERT_LE(line.size(), static_cast<size_t>(width));
        }
    }
}

TEST(TopTable, theNameAndTheRateStayLongest)
{
    const auto lines = layOutTable({camera("cam1")}, 11, 0);
    EXPECT_EQ(lines, (std::vector<std::string>{"NAME   FPS", "cam1  25.0"}));
    EXPECT_EQ(layOutTable({camera("cam1")}, 5, 0), (std::vector<std::string>{"NAME", "cam1"}));
    EXPECT_EQ(layOutTable({camera("cam1")}, 2, 0), (std::vector<std::string>{"NA", "ca"}));
}

TEST(TopTable, rowsThatHaveNoRoomAreCounted)
{
    const std::vector<TopRow> rows = {camera("a"), camera("b"), camera("c"), camera("d")};
    const auto lines = layOutTable(rows, 0, 4);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2][0], 'b');
    EXPECT_EQ(lines[3], "2 more");
    EXPECT_EQ(layOutTable(rows, 0, 5).back()[0], 'd'); // all have room
    EXPECT_EQ(layOutTable(rows, 0, 1).size(), 1u);
}

TEST(TopTable, whatIsNotMeasuredIsNotClaimed)
{
    TopRow row = camera("new");
    row.rate.reset();
    row.bytesASecond.reset();
    row.ageUs.reset();
    EXPECT_FALSE(has(layOutTable({row}, 0, 0)[1], "25.0"));
    JsonWriter json;
    writeJson(json, {row, dead("old")});
    EXPECT_TRUE(has(json.text(), "\"rate\": null"));
    EXPECT_TRUE(has(json.text(), "\"bytesPerSecond\": null"));
    EXPECT_TRUE(has(json.text(), "\"live\": false"));
}

TEST(TopTable, ratesAreDifferencesOverTime)
{
    EXPECT_DOUBLE_EQ(ratePerSecond(100, 150, 2000000).value(), 25);
    EXPECT_DOUBLE_EQ(ratePerSecond(100, 100, 1000).value(), 0);
    EXPECT_FALSE(ratePerSecond(100, 50, 1000000)); // another writer
    EXPECT_FALSE(ratePerSecond(100, 150, 0));
}
