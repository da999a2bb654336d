// `zevshm top`: figures that are known beforehand, and a terminal that is given back.
#include "zevshm_driver.h"
#include "zevshm_ownstore.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

using namespace driver;

namespace {

class ZevshmTop : public testing::Test
{
protected:
    StoreDirectory stores;
};

QJsonArray topJson(const std::string &seconds)
{
    const Result result = run({"top", "--json", "--interval", seconds});
    EXPECT_EQ(result.code, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(result.output), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << result.output;
    return document.array();
}

class Terminal
{
public:
    Terminal(int columns, int rows)
    {
        m_master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        EXPECT_TRUE(m_master >= 0 && grantpt(m_master) == 0 && unlockpt(m_master) == 0);
        m_slave = open(ptsname(m_master), O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(m_slave, 0);
        resize(columns, rows);
    }
    ~Terminal()
    {
        close(m_slave);
        close(m_master);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    int slave() const { return m_slave; }
    void resize(int columns, int rows) const
    {
        winsize size{};
        size.ws_col = static_cast<unsigned short>(columns);
        size.ws_row = static_cast<unsigned short>(rows);
        EXPECT_EQ(ioctl(m_master, TIOCSWINSZ, &size), 0);
    }
    termios settings() const
    {
        termios now{};
        EXPECT_EQ(tcgetattr(m_slave, &now), 0);
        return now;
    }
    bool isRaw() const { return (settings().c_lflag & (ICANON | ECHO)) == 0; }
    void type(const char *keys) const { EXPECT_GT(write(m_master, keys, std::strlen(keys)), 0); }
    const std::string &text()
    {
        char buffer[4096];
        for (ssize_t got; (got = read(m_master, buffer, sizeof buffer)) > 0;)
            m_text.append(buffer, static_cast<size_t>(got));
        return m_text;
    }
    bool waitForText(const std::string &what)
    {
        return waitFor([&] { return text().find(what) != std::string::npos; });
    }
    void forget()
    {
        text();
        m_text.clear();
    }
    // The lines of what was shown last, completely, without what is not to be seen.
    std::vector<std::string> lastPicture()
    {
        text();
        const size_t end = m_text.rfind("\x1b[J");
        const size_t start = m_text.rfind("\x1b[H", end);
        std::vector<std::string> lines;
        if (end == std::string::npos || start == std::string::npos)
            return lines;
        std::istringstream stream(m_text.substr(start + 3, end - start - 3));
        for (std::string line; std::getline(stream, line);) {
            for (size_t at; (at = line.find("\x1b[K")) != std::string::npos;)
                line.erase(at, 3);
            line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
            lines.push_back(line);
        }
        return lines;
    }

private:
    int m_master = -1;
    int m_slave = -1;
    std::string m_text;
};

const std::string taken = "\x1b[?1049h\x1b[?25l";
const std::string given = "\x1b[?25h\x1b[?1049l";

size_t count(const std::string &text, const std::string &what)
{
    size_t found = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++found;
    return found;
}

bool sameSettings(const termios &a, const termios &b)
{
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
           a.c_lflag == b.c_lflag && std::memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0;
}

char stateOfProcess(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const size_t end = text.rfind(") ");
    return end == std::string::npos ? '?' : text[end + 2];
}

} // namespace

TEST_F(ZevshmTop, theFiguresAreThoseOfTheStores)
{
    OwnStore quiet("quiet", 320, 240);
    quiet.publish(3, 0);
    const Reader reader = openStore("quiet");
    const Frame held(reader.get());
    ASSERT_TRUE(held);
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240"});
    const Reader other = openStore("cam");
    ASSERT_TRUE(other && waitForFrames(other.get(), 5)) << publisher.errors();

    const uint64_t before = storeInfo(other.get()).frames_published;
    const auto start = std::chrono::steady_clock::now();
    const QJsonArray rows = topJson("1");
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const uint64_t after = storeInfo(other.get()).frames_published;
    ASSERT_EQ(rows.size(), 2);
    const QJsonObject cam = rows[0].toObject();
    EXPECT_EQ(cam["name"].toString(), "cam");
    EXPECT_TRUE(cam["live"].toBool());
    EXPECT_EQ(cam["readers"].toInt(-1), 1);
    EXPECT_EQ(cam["nominalRate"].toDouble(), 25.0);
    // It measured over a part of the time in which so many were published.
    EXPECT_LE(cam["rate"].toDouble(), static_cast<double>(after - before) + 1);
    EXPECT_GT(cam["rate"].toDouble(), static_cast<double>(after - before) / seconds / 3);
    const double frameBytes = 320 * 240 * 1.5;
    EXPECT_GT(cam["bytesPerSecond"].toDouble(), cam["rate"].toDouble() * frameBytes);
    EXPECT_LT(cam["bytesPerSecond"].toDouble(), cam["rate"].toDouble() * frameBytes + 2 * 48000 * 4);

    const QJsonObject still = rows[1].toObject();
    EXPECT_EQ(still["name"].toString(), "quiet");
    EXPECT_EQ(still["rate"].toDouble(-1), 0.0);
    EXPECT_EQ(still["bytesPerSecond"].toDouble(-1), 0.0);
    EXPECT_EQ(still["locksHeld"].toInt(-1), 1);
    EXPECT_EQ(still["readers"].toInt(-1), 1);
    EXPECT_EQ(still["framesDropped"].toInt(-1), 0);
}

TEST_F(ZevshmTop, whereThereIsNoTerminalItIsPrintedOnce)
{
    const Result none = run({"top"});
    EXPECT_EQ(none.code, 0);
    EXPECT_EQ(none.output, "No stores. Publish one with 'zevshm publish NAME test:'.\n");
    EXPECT_EQ(topJson("0.1"), QJsonArray());
    OwnStore store("cam", 320, 240);
    store.publish();
    Zevshm publisher({"publish", "gone", "test:", "--size", "320x240"});
    ASSERT_TRUE(openStore("gone"));
    publisher.signal(SIGKILL);
    publisher.wait();
    const Result result = run({"top", "--interval", "0.2"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.output.rfind("NAME  STATE", 0), 0u) << result.output;
    EXPECT_NE(result.output.find("\ncam   live"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("\ngone  dead"), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find('\x1b'), std::string::npos);
    EXPECT_EQ(run({"top", "--interval", "0"}).code, 2);
    EXPECT_EQ(run({"top", "cam"}).code, 2);
    setenv("ZEV_SHM_DIR", stores.file("nowhere").c_str(), 1);
    EXPECT_EQ(run({"top"}).code, 6);
    setenv("ZEV_SHM_DIR", stores.path().c_str(), 1);
}

TEST_F(ZevshmTop, theTerminalIsGivenBack)
{
    OwnStore store("cam", 320, 240);
    store.publish();
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, 0}) {
        Terminal terminal(80, 24);
        const termios before = terminal.settings();
        Zevshm top({"top", "--interval", "0.1"}, terminal.slave(), terminal.slave(), terminal.slave());
        ASSERT_TRUE(terminal.waitForText("cam")) << terminal.text();
        EXPECT_TRUE(terminal.isRaw());
        if (number)
            top.signal(number);
        else
            terminal.type("xq");
        EXPECT_EQ(top.wait(), 0) << number;
        EXPECT_TRUE(sameSettings(terminal.settings(), before)) << number;
        const std::string &text = terminal.text();
        EXPECT_EQ(text.rfind(taken, 0), 0u);
        EXPECT_EQ(count(text, taken), 1u);
        EXPECT_EQ(count(text, given), 1u);
        EXPECT_EQ(text.substr(text.size() - given.size()), given) << number;
    }
}

TEST_F(ZevshmTop, theTerminalIsGivenBackWhileItIsStopped)
{
    OwnStore store("cam", 320, 240);
    store.publish();
    Terminal terminal(80, 24);
    const termios before = terminal.settings();
    Zevshm top({"top", "--interval", "0.1"}, terminal.slave(), terminal.slave(), terminal.slave());
    ASSERT_TRUE(terminal.waitForText("cam"));
    top.signal(SIGTSTP);
    ASSERT_TRUE(waitFor([&] { return stateOfProcess(top.pid()) == 'T'; }));
    EXPECT_TRUE(sameSettings(terminal.settings(), before));
    EXPECT_EQ(count(terminal.text(), given), 1u);
    terminal.forget();
    top.signal(SIGCONT);
    ASSERT_TRUE(terminal.waitForText("cam"));
    EXPECT_TRUE(terminal.isRaw());
    EXPECT_EQ(terminal.text().rfind(taken, 0), 0u);
    top.signal(SIGINT);
    EXPECT_EQ(top.wait(), 0);
    EXPECT_TRUE(sameSettings(terminal.settings(), before));
}

TEST_F(ZevshmTop, aTerminalThatCannotBeWrittenIsLeftAsItWas)
{
    const Terminal terminal(80, 24);
    const termios before = terminal.settings();
    const std::string path = "/proc/self/fd/" + std::to_string(terminal.slave());
    const int readOnly = open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(readOnly, 0);
    Zevshm top({"top"}, terminal.slave(), -1, readOnly);
    EXPECT_EQ(top.wait(), 10);
    EXPECT_NE(top.errors().find("the terminal cannot be written"), std::string::npos) << top.errors();
    EXPECT_NE(top.errors().find("'zevshm top --once'"), std::string::npos) << top.errors();
    EXPECT_TRUE(sameSettings(terminal.settings(), before));
    close(readOnly);
}

TEST_F(ZevshmTop, itFitsIntoNarrowTerminalsAndFollowsTheirSize)
{
    std::vector<std::unique_ptr<OwnStore>> cameras;
    for (int i = 0; i < 6; ++i) {
        cameras.push_back(std::make_unique<OwnStore>("camera-" + std::to_string(i), 320, 240));
        cameras.back()->publish();
    }
    Terminal terminal(20, 5);
    Zevshm top({"top", "--interval", "0.2"}, terminal.slave(), terminal.slave(), terminal.slave());
    ASSERT_TRUE(terminal.waitForText("4 more")) << terminal.text();
    for (const auto &[columns, rows] : {std::pair(20, 5), std::pair(100, 30), std::pair(7, 3)}) {
        terminal.resize(columns, rows);
        top.signal(SIGWINCH);
        EXPECT_TRUE(waitFor([&] {
            const auto lines = terminal.lastPicture();
            return lines.size() == static_cast<size_t>(std::min(rows, 8)) &&
                   (columns < 100 || lines[1].find("DROPS") != std::string::npos);
        })) << columns;
        const auto lines = terminal.lastPicture();
        for (const std::string &line : lines)
            EXPECT_LE(line.size(), static_cast<size_t>(columns)) << line;
    }
    // A store that comes is there at the next look, and one that goes is not.
    terminal.resize(100, 30);
    top.signal(SIGWINCH);
    OwnStore late("late", 320, 240);
    late.publish();
    ASSERT_TRUE(terminal.waitForText("late"));
    cameras.clear();
    EXPECT_TRUE(waitFor([&] {
        const auto lines = terminal.lastPicture();
        return lines.size() == 3 && lines[2].rfind("late", 0) == 0;
    }));
    top.signal(SIGINT);
    EXPECT_EQ(top.wait(), 0);
}
