#include "json.h"

#include <cmath>
#include <cstdio>

namespace zevshm {

namespace {

// Length of the UTF-8 sequence at `i`, 0 when there is no valid one. Overlong forms, surrogates and values
// beyond U+10FFFF are not valid.
size_t utf8Length(const std::string &text, size_t i)
{
    const auto byte = [&](size_t k) -> unsigned {
        return k < text.size() ? static_cast<uint8_t>(text[k]) : 0u;
    };
    const auto tail = [&](size_t k) { return (byte(k) & 0xc0) == 0x80; };
    const unsigned lead = byte(i);
    if (lead < 0x80)
        return 1;
    if (lead >= 0xc2 && lead <= 0xdf)
        return tail(i + 1) ? 2 : 0;
    if (lead >= 0xe0 && lead <= 0xef) {
        const unsigned low = lead == 0xe0 ? 0xa0 : 0x80;
        const unsigned high = lead == 0xed ? 0x9f : 0xbf;
        return byte(i + 1) >= low && byte(i + 1) <= high && tail(i + 2) ? 3 : 0;
    }
    if (lead >= 0xf0 && lead <= 0xf4) {
        const unsigned low = lead == 0xf0 ? 0x90 : 0x80;
        const unsigned high = lead == 0xf4 ? 0x8f : 0xbf;
        return byte(i + 1) >= low && byte(i + 1) <= high && tail(i + 2) && tail(i + 3) ? 4 : 0;
    }
    return 0;
}

} // namespace

void JsonWriter::indent()
{
    m_text += '\n';
    m_text.append(2 * m_hasItems.size(), ' ');
}

void JsonWriter::separate()
{
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (m_hasItems.empty())
        return;
    if (m_hasItems.back())
        m_text += ',';
    m_hasItems.back() = true;
    indent();
}

void JsonWriter::open(char bracket)
{
    separate();
    m_text += bracket;
    m_hasItems.push_back(false);
}

void JsonWriter::close(char bracket)
{
    const bool hadItems = m_hasItems.back();
    m_hasItems.pop_back();
    if (hadItems)
        indent();
    m_text += bracket;
}

JsonWriter &JsonWriter::beginObject()
{
    open('{');
    return *this;
}

JsonWriter &JsonWriter::endObject()
{
    close('}');
    return *this;
}

JsonWriter &JsonWriter::beginArray()
{
    open('[');
    return *this;
}

JsonWriter &JsonWriter::endArray()
{
    close(']');
    return *this;
}

JsonWriter &JsonWriter::key(const std::string &name)
{
    separate();
    string(name);
    m_text += ": ";
    m_afterKey = true;
    return *this;
}

void JsonWriter::string(const std::string &text)
{
    m_text += '"';
    for (size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (c == '"' || c == '\\') {
            m_text += '\\';
            m_text += c;
            ++i;
        } else if (static_cast<uint8_t>(c) < 0x20 || c == 0x7f) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(static_cast<uint8_t>(c)));
            m_text += escape;
            ++i;
        } else if (const size_t length = utf8Length(text, i)) {
            m_text.append(text, i, length);
            i += length;
        } else {
            m_text += "\\ufffd";
            ++i;
        }
    }
    m_text += '"';
}

JsonWriter &JsonWriter::value(const std::string &text)
{
    separate();
    string(text);
    return *this;
}

JsonWriter &JsonWriter::value(int64_t number)
{
    separate();
    m_text += std::to_string(number);
    return *this;
}

JsonWriter &JsonWriter::value(uint64_t number)
{
    separate();
    m_text += std::to_string(number);
    return *this;
}

JsonWriter &JsonWriter::value(double number)
{
    if (!std::isfinite(number))
        return null();
    separate();
    char text[40];
    std::snprintf(text, sizeof text, "%.9g", number);
    m_text += text;
    return *this;
}

JsonWriter &JsonWriter::value(bool truth)
{
    separate();
    m_text += truth ? "true" : "false";
    return *this;
}

JsonWriter &JsonWriter::null()
{
    separate();
    m_text += "null";
    return *this;
}

} // namespace zevshm
