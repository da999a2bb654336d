#include "failure.h"
#include "options.h"

#include <gtest/gtest.h>

using namespace zevshm;

namespace {

const std::vector<OptionSpec> specs = {
    {"--loop", "", "loop"},       {"--fps", "RATE", "rate"},   {"--size", "WxH", "size"},
    {"--history", "N", "frames"}, {"--help", "", "help"},      {"--stall", "A,B", "pair"},
    {"--ppm", "N", "ppm"},        {"--format", "F", "format"},
};

Options parse(const std::vector<std::string> &words)
{
    return Options("publish", specs, {"NAME", "INPUT"}, words);
}

// The message of the failure, which must be a usage error of one line.
template <typename Call>
std::string refused(Call call)
{
    try {
        call();
    } catch (const Failure &failure) {
        EXPECT_EQ(failure.code(), ExitUsage);
        const std::string message = failure.what();
        EXPECT_EQ(message.find('\n'), std::string::npos);
        EXPECT_NE(message.find("zevshm publish --help"), std::string::npos) << message;
        return message;
    }
    ADD_FAILURE() << "was accepted";
    return {};
}

bool mentions(const std::string &message, const std::string &word)
{
    return message.find(word) != std::string::npos;
}

} // namespace

TEST(Options, takesValuesAsNextWordOrAfterEquals)
{
    const Options options = parse({"cam", "--fps", "25", "--size=1280x720", "-", "--loop"});
    EXPECT_EQ(options.positional(), (std::vector<std::string>{"cam", "-"}));
    EXPECT_TRUE(options.has("--loop"));
    EXPECT_FALSE(options.has("--history"));
    EXPECT_EQ(options.rate("--fps")->numerator, 25);
    EXPECT_EQ(*options.size("--size", 16384), (std::pair{1280, 720}));
    EXPECT_FALSE(options.integer("--history", 1, 200));
}

TEST(Options, doubleDashEndsOptions)
{
    EXPECT_EQ(parse({"--", "cam", "--loop"}).positional()[1], "--loop");
}

TEST(Options, helpNeedsNothingElse)
{
    EXPECT_TRUE(parse({"--help"}).has("--help"));
}

TEST(Options, namesWhatIsWrongAndSaysWhatToWrite)
{
    const struct
    {
        std::vector<std::string> words;
        const char *message;
    } cases[] = {
        {{"cam", "in", "--speed", "3"}, "publish: unknown option '--speed'; see"},
        {{"cam", "in", "-x"}, "publish: unknown option '-x'; see"},
        {{"cam", "in", "-=3"}, "publish: unknown option '-'; see"},
        {{"cam", "in", "--lop"}, "publish: unknown option '--lop', perhaps '--loop' is meant; see"},
        {{"cam", "in", "--szie=4x4"}, "publish: unknown option '--szie', perhaps '--size' is meant; see"},
        {{"cam", "in", "--"}, ""},
        {{"cam"}, "publish: INPUT is missing, give 'zevshm publish NAME INPUT'; see"},
        {{}, "publish: NAME is missing, give 'zevshm publish NAME INPUT'; see"},
        {{"cam", "in", "more"},
         "publish: unexpected argument 'more', give 'zevshm publish NAME INPUT' and put what has spaces into "
         "quotes; see"},
        {{"cam", "in", "--fps"}, "publish: option '--fps' needs a value, give --fps RATE; see"},
        {{"cam", "in", "--fps="}, "publish: option '--fps' needs a value, give --fps RATE; see"},
        {{"cam", "in", "--loop=1"}, "publish: option '--loop' takes no value, leave '=1' out; see"},
    };
    for (const auto &c : cases) {
        if (*c.message == '\0')
            EXPECT_NO_THROW(parse(c.words));
        else
            EXPECT_EQ(refused([&] { parse(c.words); }), std::string(c.message) + " 'zevshm publish --help'");
    }
}

TEST(Options, refusesBadValues)
{
    for (const char *bad : {"0", "201", "-1", "3x", "", "1e2", " 5", "99999999999999999999"}) {
        if (*bad == '\0')
            continue; // an empty value is refused earlier
        refused([&] { parse({"cam", "in", std::string("--history=") + bad}).integer("--history", 1, 200); });
    }
    for (const char *bad :
         {"1280", "1280x", "x720", "0x720", "1x1", "-2x4", "20000x2", "1280x720x2", "a x b"})
        refused([&] { parse({"cam", "in", std::string("--size=") + bad}).size("--size", 16384); });
    for (const char *bad : {"0", "-25", "abc", "1/0", "0/1", "25/", "1001", "nan", "inf", "0x10", "1e-9"})
        refused([&] { parse({"cam", "in", std::string("--fps=") + bad}).rate("--fps"); });
    for (const char *bad : {"1", "1,", ",1", "-1,5", "a,b", "1,nan"})
        refused([&] { parse({"cam", "in", std::string("--stall=") + bad}).pair("--stall"); });
    for (const char *bad : {"nan", "inf", "1..2", "--", "1000001"})
        refused([&] {
            parse({"cam", "in", std::string("--ppm=") + bad}).number("--ppm", -1000000, 1000000);
        });
    EXPECT_TRUE(mentions(refused([] {
                             parse({"cam", "in", "--format=rgb"}).choice("--format", {"yuv420p", "nv12"});
                         }),
                         "yuv420p or nv12"));
}

TEST(Options, readsRatesExactly)
{
    const struct
    {
        const char *text;
        int numerator, denominator;
    } cases[] = {{"25", 25, 1},
                 {"25.0", 25, 1},
                 {"29.97", 30000, 1001},
                 {"23.976", 24000, 1001},
                 {"59.94", 60000, 1001},
                 {"12.5", 25, 2},
                 {"30000/1001", 30000, 1001},
                 {"50/2", 25, 1},
                 {"0.5", 1, 2},
                 {"1000", 1000, 1},
                 {"7.3", 73, 10}};
    for (const auto &c : cases) {
        const auto rate = parseRate(c.text);
        ASSERT_TRUE(rate) << c.text;
        EXPECT_EQ(rate->numerator, c.numerator) << c.text;
        EXPECT_EQ(rate->denominator, c.denominator) << c.text;
    }
}

TEST(Options, readsNumbersAndPairs)
{
    EXPECT_DOUBLE_EQ(*parse({"cam", "in", "--ppm", "-50.5"}).number("--ppm", -100, 100), -50.5);
    EXPECT_EQ(*parse({"cam", "in", "--stall", "2.5,-40"}).pair("--stall"), (std::pair{2.5, -40.0}));
}

TEST(Options, describesOptionsInColumns)
{
    EXPECT_EQ(describeOptions({{"--loop", "", "once more"}, {"--fps", "RATE", "rate"}}),
              "  --loop      once more\n  --fps RATE  rate\n");
}
