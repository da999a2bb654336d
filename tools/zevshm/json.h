// Writes JSON text.
#ifndef ZEVSHM_JSON_H
#define ZEVSHM_JSON_H

#include <cstdint>
#include <string>
#include <vector>

namespace zevshm {

// Usage
//     JsonWriter json;
//     json.beginObject().key("name").value("cam").key("rate").value(25.0).endObject();
//     std::puts(json.text().c_str());
// Threads: reentrant.
// Errors: none; bytes that are not UTF-8 become U+FFFD, numbers that JSON has no word for become null.
class JsonWriter
{
public:
    JsonWriter &beginObject();
    JsonWriter &endObject();
    JsonWriter &beginArray();
    JsonWriter &endArray();
    JsonWriter &key(const std::string &name);
    JsonWriter &value(const std::string &text);
    JsonWriter &value(const char *text) { return value(std::string(text)); }
    JsonWriter &value(int64_t number);
    JsonWriter &value(uint64_t number);
    JsonWriter &value(int number) { return value(static_cast<int64_t>(number)); }
    JsonWriter &value(uint32_t number) { return value(static_cast<uint64_t>(number)); }
    JsonWriter &value(double number);
    JsonWriter &value(bool truth);
    JsonWriter &null();

    template <typename T>
    JsonWriter &member(const std::string &name, const T &what)
    {
        return key(name).value(what);
    }

    const std::string &text() const { return m_text; }

private:
    void separate();
    void open(char bracket);
    void close(char bracket);
    void indent();
    void string(const std::string &text);

    std::string m_text;
    std::vector<bool> m_hasItems; // of every open object or array
    bool m_afterKey = false;
};

} // namespace zevshm

#endif
