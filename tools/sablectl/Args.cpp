#include "Args.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace sablectl {

bool Args::Parse(const std::vector<std::string>& argv, const std::set<std::string>& valued,
                 const std::set<std::string>& flags, std::string& error) {
    bool optionsEnded = false;
    for (size_t i = 0; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        if (optionsEnded || a.size() < 2 || a[0] != '-' || a == "-") {
            positional.push_back(a);
            continue;
        }
        if (a == "--") {
            optionsEnded = true;
            continue;
        }
        std::string name = a, value;
        bool inlineValue = false;
        auto eq = a.find('=');
        if (a.rfind("--", 0) == 0 && eq != std::string::npos) {
            name = a.substr(0, eq);
            value = a.substr(eq + 1);
            inlineValue = true;
        }
        if (valued.count(name) != 0) {
            if (!inlineValue) {
                if (i + 1 >= argv.size()) {
                    error = "option " + name + " needs a value";
                    return false;
                }
                value = argv[++i];
            }
            values[name] = value;
        } else if (flags.count(name) != 0 && !inlineValue) {
            set.insert(name);
        } else {
            error = "unknown option " + a;
            return false;
        }
    }
    return true;
}

std::string Args::Get(const std::string& name, const std::string& fallback) const {
    auto it = values.find(name);
    return it == values.end() ? fallback : it->second;
}

bool Args::GetInt(const std::string& name, long fallback, long min, long max, long& out,
                  std::string& error) const {
    out = fallback;
    auto it = values.find(name);
    if (it == values.end()) return true;
    char* end = nullptr;
    errno = 0;
    long v = strtol(it->second.c_str(), &end, 10);
    if (it->second.empty() || *end != '\0' || errno != 0 || v < min || v > max) {
        error = name + " takes a whole number from " + std::to_string(min) + " to " +
                std::to_string(max) + ", not '" + it->second + "'";
        return false;
    }
    out = v;
    return true;
}

int Fail(int status, const std::string& message) {
    fprintf(stderr, "sablectl: %s\n", message.c_str());
    return status;
}

}  // namespace sablectl
