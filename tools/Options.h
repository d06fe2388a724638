#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// What was wrong with the command line, in words that name the option and the value.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The long options of a program, beside --help. What they set must outlive them.
class Options {
public:
    Options(std::string programName, std::string usageText)
        : name(std::move(programName)), usage(std::move(usageText)) {}

    const std::string& GetName() const { return name; }
    const std::string& GetUsage() const { return usage; }

    void AddFlag(const std::string& option, bool& flag);
    /// "yes", which is also meant when there is no value, or "no".
    void AddSwitch(const std::string& option, std::optional<bool>& isOn);
    void AddText(const std::string& option, std::string& text);
    /// A whole number from `least` to `most`.
    void AddNumber(const std::string& option, unsigned int& number, unsigned int least, unsigned int most);

    /// Returns false when help was asked for. Throws UsageError.
    bool Parse(int argumentCount, char** arguments) const;

private:
    enum class Value { None, Optional, Needed };

    struct Option {
        std::string name;
        Value value;
        std::function<void(const std::string&)> set;
    };

    std::string name;
    std::string usage;
    std::vector<Option> options;
};
