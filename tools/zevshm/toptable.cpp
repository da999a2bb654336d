#include "toptable.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace zevshm {

namespace {

__attribute__((format(printf, 1, 2))) std::string print(const char *format, ...)
{
    char text[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

std::string bandwidthText(double bytesASecond)
{
    return bytesASecond >= 1e9   ? print("%.2f GB/s", bytesASecond / 1e9)
           : bytesASecond >= 1e6 ? print("%.1f MB/s", bytesASecond / 1e6)
                                 : print("%.0f kB/s", bytesASecond / 1e3);
}

std::string ageText(int64_t us)
{
    return us >= 10000000 ? print("%.0f s", static_cast<double>(us) / 1e6)
                          : print("%.0f ms", static_cast<double>(us) / 1e3);
}

// In the order in which they stand; `need`: the larger, the sooner it is left out.
struct Column
{
    const char *title;
    int need;
    bool left; // aligned to the left
    std::string (*text)(const TopRow &row);
};

bool isLive(const TopRow &row)
{
    return row.state == "live";
}

const Column columns[] = {
    {"NAME", 0, true, [](const TopRow &row) { return row.name; }},
    {"STATE", 2, true, [](const TopRow &row) { return row.state; }},
    {"FPS", 1, false,
     [](const TopRow &row) {
         return row.hasVideo && row.rate ? print("%.1f", *row.rate) : std::string("-");
     }},
    {"JITTER", 4, false,
     [](const TopRow &row) {
         return isLive(row) && row.hasVideo ? print("%.2f ms", static_cast<double>(row.jitterUs) / 1000)
                                            : std::string("-");
     }},
    {"AGE", 6, false,
     [](const TopRow &row) { return isLive(row) && row.ageUs ? ageText(*row.ageUs) : std::string("-"); }},
    {"READERS", 3, false,
     [](const TopRow &row) { return isLive(row) ? std::to_string(row.readers) : std::string("-"); }},
    {"LOCKS", 5, false,
     [](const TopRow &row) { return isLive(row) ? std::to_string(row.locksHeld) : std::string("-"); }},
    {"DROPS", 3, false,
     [](const TopRow &row) { return isLive(row) ? std::to_string(row.dropped) : std::string("-"); }},
    {"BANDWIDTH", 7, false,
     [](const TopRow &row) {
         return row.bytesASecond ? bandwidthText(*row.bytesASecond) : std::string("-");
     }},
    {"CARRIES", 8, true, [](const TopRow &row) { return isLive(row) ? row.carries : std::string("-"); }},
};
constexpr size_t gap = 2;

std::string padded(const std::string &text, size_t width, bool left)
{
    const std::string space(width - std::min(width, text.size()), ' ');
    return left ? text + space : space + text;
}

} // namespace

std::optional<double> ratePerSecond(uint64_t before, uint64_t now, int64_t elapsedUs)
{
    if (now < before || elapsedUs <= 0)
        return std::nullopt;
    return static_cast<double>(now - before) * 1e6 / static_cast<double>(elapsedUs);
}

std::vector<std::string> layOutTable(const std::vector<TopRow> &rows, int width, int height)
{
    struct Shown
    {
        const Column *column;
        std::vector<std::string> cells; // the title first
        size_t width = 0;
    };
    std::vector<Shown> shown;
    for (const Column &column : columns) {
        Shown cells{&column, {column.title}, 0};
        for (const TopRow &row : rows)
            cells.cells.push_back(column.text(row));
        for (const std::string &cell : cells.cells)
            cells.width = std::max(cells.width, cell.size());
        shown.push_back(std::move(cells));
    }
    const auto total = [&shown] {
        size_t sum = 0;
        for (const Shown &column : shown)
            sum += column.width + gap;
        return sum - gap;
    };
    const size_t room = width > 0 ? static_cast<size_t>(width) : total();
    while (shown.size() > 1 && total() > room)
        shown.erase(std::max_element(shown.begin(), shown.end(), [](const Shown &a, const Shown &b) {
            return a.column->need < b.column->need;
        }));

    size_t count = rows.size();
    const size_t lines = height > 0 ? static_cast<size_t>(height) : count + 1;
    const bool isCut = count + 1 > lines;
    if (isCut)
        count = lines >= 2 ? lines - 2 : 0;
    std::vector<std::string> text;
    for (size_t line = 0; line < count + 1; ++line) {
        std::string joined;
        for (const Shown &column : shown)
            joined += (joined.empty() ? "" : std::string(gap, ' ')) +
                      padded(column.cells[line], column.width, column.column->left);
        joined.erase(joined.find_last_not_of(' ') + 1);
        text.push_back(joined.substr(0, room));
    }
    if (isCut && lines >= 2)
        text.push_back(print("%zu more", rows.size() - count).substr(0, room));
    return text;
}

void writeJson(JsonWriter &json, const std::vector<TopRow> &rows)
{
    const auto optional = [&json](const char *name, const auto &value) {
        value ? json.member(name, *value) : json.key(name).null();
    };
    json.beginArray();
    for (const TopRow &row : rows) {
        json.beginObject();
        json.member("name", row.name).member("state", row.state).member("live", isLive(row));
        if (isLive(row)) {
            json.member("carries", row.carries);
            optional("rate", row.rate);
            json.member("nominalRate", row.declaredRate).member("jitterUs", row.jitterUs);
            optional("ageUs", row.ageUs);
            json.member("readers", row.readers).member("locksHeld", row.locksHeld);
            json.member("framesDropped", row.dropped).member("framesRefused", row.refused);
            optional("bytesPerSecond", row.bytesASecond);
            json.member("totalBytes", row.totalBytes);
        }
        json.endObject();
    }
    json.endArray();
}

} // namespace zevshm
