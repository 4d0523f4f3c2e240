#include "ssh_cfg_ctl/options.h"

bool ctl_take_flag(std::vector<std::string>& arguments, const std::string& name) {
    return std::erase(arguments, name) != 0;
}

std::optional<std::string> ctl_take_value(std::vector<std::string>& arguments, const std::string& name) {
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        if (argument->starts_with(name + '=')) {
            std::string value = argument->substr(name.size() + 1);
            arguments.erase(argument);
            return value;
        }
        if (*argument == name && argument + 1 != arguments.end()) {
            std::string value = *(argument + 1);
            arguments.erase(argument, argument + 2);
            return value;
        }
    }
    return std::nullopt;
}
