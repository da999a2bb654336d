#ifndef STORE_DIRECTORY_H
#define STORE_DIRECTORY_H

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace testing_shm {

// A fresh store directory for this process and its children, removed at the end.
class StoreDirectory
{
public:
    StoreDirectory()
    {
        if (mkdtemp(m_path.data()) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        setenv("ZEV_SHM_DIR", m_path.c_str(), 1);
    }
    ~StoreDirectory()
    {
        unsetenv("ZEV_SHM_DIR");
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    const std::string &path() const { return m_path; }
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(m_path))
            names.push_back(entry.path().filename());
        return names;
    }

private:
    std::string m_path = "/tmp/zev-shm-XXXXXX";
};

} // namespace testing_shm

#endif
