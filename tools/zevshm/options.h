// Command-line options, the same way for every command.
#ifndef ZEVSHM_OPTIONS_H
#define ZEVSHM_OPTIONS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zevshm {

struct OptionSpec
{
    std::string name;     // with its dashes: "--fps"
    std::string argument; // what stands for its value in the help; empty: a switch
    std::string help;
};

struct Ratio
{
    int numerator = 0;
    int denominator = 1;
};

// The words after a command, taken apart.
//
// Usage
//     Options options("publish", specs, {"NAME", "INPUT"}, words);
//     if (options.has("--loop")) ...
//     int history = options.integer("--history", 1, 200).value_or(0);
// Values may follow as the next word or after "=". "--" ends the options, a lone "-" is not one.
// Errors: everything that is wrong is a Failure with ExitUsage that names the word, says what to write
// instead and points to --help.
class Options
{
public:
    Options(std::string command, std::vector<OptionSpec> specs, std::vector<std::string> positionalNames,
            const std::vector<std::string> &words);

    bool has(const std::string &name) const { return m_values.count(name) != 0; }
    const std::vector<std::string> &positional() const { return m_positional; }

    std::optional<std::string> text(const std::string &name) const;
    std::optional<int64_t> integer(const std::string &name, int64_t minimum, int64_t maximum) const;
    std::optional<double> number(const std::string &name, double minimum, double maximum) const;
    std::optional<std::pair<int, int>> size(const std::string &name, int maximum) const; // "1280x720"
    std::optional<Ratio> rate(const std::string &name) const; // "25", "29.97", "30000/1001"
    std::optional<std::pair<double, double>> pair(const std::string &name) const; // "2.5,-40"
    std::optional<std::string> choice(const std::string &name, const std::vector<std::string> &allowed) const;

private:
    [[noreturn]] void refuse(const std::string &what) const;
    const OptionSpec *find(const std::string &name) const;
    // The option that somebody may have meant who wrote `name`; null when none is near.
    const OptionSpec *nearest(const std::string &name) const;

    std::string m_command;
    std::vector<OptionSpec> m_specs;
    std::map<std::string, std::string> m_values;
    std::vector<std::string> m_positional;
};

// "25", "29.97", "30000/1001" as an exact ratio; decimals close to a broadcast rate (n x 1000/1001) mean that
// rate.
std::optional<Ratio> parseRate(const std::string &text);

// The option list of a help text, in two columns.
std::string describeOptions(const std::vector<OptionSpec> &specs);

} // namespace zevshm

#endif
