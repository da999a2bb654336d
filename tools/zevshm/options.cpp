#include "options.h"

#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <utility>

namespace zevshm {

namespace {

std::optional<int64_t> toInteger(const std::string &text)
{
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])))
        return std::nullopt;
    char *end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return std::nullopt;
    return value;
}

std::optional<double> toNumber(const std::string &text)
{
    // Only plain decimals: strtod would also take "nan", "inf" and hexadecimal.
    if (text.empty() || text.find_first_not_of("0123456789.+-eE") != std::string::npos)
        return std::nullopt;
    char *end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(value))
        return std::nullopt;
    return value;
}

std::string plain(double value)
{
    std::string text = std::to_string(value);
    text.erase(text.find_last_not_of('0') + 1);
    if (!text.empty() && text.back() == '.')
        text.pop_back();
    return text;
}

// Letters to add, take away or replace to make one word of the other.
size_t distance(const std::string &a, const std::string &b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row[b.size()];
}

} // namespace

std::optional<Ratio> parseRate(const std::string &text)
{
    constexpr double lowest = 0.01;
    constexpr double highest = 1000;
    const size_t slash = text.find('/');
    if (slash != std::string::npos) {
        const auto numerator = toInteger(text.substr(0, slash));
        const auto denominator = toInteger(text.substr(slash + 1));
        if (!numerator || !denominator || *numerator < 1 || *denominator < 1 || *numerator > INT32_MAX ||
            *denominator > INT32_MAX)
            return std::nullopt;
        const double rate = static_cast<double>(*numerator) / static_cast<double>(*denominator);
        if (rate < lowest || rate > highest)
            return std::nullopt;
        const int64_t common = std::gcd(*numerator, *denominator);
        return Ratio{static_cast<int>(*numerator / common), static_cast<int>(*denominator / common)};
    }
    const auto rate = toNumber(text);
    if (!rate || *rate < lowest || *rate > highest)
        return std::nullopt;
    const double whole = std::round(*rate);
    if (std::abs(*rate - whole) < 1e-9)
        return Ratio{static_cast<int>(whole), 1};
    // 23.976, 29.97, 59.94
    if (whole >= 1 && std::abs(*rate - whole * 1000 / 1001) < 0.005)
        return Ratio{static_cast<int>(whole) * 1000, 1001};
    const int numerator = static_cast<int>(std::lround(*rate * 1000));
    if (numerator < 1)
        return std::nullopt;
    const int common = std::gcd(numerator, 1000);
    return Ratio{numerator / common, 1000 / common};
}

Options::Options(std::string command, std::vector<OptionSpec> specs, std::vector<std::string> positionalNames,
                 const std::vector<std::string> &words)
    : m_command(std::move(command)), m_specs(std::move(specs))
{
    bool optionsEnded = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &word = words[i];
        if (optionsEnded || word.size() < 2 || word[0] != '-') {
            m_positional.push_back(word);
            continue;
        }
        if (word == "--") {
            optionsEnded = true;
            continue;
        }
        const size_t equals = word.find('=');
        const std::string name = word == "-h" ? "--help" : word.substr(0, equals);
        const OptionSpec *spec = find(name);
        if (!spec) {
            const OptionSpec *meant = nearest(name);
            refuse("unknown option '" + name + "'" +
                   (meant ? ", perhaps '" + meant->name + "' is meant" : ""));
        }
        if (spec->argument.empty()) {
            if (equals != std::string::npos)
                refuse("option '" + name + "' takes no value, leave '" + word.substr(equals) + "' out");
            m_values[name];
            continue;
        }
        std::string value;
        if (equals != std::string::npos)
            value = word.substr(equals + 1);
        else if (i + 1 < words.size())
            value = words[++i];
        if (value.empty()) {
            const std::string usage = name + " " + spec->argument;
            refuse("option '" + name + "' needs a value, give " + usage);
        }
        m_values[name] = std::move(value);
    }
    if (has("--help"))
        return;
    std::string usage = "zevshm " + m_command;
    for (const std::string &name : positionalNames)
        usage += " " + name;
    if (m_positional.size() < positionalNames.size())
        refuse(positionalNames[m_positional.size()] + " is missing, give '" + usage + "'");
    if (m_positional.size() > positionalNames.size())
        refuse("unexpected argument '" + m_positional[positionalNames.size()] + "', give '" + usage +
               "' and put what has spaces into quotes");
}

void Options::refuse(const std::string &what) const
{
    throw Failure(ExitUsage, m_command + ": " + what + "; see 'zevshm " + m_command + " --help'");
}

const OptionSpec *Options::find(const std::string &name) const
{
    const auto found = std::find_if(m_specs.begin(), m_specs.end(),
                                    [&](const OptionSpec &spec) { return spec.name == name; });
    return found == m_specs.end() ? nullptr : &*found;
}

const OptionSpec *Options::nearest(const std::string &name) const
{
    const OptionSpec *result = nullptr;
    size_t least = 3; // more mistakes than that, and it is another word
    for (const OptionSpec &spec : m_specs) {
        const size_t mistakes = distance(name, spec.name);
        if (mistakes < least && mistakes + 2 < name.size()) { // the dashes alone make no word similar
            least = mistakes;
            result = &spec;
        }
    }
    return result;
}

std::optional<std::string> Options::text(const std::string &name) const
{
    const auto found = m_values.find(name);
    return found == m_values.end() ? std::nullopt : std::optional<std::string>(found->second);
}

std::optional<int64_t> Options::integer(const std::string &name, int64_t minimum, int64_t maximum) const
{
    const auto value = text(name);
    if (!value)
        return std::nullopt;
    const auto parsed = toInteger(*value);
    if (!parsed || *parsed < minimum || *parsed > maximum)
        refuse("'" + *value + "' is no value for " + name + ", give a whole number from " +
               std::to_string(minimum) + " to " + std::to_string(maximum));
    return parsed;
}

std::optional<double> Options::number(const std::string &name, double minimum, double maximum) const
{
    const auto value = text(name);
    if (!value)
        return std::nullopt;
    const auto parsed = toNumber(*value);
    if (!parsed || *parsed < minimum || *parsed > maximum)
        refuse("'" + *value + "' is no value for " + name + ", give a number from " + plain(minimum) +
               " to " + plain(maximum));
    return parsed;
}

std::optional<std::pair<int, int>> Options::size(const std::string &name, int maximum) const
{
    const auto value = text(name);
    if (!value)
        return std::nullopt;
    const size_t cross = value->find('x');
    if (cross != std::string::npos) {
        const auto width = toInteger(value->substr(0, cross));
        const auto height = toInteger(value->substr(cross + 1));
        if (width && height && *width >= 2 && *height >= 2 && *width <= maximum && *height <= maximum)
            return std::make_pair(static_cast<int>(*width), static_cast<int>(*height));
    }
    refuse("'" + *value + "' is no value for " + name + ", give WIDTHxHEIGHT, each from 2 to " +
           std::to_string(maximum));
}

std::optional<Ratio> Options::rate(const std::string &name) const
{
    const auto value = text(name);
    if (!value)
        return std::nullopt;
    const auto parsed = parseRate(*value);
    if (!parsed)
        refuse("'" + *value + "' is no value for " + name +
               ", give frames a second from 0.01 to 1000, such as 25, 29.97 or 30000/1001");
    return parsed;
}

std::optional<std::pair<double, double>> Options::pair(const std::string &name) const
{
    const auto value = text(name);
    if (!value)
        return std::nullopt;
    const size_t comma = value->find(',');
    if (comma != std::string::npos) {
        const auto first = toNumber(value->substr(0, comma));
        const auto second = toNumber(value->substr(comma + 1));
        if (first && second && *first >= 0 && std::abs(*first) < 1e9 && std::abs(*second) < 1e9)
            return std::make_pair(*first, *second);
    }
    refuse("'" + *value + "' is no value for " + name + ", give " + find(name)->argument + " as two numbers");
}

std::optional<std::string> Options::choice(const std::string &name,
                                           const std::vector<std::string> &allowed) const
{
    auto value = text(name);
    if (!value || std::find(allowed.begin(), allowed.end(), *value) != allowed.end())
        return value;
    std::string list;
    for (size_t i = 0; i < allowed.size(); ++i)
        list += (i == 0 ? "" : i + 1 == allowed.size() ? " or " : ", ") + allowed[i];
    refuse("'" + *value + "' is no value for " + name + ", give " + list);
}

std::string describeOptions(const std::vector<OptionSpec> &specs)
{
    size_t width = 0;
    for (const OptionSpec &spec : specs)
        width = std::max(width, spec.name.size() + (spec.argument.empty() ? 0 : spec.argument.size() + 1));
    std::string text;
    for (const OptionSpec &spec : specs) {
        std::string left = spec.argument.empty() ? spec.name : spec.name + " " + spec.argument;
        left.resize(width, ' ');
        text += "  " + left + "  " + spec.help + "\n";
    }
    return text;
}

} // namespace zevshm
