#include "ctl/host/Membership.h"

#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/Program.h"
#include "ctl/host/ToolWords.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <optional>

namespace torva::ctl {

namespace {

using boost::algorithm::starts_with;

constexpr int deepestFile = 20; ///< of files that name each other; Postfix would never end

bool isTable(const std::string& item) {
    return item[0] != '[' && item.find(':') != std::string::npos;
}

class MembershipSearch {
public:
    MembershipSearch(const std::vector<std::string>& names, const TableQuestion& ask)
        : names_(names), ask_(ask) {}

    /// What the first element that matches decides; nothing when none does.
    ///
    /// \param accepts  whether an element without "!" decides for it
    std::optional<Membership> inText(const std::string& text, bool accepts, int depth) const {
        for (const std::string& element : listElements(text)) {
            const std::string::size_type begin = element.find_first_not_of('!');
            if (element[0] == '#') {
                break; // as Postfix does, although it says that this is no comment
            }
            if (begin == std::string::npos) {
                return Membership::unknown; // Postfix's programs end with an error
            }
            const std::string item = element.substr(begin);
            const bool isFor = accepts == (begin % 2 == 0);
            const auto found =
                item[0] == '/' ? inFile(item, isFor, depth) : decision(inItem(item), isFor);
            if (found) {
                return found;
            }
        }
        return std::nullopt;
    }

private:
    static std::optional<Membership> decision(Membership match, bool isFor) {
        if (match == Membership::no) {
            return std::nullopt;
        }
        return match == Membership::yes && !isFor ? Membership::no : match;
    }

    std::optional<Membership> inFile(const std::string& path, bool accepts, int depth) const {
        const auto text = readFile(path);
        if (!text || depth == deepestFile) {
            return Membership::unknown;
        }
        for (const std::string& line : linesOf(*text)) {
            if (const auto found = inText(line, accepts, depth + 1)) {
                return found;
            }
        }
        return std::nullopt;
    }

    Membership inItem(const std::string& item) const {
        for (const std::string& name : names_) {
            const Membership match = isTable(item) ? ask_(item, name)
                                     : boost::algorithm::to_lower_copy(item) == name
                                         ? Membership::yes
                                         : Membership::no;
            if (match != Membership::no) {
                return match;
            }
        }
        return Membership::no;
    }

    const std::vector<std::string>& names_;
    const TableQuestion& ask_;
};

} // namespace

Membership membership(const std::vector<std::string>& names, const std::string& list,
                      const TableQuestion& ask) {
    return MembershipSearch(names, ask).inText(list, true, 0).value_or(Membership::no);
}

Membership askTable(const std::string& table, const std::string& name) {
    std::string asked = table;
    while (starts_with(asked, "proxy:")) {
        asked.erase(0, asked.find(':') + 1); // without a running Postfix, postmap would wait
    }
    if (starts_with(asked, "memcache:")) {
        return Membership::unknown; // it may put what it finds elsewhere into its cache
    }
    const ToolResult result = run({"timeout", "5", "/usr/sbin/postmap", "-q", name, asked});
    if (result.succeeded()) {
        return Membership::yes;
    }
    // The status is the same for a name that is not there.
    const std::vector<std::string> said = linesOf(result.error);
    const bool isAnswer =
        exitStatus(result) == 1 && std::all_of(said.begin(), said.end(), isWarning);
    return isAnswer ? Membership::no : Membership::unknown;
}

} // namespace torva::ctl
