// The syntax of master.cf, checked by hand and line by line, to compare with the
// grammar: no look-ahead, no alternatives, no shared code.
#pragma once

#include <string>
#include <vector>

namespace torva::mail::postfix::testing {

struct OracleService {
    std::string name;
    int type;                ///< 0: inet, 1: unix, 2: fifo
    std::string description; ///< as describe()
};

struct OracleLine {
    std::string text;
    bool isService = false;
    OracleService service;
};

struct OracleVerdict {
    bool accepted = true;
    std::vector<OracleLine> lines; ///< every logical line, equal services not yet joined
};

OracleVerdict judge(const std::string& text);

} // namespace torva::mail::postfix::testing
