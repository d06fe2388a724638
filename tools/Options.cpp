#include "Options.h"

#include <algorithm>
#include <charconv>
#include <string_view>

void Options::AddFlag(const std::string& option, bool& flag) {
    options.push_back({option, Value::None, [&flag](const std::string&) { flag = true; }});
}

void Options::AddSwitch(const std::string& option, std::optional<bool>& isOn) {
    options.push_back({option, Value::Optional, [option, &isOn](const std::string& value) {
                           if (value != "yes" && value != "no") {
                               throw UsageError("--" + option + " is yes or no, not '" + value + "'");
                           }
                           isOn = value != "no";
                       }});
}

void Options::AddText(const std::string& option, std::string& text) {
    options.push_back({option, Value::Needed, [option, &text](const std::string& value) {
                           if (value.empty()) {
                               throw UsageError("--" + option + " needs a value that is not empty");
                           }
                           text = value;
                       }});
}

void Options::AddNumber(const std::string& option, unsigned int& number, unsigned int least, unsigned int most) {
    options.push_back({option, Value::Needed, [=, &number](const std::string& value) {
                           unsigned int parsed = 0;
                           const char* const end = value.data() + value.size();
                           const auto [stop, error] = std::from_chars(value.data(), end, parsed);
                           if (error != std::errc() || stop != end || parsed < least || parsed > most) {
                               throw UsageError("--" + option + " is a whole number from " + std::to_string(least) +
                                                " to " + std::to_string(most) + ", not '" + value + "'");
                           }
                           number = parsed;
                       }});
}

bool Options::Parse(int argumentCount, char** arguments) const {
    for (int i = 1; i < argumentCount; ++i) {
        const std::string argument = arguments[i];
        if (argument.rfind('-', 0) != 0) {
            throw UsageError("unexpected argument '" + argument + "'");
        }
        const auto equals = argument.find('=');
        const std::string given = argument.substr(0, equals);
        const bool bringsValue = equals != std::string::npos;
        if (argument == "--help") {
            return false;
        }
        const auto entry = std::find_if(options.begin(), options.end(),
                                        [&](const Option& option) { return "--" + option.name == given; });
        if (entry == options.end()) {
            throw UsageError("unknown option " + argument);
        }
        if (entry->value == Value::None && bringsValue) {
            throw UsageError(given + " takes no value");
        }
        std::string value = bringsValue ? argument.substr(equals + 1) : "yes";
        if (entry->value == Value::Needed && !bringsValue) {
            // What looks like an option is one; a value that does so is given with "=".
            if (++i == argumentCount || std::string_view(arguments[i]).substr(0, 2) == "--") {
                throw UsageError(given + " needs a value");
            }
            value = arguments[i];
        }
        entry->set(value);
    }
    return true;
}
