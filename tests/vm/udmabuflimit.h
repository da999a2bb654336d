#ifndef ZEV_TESTS_UDMABUFLIMIT_H
#define ZEV_TESTS_UDMABUFLIMIT_H

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>

/*!
 * The size above which udmabuf exports nothing, its parameter size_limit_mb, for as long as this lives: of
 * the kernel, or of the stand-in where that is preloaded. The kernel's is the whole machine's, so it is for a
 * kernel that nobody else uses.
 *
 * Usage: one object, made before any process is that is to be limited too; set(), which is false when it is
 * not taken.
 */
class UdmabufLimit
{
public:
    UdmabufLimit()
    {
        const char *preloaded = std::getenv("LD_PRELOAD");
        if (!preloaded || !std::strstr(preloaded, "fakedmabuf"))
            return;
        char name[] = "/tmp/zevlimitXXXXXX";
        const int fd = mkstemp(name);
        if (fd < 0)
            return;
        close(fd);
        m_standIn = m_parameter = name;
        setenv("FAKE_UDMABUF_LIMIT_FILE", name, 1);
        set(usualMb);
    }
    ~UdmabufLimit()
    {
        set(usualMb);
        if (!m_standIn.empty())
            unlink(m_standIn.c_str());
    }
    UdmabufLimit(const UdmabufLimit &) = delete;
    UdmabufLimit &operator=(const UdmabufLimit &) = delete;

    bool set(int megabytes) const
    {
        std::ofstream(m_parameter) << megabytes << std::flush;
        int now = -1;
        std::ifstream(m_parameter) >> now;
        return now == megabytes;
    }

private:
    enum { usualMb = 64 };
    std::string m_standIn;
    std::string m_parameter = "/sys/module/udmabuf/parameters/size_limit_mb";
};

#endif
