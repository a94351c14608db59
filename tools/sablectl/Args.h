// Command-line options of one sablectl command: "--name VALUE", "--name=VALUE", flags, and
// positional arguments ("--" ends the options).
#ifndef SABLECTL_ARGS_H
#define SABLECTL_ARGS_H

#include <map>
#include <set>
#include <string>
#include <vector>

namespace sablectl {

class Args {
  public:
    // Options not in `valued` or `flags` are an error, with a message in `error`.
    bool Parse(const std::vector<std::string>& argv, const std::set<std::string>& valued,
               const std::set<std::string>& flags, std::string& error);

    bool Has(const std::string& name) const {
        return values.count(name) != 0 || set.count(name) != 0;
    }
    std::string Get(const std::string& name, const std::string& fallback = "") const;
    // An integer option within [min, max]; false with a message otherwise.
    bool GetInt(const std::string& name, long fallback, long min, long max, long& out,
                std::string& error) const;
    const std::vector<std::string>& Positional() const { return positional; }

  private:
    std::map<std::string, std::string> values;
    std::set<std::string> set;
    std::vector<std::string> positional;
};

// Exit statuses: 0 success, 1 the operation failed, 2 bad command line or input.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// Prints "sablectl: MESSAGE" on stderr and returns `status`.
int Fail(int status, const std::string& message);

}  // namespace sablectl

#endif
